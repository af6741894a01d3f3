// The frame pipeline against the same chain put together by hand from the public modules.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <vector>

#include "bit_hash.h"
#include "engine/gain_rule.h"
#include "engine/owned_engine.h"
#include "engine/se_instance.h"
#include "kernels/kernels.h"
#include "nn/denoiser.h"
#include "random_model.h"
#include "test_signal.h"

namespace {

constexpr int kBlock = SE_BLOCK_LEN, kBins = 257, kFrame = 512;

// Zeroed memory for a module, which lives as long as this.
class Arena {
 public:
  void* zeroed(std::size_t bytes) { return blocks_.emplace_back(new char[bytes]()).get(); }

 private:
  std::vector<std::unique_ptr<char[]>> blocks_;
};

// A plain rendition of the pipeline, one step after the other, with loops of its own for everything
// that happens between the modules.
class Reference {
 public:
  Reference(const DenoiseModel* model, const NnProcessConfig& config, float dry, float ns_dry)
      : config_(config), dry_(dry), ns_dry_(ns_dry) {
    window_ = static_cast<float*>(arena_.zeroed(kFrame * 4));
    zel_stft_generate_win(kFrame, window_);
    float partial[4] = {};
    for (int i = 0; i < kFrame; ++i)
      partial[i % 4] = std::fma(window_[i], window_[i], partial[i % 4]);
    scratch_ = arena_.zeroed(1 << 18);
    for (auto& stft : analysis_) stft = make_stft(0);
    synthesis_ = make_stft(1);
    aec_ = aec_init(arena_.zeroed(aec_query_mem()), scratch_);
    nn_ = se::nn::init_denoiser(arena_.zeroed(static_cast<std::size_t>(nn_query_mem_api())),
                                scratch_, model);
    estimator_ =
        noise_estimate_init(arena_.zeroed(noise_estimate_query_mem(10, kBins)), scratch_, 10, kBins,
                            (partial[0] + partial[2]) + (partial[1] + partial[3]));
    suppressor_ = noise_suppress_init(arena_.zeroed(noise_suppress_query_mem(kBins)), scratch_, 10,
                                      kBins, 10.0f);
    limiter_ = limiter_init(arena_.zeroed(limiter_query_mem()));
  }

  void process(const float* mic, const float* ref, float* out, bool nn_only, bool use_ns) {
    std::vector<zel_lcomplex> mics(2 * kBins), reference(kBins), y(kBins), suppressed(kBins);
    std::vector<float> powers(2 * kBins), power(kBins), noise(kBins);
    zel_lcomplex* spectra[] = {&mics[0], &mics[kBins]};
    float* mic_powers[] = {&powers[0], &powers[kBins]};
    for (int c = 0; c < 2; ++c) {
      zel_stft_analysis(analysis_[c], mic + c * kBlock, spectra[c]);
      for (int k = 0; k < kBins; ++k) mic_powers[c][k] = power_of(spectra[c][k]);
    }
    zel_stft_analysis(analysis_[2], ref, reference.data());
    aec_process(aec_, spectra, mic_powers, reference.data());

    float partial[4] = {};
    for (int k = 0; k < 256; ++k)
      partial[k % 4] += power_of(reference[static_cast<std::size_t>(k)]);
    const float energy =
        power_of(reference[256]) + ((partial[0] + partial[2]) + (partial[1] + partial[3]));
    const bool far_end = static_cast<double>(energy) > 0.01;
    far_end_frames_ += far_end;

    history_.push_back({spectra[1], spectra[1] + kBins});
    std::vector<zel_lcomplex> delayed(kBins, {0.0f, 0.0f});
    if (history_.size() > 5) delayed = history_[history_.size() - 6];

    const bool wrote = nn_process_api(nn_, mics.data(), reference.data(), gain_, nn_only, use_ns);
    EXPECT_EQ(wrote, history_.size() > 5);
    for (int k = 0; k < kBins; ++k) {
      float g = gain_[k];
      if (far_end) {
        g = g * g;
        if (static_cast<double>(g) < 0.1) g = 0.0f;
        gated_ += g == 0.0f;
      }
      if (k <= 3) {
        g = 0.0f;
      } else {
        g *= k <= 7 ? 1.5f : 3.0f;
      }
      const auto bin = static_cast<std::size_t>(k);
      y[bin] = {delayed[bin].re * g, delayed[bin].im * g};
      if (!nn_only && (use_ns || k >= 4)) {
        const float level = use_ns ? ns_dry_ : dry_;
        y[bin].re = std::fma(level, 3.0f * delayed[bin].re, y[bin].re);
        y[bin].im = std::fma(level, 3.0f * delayed[bin].im, y[bin].im);
      }
      power[bin] = power_of(y[bin]);
    }
    if (!nn_only && use_ns) {
      noise_estimate_process(estimator_, power.data(), noise.data());
      noise_suppress_process(suppressor_, noise.data(), y.data(), suppressed.data());
      y = suppressed;
    }
    se::equalise(y.data(), config_.low_shelf, config_.high_shelf, config_.peak);
    zel_stft_synthesis_envelop(synthesis_, y.data(), out);
    if (config_.limiter_enable) {
      limiter_set_max_gain(limiter_, config_.limiter_max_gain);
      limiter_process_float(limiter_, out, kBlock, nn_only, config_.limiter_level_db);
    }
  }

