// Analysis and synthesis as a chain, the window, and the edges of both.
#include "speechenhance/zel_stft.h"

#include <algorithm>
#include <cstring>

#include "spectral_test_support.h"

using namespace spectral_test;

namespace {

struct Stft {
  Stft(bool synthesis, int n, int hop_size, const float* window, std::size_t misalignment = 0)
      : hop(static_cast<std::size_t>(hop_size)),
        bins(static_cast<std::size_t>(n / 2 + 1)),
        mem(zel_stft_query_mem(n, synthesis), misalignment),
        scratch(zel_stft_query_scratch(n), misalignment),
        state(zel_stft_init(mem.data(), scratch.data(), window, n, hop_size, synthesis)) {}

  Spectrum analyse(const float* samples) {
    const auto spectrum = written<zel_lcomplex>(bins, [&](zel_lcomplex* values) {
      EXPECT_EQ(zel_stft_analysis(state, samples, values), 0);
    });
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return spectrum;
  }
  std::vector<float> synthesise(const Spectrum& spectrum, bool normalised = true) {
    const auto process = normalised ? zel_stft_synthesis_envelop : zel_stft_synthesis;
    const auto samples = written<float>(
        hop, [&](float* values) { EXPECT_EQ(process(state, spectrum.data(), values), 0); });
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return samples;
  }

  std::size_t hop, bins;
  GuardedRegion mem, scratch;
  stft_state* state;
};

// Analysis and synthesis, the engine's unless said otherwise.
struct Chain {
  explicit Chain(int n = 512, int hop = 160, const float* window = p_win_tmp)
      : analysis(false, n, hop, window, 7), synthesis(true, n, hop, window, 13) {}

  std::vector<float> operator()(const std::vector<float>& x, bool normalised = true) {
    std::vector<float> y;
    for (std::size_t at = 0; at + analysis.hop <= x.size(); at += analysis.hop) {
      const auto block = synthesis.synthesise(analysis.analyse(&x[at]), normalised);
      y.insert(y.end(), block.begin(), block.end());
    }
    return y;
  }

  Stft analysis, synthesis;
};

// 0.5 - 0.5 cos(2 pi n / 512) in millionths.
double exact_window(std::size_t n) {
  return 1e6 * (0.5 - 0.5 * std::cos(2 * kPi * static_cast<double>(n) / 512));
}

}  // namespace

TEST(Window, IsThePeriodicHannWindowToSixDecimals) {
  double squares = 0;
  long decimal_sum = 0;
  int off = 0;
  for (std::size_t n = 0; n < 512; ++n) {
    const double w = p_win_tmp[n];
    const long millionths = std::lround(w * 1e6);
    EXPECT_EQ(p_win_tmp[n], static_cast<float>(static_cast<double>(millionths) / 1e6)) << n;
    EXPECT_LT(std::abs(static_cast<double>(millionths) - exact_window(n)), 1) << n;
    off += millionths != std::lround(exact_window(n));
    squares += w * w;
    decimal_sum += millionths;
  }
  EXPECT_EQ(off, 20);
  EXPECT_EQ(p_win_tmp[1], 0.000038f);
  EXPECT_EQ(p_win_tmp[67], 0.159699f);
  EXPECT_EQ(decimal_sum, 255999994);
  EXPECT_NEAR(squares, 191.999994, 5e-7);

  const auto copy = written<float>(512, [](float* out) {
    zel_stft_generate_win(-3, out);
    zel_stft_generate_win(0, out);
    EXPECT_EQ(out[1], 0.0f);
    zel_stft_generate_win(512, out);
  });
  EXPECT_EQ(std::memcmp(copy.data(), p_win_tmp, sizeof p_win_tmp), 0);
}

// The twiddles of six decimals leave an error 122 dB below the signal: for full-scale white noise
// (0.58 rms) 4e-7 rms, peaks of 2e-6.
TEST(Stft, ReconstructsAfter352Samples) {
  Chain stft;
  EXPECT_EQ(zel_stft_get_delay(stft.analysis.state), 352);
  EXPECT_EQ(zel_stft_get_delay(stft.synthesis.state), 352);
  const std::vector<float> x = RandomSignal(7).reals(160 * 150), y = stft(x);
  double worst = 0, energy = 0;
  for (std::size_t i = 352; i < y.size(); ++i) {
    const double error = static_cast<double>(y[i]) - static_cast<double>(x[i - 352]);
    worst = std::fmax(worst, std::abs(error));
    energy += error * error;
  }
  EXPECT_LT(std::sqrt(energy / static_cast<double>(y.size() - 352)), 6e-7);
  EXPECT_LT(worst, 3e-6);
  for (std::size_t i = 0; i < 352; ++i) EXPECT_LT(std::abs(y[i]), 1e-8f) << i;
}

