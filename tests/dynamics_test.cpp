// The automatic gain control and the limiter against models in double precision.
#include "speechenhance/dynamics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <vector>

#include "dynamics/agc_state.h"
#include "dynamics/limiter_struct.h"
#include "guarded_region.h"
#include "random_signal.h"

namespace {

constexpr float kWindowDb = 22.8f;

struct Agc {
  float step(bool active, float level) {
    spectrum.assign(257, {1.0f, -1.0f});
    agc_process(state, spectrum.data(), active, level);
    EXPECT_TRUE(mem.intact());
    return state->gain;
  }

  GuardedRegion mem{agc_query_mem(), 5};
  AgcState* state = agc_init(mem.data(), kWindowDb);
  std::vector<zel_lcomplex> spectrum;
};

// Keeps all mean levels and searches in the past instead of tracking.
struct AgcModel {
  const double target = std::pow(10.0, (double{kWindowDb} - 22) / 20);
  const double active_level = std::pow(10.0, (double{kWindowDb} - 80) / 10);
  double smooth = active_level, peak = 0, gain = 1;
  double max_gain = 316.22775;
  int frames = 0, run = 0, age = 0;
  std::vector<double> levels;  // of active speech
  std::vector<double> since;   // means since the peak's age passed half the window
  std::map<double, int> steps;

  void step(bool active, double level) {
    ++frames;
    smooth += 0.1 * (level - smooth);
    run = active && smooth > active_level ? run + 1 : 0;
    if (run >= 2 && frames >= 100) {
      levels.push_back(level);
      track(mean_of_last(20));
      if (levels.size() > 50) {
        const double ratio = gain / std::clamp(target / std::sqrt(peak), 0.5011872, max_gain);
        move(ratio > 4        ? 0.8
             : ratio > 2      ? 0.9
             : ratio > 1.414  ? 0.95
             : ratio < 0.25   ? 2
             : ratio < 0.5    ? 1.85
             : ratio < 0.7071 ? 1.25
                              : 1);
      }
    } else if (std::sqrt(smooth) * gain > 2 * target) {
      move(0.9);  // overload
    }
  }

 private:
  double mean_of_last(std::size_t n) const {
    n = std::min(n, levels.size());
    double sum = 0;
    for (std::size_t i = levels.size() - n; i < levels.size(); ++i) sum += levels[i];
    return sum / static_cast<double>(n);
  }
  void track(double mean) {
    if (mean > peak) {
      peak = mean;
      age = 0;
      since.clear();
    } else if (++age > 50) {
      since.push_back(mean);
    }
    if (age == 100) {
      peak = *std::max_element(since.begin(), since.end());
      since.clear();
      age = 50;
      ++steps[0];
    }
  }
  void move(double factor) {
    gain *= factor;
    ++steps[factor];
  }
};

// From whispers to shouts, 15 s each: wandering over 20 dB with pauses, then suddenly much louder.
TEST(Agc, FollowsTheModelThroughEveryStep) {
  std::map<double, int> steps;
  for (float loudness : {3e-6f, 1e-5f, 1e-3f, 0.1f, 10.0f, 1000.0f}) {
    Agc agc;
    AgcModel model;
    if (loudness == 1e-3f) agc_set_max_gain(agc.state, 3.0f), model.max_gain = 3.0;
    RandomSignal random(5);
    float level = loudness;
    for (int frame = 0; frame < 1500; ++frame) {
      if (frame % 70 == 0) level = loudness * std::pow(10.0f, random.uniform());
      if (frame == 1200) loudness *= 1e5f;
      const float now = level * (1.5f + random.uniform());
      const bool active = frame % 200 < 170;
      model.step(active, now);
      agc.step(active, now);
      ASSERT_NEAR(model.gain, agc.state->gain, 1e-5 * model.gain) << loudness << " " << frame;
      ASSERT_NEAR(model.peak, agc.state->peak_level, 1e-4 * model.peak) << loudness << " " << frame;
    }
    for (const auto& [factor, count] : model.steps) steps[factor] += count;
  }
  for (const double factor : {0.8, 0.9, 0.95, 1.0, 1.25, 1.85, 2.0}) {
    EXPECT_GT(steps[factor], 0) << factor;
  }
  EXPECT_GT(steps[0], 20) << "peaks replaced";
}

TEST(Agc, AppliesGainsAwayFromOne) {
  Agc agc;
  for (const float gain : {0.5f, 0.98f, 0.995f, 1.005f, 1.02f, 8.0f}) {
    agc.state->gain = gain;
    EXPECT_EQ(gain, agc.step(false, 0.0f));
    const float applied = std::abs(gain - 1.0f) < 0.01f ? 1.0f : gain;
    for (const auto& bin : agc.spectrum) EXPECT_TRUE(bin.re == applied && bin.im == -applied);
  }
}

TEST(AgcCore, MeasuresLevelAndActivity) {
  GuardedRegion mem(agc_core_query_mem());
  AgcCore* core = agc_core_init(mem.data(), nullptr, kWindowDb);
  const float threshold = 3.1622776e-06f;
  const auto frame = [&](float amplitude) {
    const float bin = amplitude * std::sqrt(threshold);
    std::vector<zel_lcomplex> spectrum(257, {0.6f * bin, 0.8f * bin});
    agc_core_process(core, spectrum.data());
  };
  for (int i = 0; i < 120; ++i) frame(0.99f);
  EXPECT_EQ(0, core->agc->active_run);
  frame(1.02f);  // averaged with the frame before: just above
  EXPECT_EQ(1, core->agc->active_run);
  frame(1.02f);
  EXPECT_EQ(1, core->agc->update_count);
  EXPECT_NEAR(1.0404f * threshold, core->agc->level_hist[0], 1e-11f);

  std::vector<zel_lcomplex> spectrum(257, {0.0f, 0.0f});
  spectrum[256].re = 257.0f;  // the Nyquist bin counts like every other
  agc_core_process(core, spectrum.data());
  EXPECT_NEAR(257.0f, core->prev_power, 1e-3f);
  agc_core_set_max_gain(core, 2.5f);
  EXPECT_EQ(2.5f, core->agc->max_gain);
}

// ---- Limiter ------------------------------------------------------------------------------------

constexpr size_t kBlock = 16;
constexpr float kCap = 0.9999f;

struct Limiter {
  std::vector<float> operator()(std::vector<float> x, float level_db) {
    limiter_process_float(state, x.data(), static_cast<int32_t>(x.size()), false, level_db);
    return x;
  }

