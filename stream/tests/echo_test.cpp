// Echo that is left when the reference comes at the wrong time.
#include <gtest/gtest.h>

#include "stream/tests/echo_scene.h"
#include "stream/tests/stream_support.h"

namespace {

using namespace echo_scene;

// What is left below this is below the noise of the room, and no worse or better.
constexpr double kInaudibleDb = -62.0;

struct FarEnd {
  const char* name;
  std::vector<float> (*make)(double, unsigned);
};

class EchoOf : public testing::TestWithParam<FarEnd> {};

// The far end talks all the time, the near end with it from the first second to the fourth. From
// the fifth second on, what is left of the echo is what is left where the reference was in time.
TEST_P(EchoOf, IsTakenDownWhateverItsDelay) {
  constexpr double kSeconds = 10;
  const std::vector<float> far = GetParam().make(kSeconds, 1);
  const std::vector<float> echo = in_room(far, 2);
  std::vector<float> near = in_room(speech(4, 3), 4);
  RandomSignal random(5);
  const std::vector<float> noise = random.reals(echo.size(), 0.0005f);
  for (const bool double_talk : {false, true}) {
    const auto left = [&](unsigned delay_ms, int32_t setting) {
      std::vector<float> mic = later(echo, delay_ms * 16);
      add(mic, noise);
      if (double_talk) add(mic, near);
      StreamHandle stream = make_stream(kRate, 1, 1, setting);
      const std::vector<float> out = run(stream.get(), {mic}, {far}, 160);
      const auto latency = static_cast<std::size_t>(se_stream_latency(stream.get()));
      return std::max(kInaudibleDb, level_db(out, samples(5) + latency, out.size()));
    };
    const double aligned = left(0, 0);
    EXPECT_LT(aligned, level_db(echo, samples(5), echo.size()) - 20);
    for (const unsigned delay_ms : {0u, 20u, 50u, 100u, 200u, 350u, 500u}) {
      EXPECT_LT(left(delay_ms, SE_STREAM_DELAY_AUTO), aligned + 3.0)
          << delay_ms << " ms, double talk " << double_talk;
    }
    // Music goes as noise goes, cancelled or not.
    if (GetParam().make == speech) {
      EXPECT_GT(left(200, 0), aligned + 10.0);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Stream, EchoOf,
                         testing::Values(FarEnd{"speech", speech}, FarEnd{"music", music}),
                         [](const auto& far) { return far.param.name; });

// A reference that comes after its echo is of use once the microphones are held back.
TEST(Echo, OfALateReferenceNeedsANegativeDelay) {
  const std::vector<float> sound = speech(8, 6);
  const std::vector<float> echo = in_room(sound, 7);
  const std::vector<float> late = later(sound, 120 * 16);
  const auto left = [&](int32_t setting) {
    StreamHandle stream = make_stream(kRate, 1, 1, setting);
    const std::vector<float> out = run(stream.get(), {echo}, {late}, 333);
    return level_db(out, samples(4), out.size());
  };
  EXPECT_LT(left(-140), left(0) - 20);
}

}  // namespace
