// The network driver with random models: against the double-precision network, its memory, its
// quiet-frame history, and a hash that is the same on every machine.
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

// Three spectra with the level of speech: noise under a falling slope, louder and softer by turns.
std::vector<zel_lcomplex> random_spectra(RandomSignal& random, int frame) {
  std::vector<zel_lcomplex> spectra(kSpectra);
  for (std::size_t k = 0; k < kSpectra; ++k) {
    const float level = (frame / 20 % 2 == 0 ? 30.0f : 0.3f) / (1.0f + 0.05f * float(k % kBins));
    spectra[k] = {level * random.uniform(), level * random.uniform()};
  }
  return spectra;
}

class Denoiser {
 public:
  explicit Denoiser(const DenoiseModel* model, std::size_t misalignment = 0)
      : mem(static_cast<std::size_t>(nn_query_mem_api()), misalignment),
        scratch(static_cast<std::size_t>(nn_query_scratch_api()), 15 - misalignment),
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

TEST(DenoiserNetwork, GainsMatchTheDoublePrecisionNetwork) {
  const RandomModel model(1);
  ASSERT_EQ(model.error(), nullptr);
  Denoiser denoiser(model.get());
  reference::Network plain(model.get());
  set_history(0, 0);
  RandomSignal random(2);
  float low = 1.0f, high = 0.0f, worst = 0.0f;
  for (int frame = 0; frame < 150; ++frame) {
    const std::vector<zel_lcomplex> spectra = random_spectra(random, frame);
    const reference::Values expected = plain.process(spectra);
    denoiser.gain[7] = -1.0f;
    ASSERT_EQ(denoiser.process(spectra), expected.empty() ? 0 : 1) << "frame " << frame;
    ASSERT_EQ(expected.empty(), frame < 5);
    if (expected.empty()) {
      ASSERT_EQ(denoiser.gain[7], -1.0f);
      continue;
    }
    for (std::size_t k = 0; k < kBins; ++k) {
      ASSERT_NEAR(denoiser.gain[k], expected[k], 0.02) << "frame " << frame << " bin " << k;
      worst = std::max(worst, std::fabs(denoiser.gain[k] - static_cast<float>(expected[k])));
    }
    ASSERT_EQ(denoiser.gain[kBins - 1], 0.0f);
    // A band of one bin passes its value through, band 0 of three divides it.
    ASSERT_EQ(denoiser.gain[40], denoiser.state->fc2_out[38]);
    ASSERT_EQ(denoiser.gain[0], denoiser.state->fc2_out[0] * (1.0f / 3.0f));
    low = std::min(low, denoiser.gain[40]);
    high = std::max(high, denoiser.gain[40]);
  }
  EXPECT_GT(high - low, 0.01f) << "the output does not depend on the input";
  RecordProperty("largest_difference", std::to_string(worst));
}

TEST(DenoiserNetwork, FeaturesMatchAndNeverReachZero) {
  std::vector<float> mag(se::nn::kMagnitudes), band(se::nn::kFeatures), feat(se::nn::kFeatures);
  const se::nn::FeatureBuffers buffers = {mag.data(), band.data(), feat.data()};
  std::vector<zel_lcomplex> spectra(kSpectra);
  se::nn::features(spectra.data(), spectra.data() + 2 * kBins, buffers);
  for (const float m : mag) ASSERT_FLOAT_EQ(m, 1e-4f);
  for (const float f : feat) ASSERT_GE(f, 1e-4f);

  RandomSignal random(3);
  spectra = random_spectra(random, 0);
  se::nn::features(spectra.data(), spectra.data() + 2 * kBins, buffers);
  const reference::Values expected = reference::features(spectra);
  for (std::size_t i = 0; i < feat.size(); ++i) ASSERT_NEAR(feat[i], expected[i], 1e-6 * feat[i]);
}

// The compiled-in model through the public entry, and a model with NaN in its way.
TEST(DenoiserNetwork, RecoversFromInvalidSpectra) {
  const RandomModel model(4);
  Denoiser disturbed(model.get()), clean(model.get());
  RandomSignal random(5);
  for (int frame = 0; frame < 400; ++frame) {
    std::vector<zel_lcomplex> spectra = random_spectra(random, 0);
    clean.process(spectra);
    if (frame == 20) spectra[100] = {NAN, INFINITY};
    if (frame == 21) std::fill(spectra.begin(), spectra.end(), zel_lcomplex{INFINITY, NAN});
    disturbed.process(spectra);
    for (const float g : disturbed.gain) ASSERT_TRUE(g >= 0.0f && g <= 1.0f) << "frame " << frame;
  }
  for (int k = 0; k < kBins; ++k) ASSERT_NEAR(disturbed.gain[k], clean.gain[k], 0.01f);
}

TEST(DenoiserMemory, IsAsPublished) {
  const int growth = static_cast<int>((sizeof(NNDenoiser) - 116) + 5 * (sizeof(Conv2D) - 124) +
                                      4 * (sizeof(Gru) - 32));
  EXPECT_EQ(nn_query_mem_api(), 37598 + growth);
  EXPECT_EQ(nn_query_scratch_api(), 134317);
  EXPECT_EQ(sizeof(NNDenoiser), 29 * sizeof(void*));
  if (sizeof(void*) == 4) {
    EXPECT_EQ(growth, 0);
  }
}

TEST(DenoiserMemory, WorksAtAnyMisalignmentWithinItsRegions) {
  const RandomModel model(6);
  std::vector<float> expected;
  for (std::size_t shift = 0; shift < 16; ++shift) {
    Denoiser d(model.get(), shift);
    set_history(0, 0);
    ASSERT_TRUE(d.mem.holds(d.state, 1, alignof(NNDenoiser)));
    const float* const outs[] = {d.state->conv1_out, d.state->conv2_out, d.state->conv3_out,
                                 d.state->conv4_out, d.state->conv5_out};
    for (std::size_t i = 0; i < 5; ++i) {
      ASSERT_TRUE(d.mem.holds(outs[i], static_cast<std::size_t>(se::nn::kConv[i].out_size()), 16));
    }
    for (const float* out : {d.state->gru1_out, d.state->gru2_out}) {
      ASSERT_TRUE(d.mem.holds(out, 400, 16));
    }
    for (const float* out : {d.state->fc1_out, d.state->fc2_out}) {
      ASSERT_TRUE(d.mem.holds(out, 128, 16));
    }
    ASSERT_TRUE(d.scratch.holds(d.state->mag, 771, 16));
    ASSERT_TRUE(d.scratch.holds(d.state->band, 384, 16));
    ASSERT_TRUE(d.scratch.holds(d.state->feat, 384, 16));

    RandomSignal random(7);
    for (int frame = 0; frame < 10; ++frame) {
      d.process(random_spectra(random, frame));
      // What other modules do to the shared scratch memory between frames.
      std::fill_n(d.scratch.data(), d.scratch.size(), static_cast<std::uint8_t>(frame * 37));
    }
    const std::vector<float> gains(d.gain, d.gain + kBins);
    if (shift == 0) expected = gains;
    ASSERT_EQ(gains, expected) << "misalignment " << shift;
    ASSERT_TRUE(d.mem.intact() && d.scratch.intact()) << "misalignment " << shift;
  }
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

// Every bit of 300 frames of gains, the same for all compilers, optimisation levels and CPUs. The
// expected value is the one that this test printed when the arithmetic was last checked against the
// double-precision network above.
TEST(DenoiserNetwork, GainsAreTheSameBitsEverywhere) {
  const RandomModel model(9);
  Denoiser denoiser(model.get());
  set_history(0, 0);
  RandomSignal random(10);
  std::uint32_t hash = 0;
  for (int frame = 0; frame < 300; ++frame) {
    denoiser.process(random_spectra(random, frame));
    hash = hash * 31 + se::nn::crc32(denoiser.gain, sizeof denoiser.gain);
  }
  EXPECT_EQ(hash, 0x0e72872bu) << std::hex << hash;
}

}  // namespace
