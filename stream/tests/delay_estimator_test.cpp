// The delay estimator on its own.
#include "speechenhance/delay_estimator.h"

#include <gtest/gtest.h>

#include "guarded_region.h"
#include "stream/tests/echo_scene.h"

namespace {

using namespace echo_scene;

constexpr double kDirectMs = 5.0 / 16;  // of the room's first sound

class Estimator {
 public:
  Estimator() : memory_(delay_estimator_query_mem(), 3) {
    estimator_ = delay_estimator_init(memory_.data());
  }
  ~Estimator() { EXPECT_TRUE(memory_.intact()); }

  // From one second to another of both signals.
  DelayEstimate hear(const std::vector<float>& mic, const std::vector<float>& ref, double from,
                     double to) {
    for (std::size_t at = samples(from); at + 160 <= samples(to); at += 160) {
      delay_estimator_process(estimator_, &mic[at], &ref[at]);
    }
    return delay_estimator_get(estimator_);
  }

 private:
  GuardedRegion memory_;
  DelayEstimator* estimator_;
};

struct FarEnd {
  const char* name;
  std::vector<float> (*make)(double, unsigned);
};

class FarEnds : public testing::TestWithParam<FarEnd> {};

TEST_P(FarEnds, DelaysAreFoundWithinThreeSeconds) {
  const std::vector<float> far = GetParam().make(3.0, 1);
  const std::vector<float> echo = in_room(far, 2);
  const std::vector<float> near = in_room(speech(3.0, 3), 4);
  RandomSignal random(5);
  for (const bool double_talk : {false, true}) {
    for (const unsigned delay_ms : {0u, 20u, 50u, 100u, 200u, 350u, 500u}) {
      std::vector<float> mic = later(echo, delay_ms * 16);
      add(mic, random.reals(mic.size(), 0.002f));
      if (double_talk) add(mic, near);
      const DelayEstimate estimate = Estimator().hear(mic, far, 0, 3);
      EXPECT_EQ(estimate.found, 1) << delay_ms << " ms, double talk " << double_talk;
      EXPECT_NEAR(estimate.delay_ms, delay_ms + kDirectMs, 2.0) << double_talk;
      EXPECT_GE(estimate.confidence, 0.5f) << delay_ms << " ms, double talk " << double_talk;
    }
  }
}

TEST_P(FarEnds, SilenceAndNearEndLeaveTheDelayAlone) {
  std::vector<float> far = GetParam().make(12.0, 6);
  std::fill(far.begin() + static_cast<std::ptrdiff_t>(samples(4)), far.end(), 0.0f);
  std::vector<float> mic = later(in_room(far, 7), 150 * 16);
  std::vector<float> near = in_room(speech(12.0, 8), 9);
  std::fill_n(near.begin(), samples(4), 0.0f);
  add(mic, near);
  RandomSignal random(10);
  for (const float floor : {0.0f, 0.001f}) {  // what the silent line carries
    std::vector<float> ref = far;
    add(ref, random.reals(ref.size(), floor));
    Estimator estimator;
    estimator.hear(mic, ref, 0, 4);
    for (int second = 4; second < 12; ++second) {
      const DelayEstimate estimate = estimator.hear(mic, ref, second, second + 1);
      ASSERT_NEAR(estimate.delay_ms, 150 + kDirectMs, 2.0) << second << " s, floor " << floor;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(DelayEstimator, FarEnds,
                         testing::Values(FarEnd{"speech", speech}, FarEnd{"music", music}),
                         [](const auto& far) { return far.param.name; });

TEST(DelayEstimator, FindsNothingWhereNothingIs) {
  RandomSignal random(11);
  const std::size_t length = samples(12);
  const std::vector<float> silence(length);
  const std::vector<float> one = speech(12.0, 12), other = in_room(speech(12.0, 13), 14);
  const std::vector<float> noise = random.reals(length, 0.1f), hiss = random.reals(length, 0.1f);
  const std::vector<float> song = music(12.0, 15);
  const std::vector<float>* const pairs[][2] = {
      {&other, &one},     {&noise, &hiss},      {&noise, &one},
      {&other, &noise},   {&other, &song},      {&silence, &one},
      {&other, &silence}, {&silence, &silence}, {&noise, &silence}};
  for (const auto& [mic, ref] : pairs) {
    Estimator estimator;
    for (int second = 0; second < 12; ++second) {
      const DelayEstimate estimate = estimator.hear(*mic, *ref, second, second + 1);
      ASSERT_EQ(estimate.found, 0) << second << " s";
      ASSERT_LT(estimate.confidence, 0.5f);
    }
  }
}

// A dial tone fits itself at every period.
TEST(DelayEstimator, DoesNotBelieveRepeatingSounds) {
  std::vector<float> tone(samples(8));
  for (std::size_t i = 0; i < tone.size(); ++i) {
    const float t = static_cast<float>(i % samples(1)) / kRate;  // whole turns in every second
    const float rise = std::min(1.0f, static_cast<float>(i) / static_cast<float>(samples(3)));
    tone[i] = 0.1f * rise * rise * (std::sin(kTurn * 350 * t) + std::sin(kTurn * 440 * t));
  }
  RandomSignal random(16);
  std::vector<float> mic = later(in_room(tone, 17), 100 * 16);
  add(mic, random.reals(mic.size(), 0.0005f));
  EXPECT_EQ(Estimator().hear(mic, tone, 0, 8).found, 0);
}

}  // namespace
