// The noise estimator against a model that keeps every frame, the suppressor against its formulas.
#include "speechenhance/noise_reduction.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <vector>

#include "guarded_region.h"
#include "ns/noise_estimator_state.h"
#include "ns/noise_suppressor_state.h"
#include "random_signal.h"

namespace {

constexpr float kWindowEnergy = 192.0f;

template <class Number>
double mean(const std::vector<Number>& x) {
  return std::accumulate(x.begin(), x.end(), 0.0) / static_cast<double>(x.size());
}

struct Estimator {
  explicit Estimator(int32_t frame_ms = 10, int32_t bins = 257)
      : mem(noise_estimate_query_mem(frame_ms, bins), 3),
        scratch(noise_estimate_query_scratch(bins), 12),
        state(noise_estimate_init(mem.data(), scratch.data(), frame_ms, bins, kWindowEnergy)) {}

  std::vector<float> operator()(const std::vector<float>& power) {
    std::vector<float> noise(power.size(), -1.0f);
    noise_estimate_process(state, power.data(), noise.data());
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return noise;
  }

  GuardedRegion mem, scratch;
  NoiseEstimator* state;
};

// Keeps all accepted frames; minima are searched for in the past instead of being tracked.
class EstimatorModel {
 public:
  EstimatorModel(size_t bins, int frame_ms)
      : span_(static_cast<size_t>(60 / frame_ms)),
        window_(4000 / frame_ms),
        smooth_(bins, 0.0),
        age_(bins, 0),
        min_(bins, 1e10),
        gathered_(bins) {}

  std::vector<double> operator()(const std::vector<float>& power) {
    ++calls_;
    if (mean(power) >= 1e-7 * kWindowEnergy) {
      frames_.push_back(power);
      if (calls_ < span_) {
        min_.assign(power.begin(), power.end());
        smooth();
      } else {
        std::vector<double> average(power.size(), 0.0);
        const size_t span = std::min(span_, frames_.size());
        const auto divisor = static_cast<double>(span_);
        for (size_t i = frames_.size() - span; i < frames_.size(); ++i)
          for (size_t k = 0; k < power.size(); ++k) average[k] += double{frames_[i][k]} / divisor;
        if (mean(average) >= 3.16e-7 * kWindowEnergy) {
          for (size_t k = 0; k < power.size(); ++k) track(k, average[k]);
          smooth();
        }
      }
    }
    std::vector<double> noise;
    for (double s : smooth_) noise.push_back(std::max(4 * s, 3.16e-7 * kWindowEnergy));
    return noise;
  }

 private:
  // A low not undercut for the window gives way to the lowest average of its second half.
  void track(size_t k, double average) {
    if (average < min_[k]) {
      min_[k] = average;
      age_[k] = 0;
      gathered_[k].clear();
      return;
    }
    ++age_[k];
    if (age_[k] >= window_ / 2) gathered_[k].push_back(average);
    if (age_[k] == window_) {
      min_[k] = *std::min_element(gathered_[k].begin(), gathered_[k].end());
      gathered_[k].clear();
      age_[k] = window_ / 2;
    }
  }
  void smooth() {
    for (size_t k = 0; k < smooth_.size(); ++k) smooth_[k] += 0.25 * (min_[k] - smooth_[k]);
  }