  GuardedRegion mem{limiter_query_mem(), 5};
  LimiterStruct* state = limiter_init(mem.data());
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
    if (make_up <= knee) {  // no room to compress: held below the ceiling
      out = std::min(out, ceiling * 0.9999);
    } else if (out > knee) {
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
  for (float level_db : {-20.0f, -6.0f, -2.0f, 0.0f, 3.0f, 12.0f, 24.0f}) {
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
        highest = std::max(highest, std::abs(y[n]));
      }
      EXPECT_LE(highest, kCap * ceiling * (1 + 3e-7f));
      EXPECT_TRUE(level_db < 0.0f || highest > 0.9f * ceiling) << highest;
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

// Levels that the model cannot tell apart from their neighbours by its tolerance.
TEST(Limiter, ItsLevelsLieWhereTheyAreSaidToLie) {
  const auto gain_at = [](float level, float level_db) {
    Limiter limiter;
    limiter(std::vector<float>(kBlock, level), level_db);
    return limiter.state->gain;
  };
  EXPECT_EQ(gain_at(0.81f * 0.999f, 0.0f), 1.0f) << "below the knee";
  EXPECT_LT(gain_at(0.81f * 1.001f, 0.0f), 0.9996f) << "above it";
  EXPECT_NEAR(gain_at(1.0f, 0.0f), 0.9f * 0.9999f, 1e-6f) << "the ceiling and what stays free";
  // Levels below 1e-5 count as 1e-5: with 100 dB of make-up gain that level comes to 1.0.
  const float lowest = gain_at(0.0f, 100.0f);
  EXPECT_EQ(gain_at(0.995e-5f, 100.0f), lowest);
  EXPECT_LT(gain_at(1.005e-5f, 100.0f), lowest);
  // A hundredth of the distance per block.
  Limiter limiter;
  limiter(std::vector<float>(kBlock, 1.0f), 0.0f);
  limiter(std::vector<float>(kBlock, 0.5f), 0.0f);
  EXPECT_NEAR(limiter.state->envelope, 0.995f, 1e-6f);
}

TEST(Limiter, SixteenBitSamplesTakeTheSamePath) {
  Limiter floats, ints;
  limiter_set_max_gain(floats.state, 0.7f);
  limiter_set_max_gain(ints.state, 0.7f);
  RandomSignal random(3);
  std::vector<int16_t> x;
  std::vector<float> as_float;
  for (int i = 0; i < 1605; ++i) {
    x.push_back(static_cast<int16_t>(random.bits() >> 16));
    as_float.push_back(static_cast<float>(x.back()) / 32768.0f);
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
  for (float bad : {INFINITY, NAN}) {
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

}  // namespace
