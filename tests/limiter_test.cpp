// The limiter against its static curve, its delay and its promise about the ceiling.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "dynamics/limiter_struct.h"
#include "guarded_region.h"
#include "random_signal.h"
#include "speechenhance/dynamics.h"

namespace {

constexpr size_t kBlock = 16;
constexpr float kCap = 0.9999f;

struct Limiter {
  explicit Limiter(size_t misalignment = 0)
      : mem(limiter_query_mem(), misalignment), state(limiter_init(mem.data())) {}

  std::vector<float> operator()(std::vector<float> x, float level_db) {
    limiter_process_float(state, x.data(), static_cast<int32_t>(x.size()), false, level_db);
    return x;
  }

  GuardedRegion mem;
  LimiterStruct* state;
};

// The whole signal at once, in double precision: the envelope of every block first, then the gain
// at every block's end, then each sample 16 later under the ramp of its place.
std::vector<double> limiter_model(const std::vector<float>& x, double level_db, double ceiling) {
  const double knee = 0.9 * ceiling;
  const double make_up = std::pow(10.0, level_db / 20);
  std::vector<double> gains = {1.0};
  double envelope = 0;
  for (size_t start = 0; start < x.size(); start += kBlock) {
    double peak = 0;
    for (size_t i = start; i < start + kBlock; ++i) peak = std::max(peak, std::abs(double{x[i]}));
    const double level = std::max({envelope, peak, 1e-5});
    envelope = envelope > peak ? 0.99 * envelope + 0.01 * peak : peak;
    double out = level * make_up;
    if (out > knee) {
      const double excess = (out - knee) / (make_up - knee);
      out = std::min(knee + excess * (ceiling - knee), ceiling * 0.9999);
    }
    gains.push_back(out / level);
  }
  std::vector<double> y;
  for (size_t n = 0; n < x.size(); ++n) {
    const double at = static_cast<double>(n % kBlock) / kBlock;
    const double gain = gains[n / kBlock] * (1 - at) + gains[n / kBlock + 1] * at;
    y.push_back(n < kBlock ? 0.0 : gain * x[n - kBlock]);
  }
  return y;
}

// Noise whose level wanders over 60 dB, with bursts up to twice full scale.
std::vector<float> wandering_noise(std::uint64_t seed, size_t blocks) {
  RandomSignal random(seed);
  std::vector<float> x;
  float level = 0.1f;
  for (size_t b = 0; b < blocks; ++b) {
    if (b % 7 == 0) level = 2.0f * std::pow(10.0f, -1.5f * (random.uniform() + 1.0f));
    for (size_t i = 0; i < kBlock; ++i) x.push_back(level * random.uniform());
  }
  return x;
}

TEST(Limiter, FollowsTheModelAndNeverPassesTheCeiling) {
  std::uint64_t seed = 100;
  for (float level_db : {0.0f, 3.0f, 12.0f, 24.0f}) {
    for (float ceiling : {0.3f, 0.9f, 0.99f}) {
      SCOPED_TRACE(testing::Message() << level_db << " dB, ceiling " << ceiling);
      Limiter limiter;
      limiter_set_max_gain(limiter.state, ceiling);
      const auto x = wandering_noise(++seed, 2000);
      const auto expected = limiter_model(x, level_db, ceiling);
      const auto y = limiter(x, level_db);
      float highest = 0;
      for (size_t n = 0; n < y.size(); ++n) {
        ASSERT_NEAR(expected[n], y[n], 4e-6) << n;
        // The first block's ramp starts at the unit gain of a limiter that heard nothing.
        highest = std::max(highest, std::abs(y[n]));
      }
      EXPECT_LE(highest, kCap * ceiling * (1 + 3e-7f));
      EXPECT_GT(highest, 0.9f * ceiling);
    }
  }
}

TEST(Limiter, DelaysByOneBlockAndPassesQuietSignals) {
  Limiter limiter;
  const auto out = limiter(std::vector<float>(170, 0.5f), 0.0f);
  for (size_t n = 0; n < out.size(); ++n) EXPECT_EQ(n < 16 ? 0.0f : 0.5f, out[n]) << n;
  // The ten samples left over at the end are neither delayed nor remembered.
  EXPECT_EQ(std::vector<float>(16, 0.5f), limiter(std::vector<float>(16, 0.25f), 0.0f));
  EXPECT_EQ(std::vector<float>(15, 3.0f), limiter(std::vector<float>(15, 3.0f), 0.0f));
  limiter_process_float(limiter.state, nullptr, -160, true, 0.0f);
}

TEST(Limiter, RampsDownBeforeAPeakLeaves) {
  Limiter limiter;
  limiter(std::vector<float>(16, 0.1f), 0.0f);
  const auto before = limiter(std::vector<float>(16, 1.0f), 0.0f);
  EXPECT_EQ(0.1f, before[0]);
  for (size_t i = 1; i < 16; ++i) EXPECT_LT(before[i], before[i - 1]);
  EXPECT_NEAR(0.1f * (1.0f - 0.10009f * 15 / 16), before[15], 1e-6f);
  for (float y : limiter(std::vector<float>(16, 0.1f), 0.0f)) EXPECT_NEAR(0.89991f, y, 1e-6f);
  // The envelope falls by 1 % of its distance per block: a second later the gain is back.
  EXPECT_NEAR(1.0f - 0.01f * 0.9f, limiter.state->envelope, 1e-6f);
  for (int block = 0; block < 1000; ++block) limiter(std::vector<float>(16, 0.1f), 0.0f);
  EXPECT_EQ(1.0f, limiter.state->gain);
}

TEST(Limiter, HoldsLevelsWhenTheMakeUpGainIsBelowTheKnee) {
  for (float level_db : {-20.0f, -6.0f, -2.0f}) {
    Limiter limiter;
    const float make_up = std::pow(10.0f, level_db / 20);
    for (float level : {0.5f, 0.9f, 1.0f, 1.2f, 2.0f, 50.0f}) {
      limiter_init(limiter.mem.data());
      limiter(std::vector<float>(32, level), level_db);
      const float y = limiter(std::vector<float>(16, level), level_db)[8];
      EXPECT_NEAR(std::min(level * make_up, kCap * 0.9f), y, 1e-5f) << level_db << " " << level;
    }
  }
}

TEST(Limiter, SixteenBitSamplesTakeTheSamePath) {
  Limiter floats, ints;
  limiter_set_max_gain(floats.state, 0.7f);
  limiter_set_max_gain(ints.state, 0.7f);
  RandomSignal random(3);
  std::vector<int16_t> x(1600 + 5);
  std::vector<float> as_float;
  for (auto& v : x) {
    v = static_cast<int16_t>(random.bits() >> 16);
    as_float.push_back(static_cast<float>(v) / 32768.0f);
  }
  const auto tail = std::vector<int16_t>(x.end() - 5, x.end());
  const auto y = floats(as_float, 6.0f);
  limiter_process(ints.state, x.data(), static_cast<int32_t>(x.size()), 6.0f);
  for (size_t n = 0; n < 1600; ++n) {
    ASSERT_EQ(static_cast<int>(std::trunc(y[n] * 32768.0f)), x[n]) << n;
  }
  EXPECT_EQ(tail, std::vector<int16_t>(x.end() - 5, x.end()));

  // A ceiling above full scale saturates.
  limiter_set_max_gain(ints.state, 4.0f);
  std::vector<int16_t> loud(48, 32767);
  for (size_t i = 1; i < loud.size(); i += 2) loud[i] = -32768;
  limiter_process(ints.state, loud.data(), 48, 20.0f);
  EXPECT_EQ(32767, loud[46]);
  EXPECT_EQ(-32768, loud[47]);
}

TEST(Limiter, RecoversFromSamplesThatAreNotNumbers) {
  for (float bad : {std::numeric_limits<float>::infinity(), std::nanf("")}) {
    Limiter limiter;
    std::vector<float> x(160, 0.5f);
    x[40] = bad;
    const auto y = limiter(x, 0.0f);
    for (size_t n = 16; n < y.size(); ++n) {
      if (n == 56) {
        EXPECT_TRUE(std::isnan(y[n]));
      } else {
        ASSERT_LE(std::abs(y[n]), 0.5f) << n;
        ASSERT_TRUE(n < 80 || y[n] == 0.5f) << n;
      }
    }
  }
}

TEST(Limiter, TakesThePublishedMemoryAtAnyAlignment) {
  EXPECT_EQ(246 + 3 * (sizeof(void*) - 4), limiter_query_mem());
  for (size_t misalignment = 0; misalignment < 16; ++misalignment) {
    Limiter limiter(misalignment);
    EXPECT_TRUE(limiter.mem.holds(limiter.state, 1, alignof(LimiterStruct)));
    EXPECT_TRUE(limiter.mem.holds(limiter.state->conv_buf, 48, 16));
    EXPECT_EQ(limiter.state->conv_buf + 32, limiter.state->next_buf);
    limiter(wandering_noise(1, 10), 6.0f);
    std::vector<int16_t> ints(160, 1000);
    limiter_process(limiter.state, ints.data(), 160, 0.0f);
    EXPECT_TRUE(limiter.mem.intact());
  }
  Limiter limiter;
  EXPECT_EQ(0.80999994f, limiter.state->knee);
  limiter_set_max_gain(limiter.state, 0.5f);
  EXPECT_EQ(0.45f, limiter.state->knee);
}

}  // namespace