  size_t span_;  // frames of 60 ms
  int window_;   // frames of 4 s
  size_t calls_ = 0;
  std::vector<std::vector<float>> frames_;
  std::vector<double> smooth_;
  std::vector<int> age_;
  std::vector<double> min_;
  std::vector<std::vector<double>> gathered_;
};

// Noise whose level steps, bin by bin, with speech-like bursts, pauses below each gate.
void follow_over_a_long_run(int32_t frame_ms) {
  constexpr size_t kBins = 37;
  Estimator estimator(frame_ms, kBins);
  EstimatorModel model(kBins, frame_ms);
  RandomSignal random(17);
  std::vector<float> level(kBins, 1.0f);
  for (int frame = 0; frame < 2500; ++frame) {
    if (frame % 331 == 0)
      for (auto& l : level) l = 0.05f + 2.0f * (random.uniform() + 1.0f);
    float scale = frame % 47 < 20 ? 30.0f : 1.0f;
    if (frame % 600 > 560) scale = frame % 600 > 580 ? 1e-6f : 1.2e-5f;  // silent; below the floor
    std::vector<float> power;
    for (float l : level) power.push_back(scale * l * (random.uniform() + 1.0f));
    const auto expected = model(power);
    const auto noise = estimator(power);
    for (size_t k = 0; k < kBins; ++k) {
      ASSERT_NEAR(expected[k], noise[k], 1e-5 * expected[k])
          << frame_ms << " ms, " << frame << " " << k;
    }
  }
}

TEST(NoiseEstimator, FollowsTheModelOverALongRun) {
  for (const int32_t frame_ms : {5, 10, 20}) follow_over_a_long_run(frame_ms);
}

// The gates lie where they are said to lie, to half a percent.
TEST(NoiseEstimator, GatesWhatIsTooQuiet) {
  for (const float side : {0.995f, 1.005f}) {
    const auto at_power = [side](float power) {
      return std::vector<float>(257, side * power * kWindowEnergy);
    };
    Estimator silence, floor;
    silence(at_power(1e-7f));
    EXPECT_EQ(side > 1.0f, silence.state->smooth_noise[0] > 0.0f) << side;
    for (int i = 0; i < 5; ++i) floor(std::vector<float>(257, 1.0f));
    const float before = floor.state->min_power[0];
    for (int i = 0; i < 6; ++i) floor(at_power(3.16e-7f));
    EXPECT_EQ(before, 1.0f);
    // After six frames the short span holds nothing else.
    EXPECT_EQ(side > 1.0f, floor.state->min_power[0] < 1e-6f * kWindowEnergy) << side;
  }
}

TEST(NoiseEstimator, HoldsThroughSilenceAndNonsense) {
  Estimator estimator;
  const float floor = kWindowEnergy * 3.16e-7f;
  const std::vector<float> silence(257, 0.0f), speech(257, 2.0f);
  EXPECT_EQ(std::vector<float>(257, floor), estimator(silence));
  for (int i = 0; i < 50; ++i) estimator(speech);
  const auto before = estimator(speech);
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(before, estimator(silence));
  auto broken = speech;
  broken[3] = NAN;
  EXPECT_EQ(before, estimator(broken));
  broken[3] = INFINITY;
  EXPECT_EQ(before, estimator(broken));
  EXPECT_EQ(1054u, estimator.state->frame_count);
  EXPECT_EQ(floor, estimator.state->noise_floor);
}

TEST(NoiseEstimator, TakesAnyGeometry) {
  // Out of range: brought to the nearest.
  EXPECT_EQ(noise_estimate_query_mem(1, 5), noise_estimate_query_mem(-3, 5));
  EXPECT_EQ(noise_estimate_query_mem(60, 5), noise_estimate_query_mem(61, 5));
  EXPECT_EQ(noise_estimate_query_mem(10, 0), noise_estimate_query_mem(10, -1));
  for (int32_t frame_ms : {-3, 1, 7, 10, 60, 1000}) {
    for (int32_t bins : {-1, 0, 1, 2, 3, 4, 257}) {
      Estimator estimator(frame_ms, bins);
      const std::vector<float> power(static_cast<size_t>(std::max(bins, 0)), 1.0f);
      for (int i = 0; i < 129; ++i) estimator(power);
      for (float n : estimator(power)) EXPECT_NEAR(4.0f, n, 1e-5f);
    }
  }
}

// ---- Suppressor ---------------------------------------------------------------------------------

struct Suppressor {
  explicit Suppressor(int32_t bins = 257, float max_atten_db = 10.0f, int32_t frame_ms = 10)
      : mem(noise_suppress_query_mem(bins), 3),
        scratch(noise_suppress_query_scratch(bins), 12),
        state(noise_suppress_init(mem.data(), scratch.data(), frame_ms, bins, max_atten_db)) {}

  void operator()(const std::vector<float>& noise, const std::vector<zel_lcomplex>& in,
                  std::vector<zel_lcomplex>& out) {
    noise_suppress_process(state, noise.data(), in.data(), out.data());
    EXPECT_TRUE(mem.intact() && scratch.intact());
  }