  int far_end_frames() const { return far_end_frames_; }
  int gated() const { return gated_; }

 private:
  static float power_of(const zel_lcomplex& x) { return std::fma(x.re, x.re, x.im * x.im); }

  stft_state* make_stft(int is_synthesis) {
    return zel_stft_init(arena_.zeroed(zel_stft_query_mem(kFrame, is_synthesis)), scratch_, window_,
                         kFrame, kBlock, is_synthesis);
  }

  Arena arena_;
  NnProcessConfig config_;
  float dry_, ns_dry_;
  float* window_;
  void* scratch_;
  stft_state* analysis_[3];
  stft_state* synthesis_;
  aec_state* aec_;
  void* nn_;
  NoiseEstimator* estimator_;
  NoiseSuppressor* suppressor_;
  LimiterStruct* limiter_;
  float gain_[kBins] = {};
  std::vector<std::vector<zel_lcomplex>> history_;
  int far_end_frames_ = 0, gated_ = 0;
};

NnProcessConfig everything_on() {
  NnProcessConfig config = {};
  config.residual_db = 14;
  config.ns_residual_db = 26;
  config.limiter_enable = 1;
  config.limiter_max_gain = 0.9f;
  config.limiter_level_db = 6.0f;
  config.low_shelf = {1, 400.0f, 12.0f};
  config.high_shelf = {1, 6000.0f, 5.0f};
  for (int i = 0; i < 10; ++i) config.peak[i] = {700 * (i + 1), i % 2 ? 3.0f : -3.0f, 4};
  return config;
}

TEST(Pipeline, EqualsTheModulesPutTogetherByHand) {
  const NnProcessConfig config = everything_on();
  const RandomModel model(7);
  for (const bool nn_only : {true, false}) {
    for (const bool use_ns : {true, false}) {
      const se::OwnedEngine owned(se::create_instance(model.get()));
      SEInstance* const engine = owned.get();
      se::configure(engine, config);
      Reference reference(model.get(), config, engine->dry_mix, engine->ns_dry_mix);
      TestSignal signal(11);
      for (int frame = 0; frame < 150; ++frame) {
        float mic[2 * kBlock], ref[kBlock], out[kBlock], expected[kBlock];
        signal.next(mic, ref);
        se_process(engine, mic, ref, out, nn_only, use_ns);
        reference.process(mic, ref, expected, nn_only, use_ns);
        ASSERT_EQ(0, std::memcmp(out, expected, sizeof out))
            << "frame " << frame << " nn_only " << nn_only << " use_ns " << use_ns;
      }
      // The signal has stretches with and without far end, and gains on both sides of the gate.
      EXPECT_GT(reference.far_end_frames(), 20);
      EXPECT_LT(reference.far_end_frames(), 130);
      EXPECT_GT(reference.gated(), 100);
    }
  }
}

// Both thresholds lie where they are said to lie, to half a percent.
TEST(GainRule, SquaresAndGatesWhileTheFarEndIsActive) {
  for (const float energy : {0.00995f, 0.01005f}) {
    for (const double squared : {0.0995, 0.1005}) {
      std::vector<float> gain(kBins, static_cast<float>(std::sqrt(squared)));
      se::reshape_gains(gain.data(), energy);
      const double expected = energy < 0.01f ? std::sqrt(squared) : squared < 0.1 ? 0.0 : squared;
      for (const auto& [bin, make_up] :
           {std::pair{3u, 0.0}, {4u, 1.5}, {7u, 1.5}, {8u, 3.0}, {256u, 3.0}}) {
        EXPECT_NEAR(gain[bin], make_up * expected, 1e-6) << energy << " " << squared << " " << bin;
      }
    }
  }
}

// The hash of ten seconds through the whole engine with everything on. It does not depend on the
// compiled-in parameters: the model is random. Equal for every CPU, kernel variant, compiler and
// optimisation level; print it anew with --gtest_filter=*Golden* when the arithmetic changes on
// purpose.
std::uint64_t hash_of_ten_seconds() {
  const RandomModel model(3);
  const se::OwnedEngine engine(se::create_instance(model.get()));
  se::configure(engine.get(), everything_on());
  TestSignal signal(5);
  BitHash hash;
  float loudest = 0.0f;
  for (int frame = 0; frame < 1000; ++frame) {
    float mic[2 * kBlock], ref[kBlock];
    std::vector<float> out(kBlock);
    signal.next(mic, ref);
    // Every way through the pipeline, in stretches of 250 ms.
    const int mode = frame / 25 % 4;
    se_process(engine.get(), mic, ref, out.data(), mode == 0, mode == 2 || mode == 3);
    hash.add(out);
    for (const float y : out) loudest = std::max(loudest, std::fabs(y));
  }
  EXPECT_GT(loudest, 0.1f);
  return hash.value();
}

TEST(Pipeline, GoldenHashOfTenSeconds) {
  const char* const at_load = se::kernels().name;
  for (int i = 0; const se::Kernels* variant = se::available_kernels(i); ++i) {
    se::use_kernels(variant->name);
    const std::uint64_t hash = hash_of_ten_seconds();
    EXPECT_EQ(hash, 0xdb7c6645e2185402u) << variant->name << " 0x" << std::hex << hash;
  }
  se::use_kernels(at_load);
}

}  // namespace
