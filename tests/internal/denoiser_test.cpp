// The network driver with random models: its features, what it survives, and its quiet-frame
// history. What the network computes is held against the exporter's own computation.
#include "nn/denoiser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <thread>

#include "guarded_region.h"
#include "nn/features.h"
#include "nn/quiet_history.h"
#include "nn_reference.h"
#include "random_model.h"
#include "random_signal.h"

namespace {

using se::nn::kBins;
using se::nn::NNDenoiser;

constexpr std::size_t kSpectra = 3 * kBins;

// Three spectra with the level of speech: noise under a falling slope.
std::vector<zel_lcomplex> random_spectra(RandomSignal& random) {
  std::vector<zel_lcomplex> spectra = random.complexes(kSpectra, 30.0f);
  for (std::size_t k = 0; k < kSpectra; ++k) {
    const float slope = 1.0f + 0.05f * static_cast<float>(k % kBins);
    spectra[k] = {spectra[k].re / slope, spectra[k].im / slope};
  }
  return spectra;
}

struct Denoiser {
  explicit Denoiser(const DenoiseModel* model)
      : mem(static_cast<std::size_t>(nn_query_mem_api()), 3),
        scratch(static_cast<std::size_t>(nn_query_scratch_api()), 12),
        state(se::nn::init_denoiser(mem.data(), scratch.data(), model)) {}

  int process(const std::vector<zel_lcomplex>& spectra) {
    return nn_process_api(state, spectra.data(), spectra.data() + 2 * kBins, gain, false, true);
  }

  GuardedRegion mem, scratch;
  NNDenoiser* state;
  float gain[kBins] = {};
};

// Sets the process-wide history to `ones` quiet frames, with the next flag replacing `replaced`.
void set_history(int ones, int replaced) {
  std::fill_n(noise_buf, 1000, 0);
  noise_flag_index = 0;
  std::fill_n(noise_buf + 1, ones - replaced, 1);
  noise_buf[0] = replaced;
  noise_flag_sum = ones;
}

TEST(DenoiserNetwork, FeaturesMatchAndNeverReachZero) {
  std::vector<float> mag(se::nn::kMagnitudes), band(se::nn::kFeatures), feat(se::nn::kFeatures);
  const se::nn::FeatureBuffers buffers = {mag.data(), band.data(), feat.data()};
  RandomSignal random(3);
  std::vector<zel_lcomplex> spectra = random_spectra(random);
  std::fill_n(spectra.begin(), kBins, zel_lcomplex{0.0f, 0.0f});
  const zel_lcomplex* const first = spectra.data();
  se::nn::features({first, first + kBins, first + 2 * kBins}, buffers);
  for (int bin = 0; bin < kBins; ++bin) ASSERT_FLOAT_EQ(mag[static_cast<std::size_t>(bin)], 1e-4f);
  const reference::Values expected = reference::features(spectra);
  for (std::size_t i = 0; i < feat.size(); ++i) ASSERT_NEAR(feat[i], expected[i], 1e-6 * feat[i]);
}

TEST(DenoiserNetwork, RecoversFromInvalidSpectra) {
  const RandomModel model(4);
  Denoiser disturbed(model.get()), clean(model.get());
  RandomSignal random(5);
  for (int frame = 0; frame < 400; ++frame) {
    std::vector<zel_lcomplex> spectra = random_spectra(random);
    clean.process(spectra);
    if (frame == 20) spectra[100] = {NAN, INFINITY};
    if (frame == 21) std::fill(spectra.begin(), spectra.end(), zel_lcomplex{INFINITY, NAN});
    disturbed.process(spectra);
    for (const float g : disturbed.gain) ASSERT_TRUE(g >= 0.0f && g <= 1.0f) << "frame " << frame;
  }
  for (int k = 0; k < kBins; ++k) ASSERT_NEAR(disturbed.gain[k], clean.gain[k], 0.01f);
  EXPECT_TRUE(disturbed.mem.intact() && disturbed.scratch.intact());
}

// A network that says `value` for every band, whatever it hears.
class ConstantDenoiser {
 public:
  explicit ConstantDenoiser(float value) : model_(8) {
    const FCLayer& head = *model_.get()->fc2;
    std::fill_n(RandomModel::writable(head.weight), 128 * 400, std::int8_t{0});
    std::fill_n(RandomModel::writable(head.bias), 128, std::log(value / (1.0f - value)));
    denoiser_ = std::make_unique<Denoiser>(model_.get());
    for (int frame = 0; frame < 5; ++frame) process();
  }
  float process() {
    denoiser_->process(std::vector<zel_lcomplex>(kSpectra));
    return denoiser_->gain[40];
  }

 private:
  RandomModel model_;
  std::unique_ptr<Denoiser> denoiser_;
};

// The mean gain of the detector is 0.744 times the value here: bands of width 2 and 3 count less.
TEST(QuietHistory, AttenuatesLowGainsAboveNineHundredQuietFrames) {
  ConstantDenoiser low(0.05f);  // mean 0.037: not quiet, but low
  set_history(900, 0);
  EXPECT_NEAR(low.process(), 0.05f, 1e-6f);
  EXPECT_EQ(noise_flag, 0);
  EXPECT_EQ(noise_flag_sum, 900);
  set_history(901, 0);
  EXPECT_NEAR(low.process(), 0.6f * 0.05f, 1e-6f);
  set_history(901, 1);  // the flag that leaves the ring counts before the decision
  EXPECT_NEAR(low.process(), 0.05f, 1e-6f);
  EXPECT_EQ(noise_flag_sum, 900);

  ConstantDenoiser quiet(0.02f);  // mean 0.015: quiet; its own flag counts too
  set_history(900, 0);
  EXPECT_NEAR(quiet.process(), 0.6f * 0.02f, 1e-6f);
  EXPECT_EQ(noise_flag, 1);
  EXPECT_EQ(noise_flag_sum, 901);
  EXPECT_EQ(noise_flag_index, 1);

  ConstantDenoiser loud(0.08f);  // mean 0.060
  set_history(950, 0);
  EXPECT_NEAR(loud.process(), 0.08f, 1e-6f);
}

TEST(QuietHistory, ForgetsAFlagAfterAThousandFrames) {
  set_history(0, 0);
  noise_flag_index = 999;
  EXPECT_EQ(se::nn::quiet_history_add(1), 1);
  EXPECT_EQ(noise_buf[999], 1);
  EXPECT_EQ(noise_flag_index, 0);
  for (int frame = 0; frame < 999; ++frame) EXPECT_EQ(se::nn::quiet_history_add(0), 1);
  EXPECT_EQ(noise_flag_index, 999);
  EXPECT_EQ(se::nn::quiet_history_add(0), 0);
}

TEST(QuietHistory, SumStaysRightWithManyThreads) {
  constexpr int kThreads = 4, kFrames = 20001;
  set_history(0, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      RandomSignal random(static_cast<std::uint64_t>(t));
      for (int frame = 0; frame < kFrames; ++frame) {
        se::nn::quiet_history_add(static_cast<int>(random.bits() >> 31));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(noise_flag_sum, std::accumulate(noise_buf, noise_buf + 1000, 0));
  EXPECT_EQ(noise_flag_index, kThreads * kFrames % 1000);
  EXPECT_NEAR(noise_flag_sum, 500, 100);
}

}  // namespace