  GuardedRegion mem, scratch;
  NoiseSuppressor* state;
};

double norm(zel_lcomplex x) {
  return double{x.re} * x.re + double{x.im} * x.im;
}

TEST(NoiseSuppressor, FollowsTheFormulas) {
  for (const auto& [bins, frame_ms] :
       {std::pair<size_t, int>{2, 10}, {3, 10}, {257, 10}, {257, 5}, {257, 20}}) {
    Suppressor suppressor(static_cast<int32_t>(bins), 12.0f, frame_ms);
    RandomSignal random(bins);
    // The smoothing constants belong to 10 ms.
    const double slowest = std::pow(0.988, frame_ms / 10.0);
    const double fastest = std::pow(0.98, frame_ms / 10.0);
    const double floor = std::pow(10.0, -12.0 / 20);
    std::vector<double> kept(bins);
    std::vector<zel_lcomplex> out(bins, {7.0f, -7.0f});
    int floored = 0, fast = 0, slow = 0;
    for (int frame = 0; frame < 300; ++frame) {
      const float level = frame % 30 < 8 ? 8.0f : frame % 30 < 15 ? 1.6f : 1.0f;
      const auto in = random.complexes(bins, level);
      std::vector<float> noise(bins, 0.5f);
      for (size_t k = 0; k < bins; k += 5) noise[k] = 1.5f;
      suppressor(noise, in, out);
      if (frame == 0) {
        for (size_t k = 0; k < bins; ++k) {
          kept[k] = norm(in[k]);
          ASSERT_EQ(7.0f, out[k].re);
          ASSERT_EQ(-7.0f, out[k].im);
        }
        continue;
      }
      std::vector<double> excess(bins), gain(bins);
      for (size_t k = 0; k < bins; ++k) {
        excess[k] = std::max(norm(in[k]) / double{noise[k]} - 1, 0.0);
      }
      const double alpha =
          mean(excess) < 1 ? slowest : std::max(fastest, 1 - (1 - slowest) * mean(excess));
      ++(alpha < fastest + 0.001 ? fast : slow);
      for (size_t k = 0; k < bins; ++k) {
        const double prior = alpha * kept[k] / double{noise[k]} + (1 - alpha) * excess[k];
        gain[k] = prior / (prior + 1);
      }
      for (size_t k = 0; k < bins; ++k) {
        // Ends count themselves once more in place of the neighbour that is missing.
        const double left = gain[k == 0 ? 0 : k - 1];
        const double right = gain[std::min(k + 1, bins - 1)];
        const double smoothed = (left + 2 * gain[k] + right) / 4;
        const double g = std::max(smoothed, floor);
        floored += smoothed < floor;
        kept[k] = g * g * norm(in[k]);
        ASSERT_NEAR(g * in[k].re, out[k].re, 3e-5 * level) << frame << " " << k;
        ASSERT_NEAR(g * in[k].im, out[k].im, 3e-5 * level) << frame << " " << k;
      }
    }
    EXPECT_GT(floored, 100);
    EXPECT_GT(fast, 10);
    EXPECT_GT(slow, 10);
  }
}

TEST(NoiseSuppressor, SettlesOnTheFloorInNoiseAndOnUnityWithoutNoise) {
  for (const int32_t bins : {-1, 0, 1, 2, 257}) {
    Suppressor suppressor(bins), in_place(bins);
    const auto count = static_cast<size_t>(std::max(bins, 0));
    const std::vector<zel_lcomplex> in(count, {3.0f, 4.0f});
    std::vector<zel_lcomplex> out = in, same = in;
    for (int i = 0; i < 7; ++i) {
      suppressor(std::vector<float>(count, 25.0f), in, out);
      in_place(std::vector<float>(count, 0.0f), same, same);
      const float gain = i < 1 ? 1.0f : i < 2 ? 0.988f / 1.988f : 0.31622777f;
      for (const auto& bin : out) EXPECT_NEAR(3.0f * gain, bin.re, 1e-6f) << bins << " " << i;
    }
    for (const auto& bin : same) EXPECT_TRUE(bin.re == 3.0f && bin.im == 4.0f);
  }
}

TEST(NoiseSuppressor, RecoversFromABinThatIsNotANumber) {
  Suppressor suppressor;
  const std::vector<float> noise(257, 1e-3f);
  std::vector<zel_lcomplex> in(257, {1.0f, 1.0f}), out(257);
  suppressor(noise, in, out);
  in[50].re = NAN;
  suppressor(noise, in, out);
  in[50].re = 1.0f;
  for (int i = 0; i < 3; ++i) suppressor(noise, in, out);
  for (const auto& bin : out) EXPECT_NEAR(1.0f, bin.re, 0.01f);
}

}  // namespace
