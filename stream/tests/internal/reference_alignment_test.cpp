// How far ahead of its echo the canceller gets the reference.
#include "stream/reference_alignment.h"

#include <gtest/gtest.h>

#include "speechenhance/stream.h"
#include "stream/tests/echo_scene.h"

namespace {

using namespace echo_scene;
using se::stream::ReferenceAlignment;

constexpr int kBlock = 160;

struct Followed {
  double off_s = 0;     // time spent outside 10 to 40 ms, after the first three seconds
  double last_off = 0;  // when that was last so, s
};

// Runs it over an echo that lags the reference by `delay_at` of the time in seconds, in ms.
template <class Delay>
Followed follow(double seconds, const Delay& delay_at) {
  // Half a minute of speech over and over: the echo's delay changes, the sound may repeat.
  const std::vector<float> far = speech(30.0, 1);
  const std::vector<float> echo = in_room(far, 2);
  ReferenceAlignment alignment;
  EXPECT_TRUE(alignment.create(0));
  alignment.set_delay(SE_STREAM_DELAY_AUTO);
  Followed result;
  for (std::size_t block = 0; block < samples(seconds) / kBlock; ++block) {
    float mic[kBlock], ref[kBlock];
    const double now = static_cast<double>(block) * kBlock / kRate;
    for (std::size_t i = 0; i < kBlock; ++i) {
      const std::size_t at = block * kBlock + i;
      ref[i] = far[at % far.size()];
      const double heard =
          static_cast<double>(at) - 16.0 * delay_at(now + static_cast<double>(i) / kRate);
      const auto whole = static_cast<std::size_t>(std::max(0.0, heard));
      const auto part = static_cast<float>(std::max(0.0, heard) - static_cast<double>(whole));
      mic[i] = (1 - part) * echo[whole % echo.size()] + part * echo[(whole + 1) % echo.size()];
    }
    alignment.process(mic, ref);
    const double early = delay_at(now) - alignment.held_back() / 16.0;
    if (now >= 3.0 && (early < 10 || early > 40)) {
      result.off_s += 0.01;
      result.last_off = now;
    }
  }
  return result;
}

TEST(ReferenceAlignment, StaysAheadWhileClocksDriftForTenMinutes) {
  for (const double ppm : {300.0, -300.0}) {
    const Followed result = follow(600, [ppm](double t) { return 250.0 + t * 1e-3 * ppm; });
    EXPECT_EQ(result.off_s, 0.0) << ppm << " ppm, last at " << result.last_off << " s";
  }
}

TEST(ReferenceAlignment, FollowsAJumpWithinFiveSeconds) {
  for (const double jump_ms : {100.0, -100.0}) {
    const Followed result =
        follow(20, [jump_ms](double t) { return t < 8 ? 150.0 : 150.0 + jump_ms; });
    EXPECT_LT(result.last_off, 13.0) << jump_ms;
    EXPECT_GT(result.last_off, 8.0) << jump_ms;
  }
}

// A move passes over from the old place to the new one, and no sample before or after the block of
// the move is anything but the reference.
TEST(ReferenceAlignment, MovesWithinABlock) {
  ReferenceAlignment alignment;
  ASSERT_TRUE(alignment.create(0));
  alignment.set_delay(0);
  const auto ramp = [](std::size_t i) { return static_cast<float>(i) / 1024; };
  for (std::size_t block = 0; block < 200; ++block) {
    float ref[kBlock];
    for (std::size_t i = 0; i < kBlock; ++i) ref[i] = ramp(block * kBlock + i);
    if (block == 150) alignment.set_delay(300);
    alignment.process(ref, ref);
    const std::size_t held_back = block < 150 ? 0 : 275 * 16;
    for (std::size_t i = 0; i < kBlock; ++i) {
      const std::size_t at = block * kBlock + i;
      if (block == 150) continue;
      ASSERT_EQ(ref[i], ramp(at - held_back)) << at;
    }
    if (block == 150) {
      EXPECT_NEAR(ref[0], ramp(block * kBlock - 275 * 16 / 160), 0.01f);
      EXPECT_EQ(ref[kBlock - 1], ramp(151 * kBlock - 1 - 275 * 16));
    }
  }
}

}  // namespace