TEST(Stft, ReconstructsAtOtherLengthsAndHops) {
  for (const auto& [n, hop] : {std::pair{480, 160}, {480, 120}, {256, 64}, {60, 15}, {1024, 256}}) {
    SCOPED_TRACE(n);
    std::vector<float> window;
    for (int i = 0; i < n; ++i) window.push_back(static_cast<float>(std::sin(kPi * (i + 0.5) / n)));
    Chain stft(n, hop, window.data());
    EXPECT_EQ(zel_stft_get_delay(stft.synthesis.state), n - hop);
    const auto delay = static_cast<std::size_t>(n - hop);
    const std::vector<float> x = RandomSignal(8).reals(20 * n), y = stft(x);
    for (std::size_t i = delay; i < y.size(); ++i) ASSERT_NEAR(y[i], x[i - delay], 2e-6) << i;
  }
}

// The sum of squared windows over the frames that cover a sample, read off a constant signal.
TEST(Stft, PlainSynthesisHasTheGainOfTheOverlap) {
  const std::vector<float> y = Chain()(std::vector<float>(160 * 12, 1.0f), false);
  for (std::size_t j = 0; j < 160; ++j) {
    double gain = 0;
    for (std::size_t n = j; n < 512; n += 160) gain += std::pow(exact_window(n) / 1e6, 2);
    EXPECT_NEAR(y[160 * 10 + j], gain, 2e-5) << j;
  }
}

// After a reset the objects repeat what they did, but for the envelope, which then starts at 0: the
// output is exact at once, with the one sample that no window value covers at 0 and never NaN.
TEST(Stft, ResetForgetsThePast) {
  Chain stft;
  const std::vector<float> x = RandomSignal(9).reals(160 * 8);
  const Spectrum first = stft.analysis.analyse(x.data());
  stft(x);
  EXPECT_EQ(zel_stft_reset(stft.analysis.state), 0);
  EXPECT_EQ(zel_stft_reset(stft.synthesis.state), 0);
  const Spectrum again = stft.analysis.analyse(x.data());
  EXPECT_EQ(std::memcmp(first.data(), again.data(), first.size() * sizeof(zel_lcomplex)), 0);

  // A full history, so that the first frame already carries signal in all its samples.
  for (std::size_t at = 160; at <= 320; at += 160) stft.analysis.analyse(&x[at]);
  const std::vector<float> y = stft({x.begin() + 480, x.end()});
  EXPECT_EQ(y[0], 0.0f);
  for (std::size_t i = 16; i < y.size(); ++i)
    EXPECT_NEAR(y[i], x[128 + i], 5e-6 + 1e-3 / static_cast<double>(i));

  const std::vector<float> zeros(512);  // whole hops are uncovered
  Stft synthesis(true, 512, 160, zeros.data());
  for (int t = 0; t < 4; ++t) {
    zel_stft_reset(synthesis.state);
    for (const float v : synthesis.synthesise(first)) EXPECT_EQ(v, 0);
  }
}

TEST(Stft, AnalysisChangesOnlyItsHistoryAndTheScratch) {
  Stft stft(false, 512, 160, p_win_tmp);
  const std::uint8_t* bytes = stft.mem.data();
  const std::vector<std::uint8_t> before(bytes, bytes + stft.mem.size());
  const std::vector<float> x = RandomSignal(10).reals(160);
  stft.analyse(x.data());
  const std::ptrdiff_t first =
      std::mismatch(before.begin(), before.end(), bytes).first - before.begin();
  ASSERT_LE(first, static_cast<std::ptrdiff_t>(before.size() - 640));
  EXPECT_EQ(std::memcmp(bytes + first, x.data(), 640), 0);
  EXPECT_TRUE(std::equal(before.begin() + first + 640, before.end(), bytes + first + 640));
}

TEST(Stft, OddAndTinyLengthsStayInTheirMemory) {
  const std::vector<float> ones(64, 1.0f);
  for (const int n : {0, 1, 2, 3, 5, 6, 30, 31, 62}) {
    SCOPED_TRACE(n);
    Chain stft(n, (n + 1) / 2, ones.data());
    for (int t = 0; t < 4; ++t) {
      for (const float v : stft.synthesis.synthesise(stft.analysis.analyse(ones.data()))) {
        if (n < 2) {
          EXPECT_EQ(v, 0);
        } else {
          EXPECT_TRUE(v > -1e-6f && v < 1 + 1e-5f) << v;
        }
      }
    }
  }
  EXPECT_EQ(zel_stft_destroy(nullptr), 0);
}
