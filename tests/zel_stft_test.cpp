// Analysis and synthesis as a chain, the window, and the edges of both.
#include "speechenhance/zel_stft.h"

#include <cstring>
#include <limits>

#include "spectral_test_support.h"

using namespace spectral_test;

namespace {

struct Stft {
  Stft(bool synthesis, int n, int hop_size, const float* window, std::size_t misalignment = 0)
      : hop(hop_size),
        bins(static_cast<std::size_t>(n / 2 + 1)),
        mem(zel_stft_query_mem(n, synthesis), misalignment),
        scratch(zel_stft_query_scratch(n), misalignment),
        state(zel_stft_init(mem.data(), scratch.data(), window, n, hop_size, synthesis)) {}

  std::vector<zel_lcomplex> analyse(const float* samples) {
    std::vector<zel_lcomplex> spectrum(bins);
    EXPECT_EQ(zel_stft_analysis(state, samples, spectrum.data()), 0);
    return spectrum;
  }

  std::vector<float> synthesise(const std::vector<zel_lcomplex>& spectrum, bool normalised = true) {
    GuardedRegion out(static_cast<std::size_t>(hop) * sizeof(float));
    auto* samples = reinterpret_cast<float*>(out.data());
    EXPECT_EQ(normalised ? zel_stft_synthesis_envelop(state, spectrum.data(), samples)
                         : zel_stft_synthesis(state, spectrum.data(), samples),
              0);
    EXPECT_TRUE(mem.intact() && scratch.intact() && out.intact());
    return {samples, samples + hop};
  }

  int hop;
  std::size_t bins;
  GuardedRegion mem;
  GuardedRegion scratch;
  stft_state* state;
};

// Runs whole hops of x through both objects.
std::vector<float> chain(Stft& analysis, Stft& synthesis, const std::vector<float>& x,
                         bool normalised = true) {
  std::vector<float> y;
  const auto hop = static_cast<std::size_t>(analysis.hop);
  for (std::size_t at = 0; at + hop <= x.size(); at += hop) {
    const std::vector<float> block =
        synthesis.synthesise(analysis.analyse(x.data() + at), normalised);
    y.insert(y.end(), block.begin(), block.end());
  }
  return y;
}

struct Chain {
  Stft analysis{false, 512, 160, p_win_tmp};
  Stft synthesis{true, 512, 160, p_win_tmp};
};

// 0.5 - 0.5 cos(2 pi n / 512) in millionths.
double exact_window(std::size_t n) {
  return 1e6 * (0.5 - 0.5 * std::cos(2 * std::acos(-1.0) * static_cast<double>(n) / 512));
}

}  // namespace

TEST(Window, IsThePeriodicHannWindowToSixDecimals) {
  double sum = 0, squares = 0;
  long decimal_sum = 0;
  int off = 0;
  for (std::size_t n = 0; n < 512; ++n) {
    const double w = p_win_tmp[n];
    const long millionths = std::lround(w * 1e6);
    EXPECT_EQ(p_win_tmp[n], static_cast<float>(static_cast<double>(millionths) / 1e6)) << n;
    EXPECT_LT(std::abs(static_cast<double>(millionths) - exact_window(n)), 1) << n;
    off += millionths != std::lround(exact_window(n));
    sum += w;
    squares += w * w;
    decimal_sum += millionths;
  }
  EXPECT_EQ(off, 20);
  EXPECT_EQ(p_win_tmp[0], 0.0f);
  EXPECT_EQ(p_win_tmp[1], 0.000038f);
  EXPECT_EQ(p_win_tmp[2], 0.000151f);
  EXPECT_EQ(p_win_tmp[67], 0.159699f);
  EXPECT_EQ(p_win_tmp[256], 1.0f);
  EXPECT_EQ(decimal_sum, 255999994);
  EXPECT_NEAR(sum, 255.999994, 5e-7);
  EXPECT_NEAR(squares, 191.999994, 5e-7);

  GuardedRegion copy(512 * sizeof(float));
  auto* out = reinterpret_cast<float*>(copy.data());
  zel_stft_generate_win(0, out);
  zel_stft_generate_win(-3, out);
  EXPECT_EQ(out[1], 0.0f);
  zel_stft_generate_win(512, out);
  EXPECT_EQ(std::memcmp(out, p_win_tmp, 512 * sizeof(float)), 0);
  EXPECT_TRUE(copy.intact());
}

// The twiddles of six decimals leave an error 122 dB below the signal: for full-scale white noise
// (0.58 rms) 4e-7 rms, peaks of 2e-6.
TEST(Stft, ReconstructsAfter352Samples) {
  Chain stft;
  EXPECT_EQ(zel_stft_get_delay(stft.analysis.state), 352);
  EXPECT_EQ(zel_stft_get_delay(stft.synthesis.state), 352);
  const std::vector<float> x = Noise(7).reals(160 * 150);
  const std::vector<float> y = chain(stft.analysis, stft.synthesis, x);
  double worst = 0, energy = 0;
  for (std::size_t i = 352; i < y.size(); ++i) {
    const double error = static_cast<double>(y[i]) - static_cast<double>(x[i - 352]);
    worst = std::fmax(worst, std::abs(error));
    energy += error * error;
  }
  const double rms = std::sqrt(energy / static_cast<double>(y.size() - 352));
  EXPECT_LT(rms, 6e-7);
  EXPECT_LT(worst, 3e-6);
  for (std::size_t i = 0; i < 352; ++i) EXPECT_LT(std::abs(y[i]), 1e-8f) << i;
  RecordProperty("rms_error", std::to_string(rms * 1e9) + "e-9");
}

TEST(Stft, ReconstructsAtOtherLengthsAndHops) {
  for (const auto& [n, hop] : {std::pair{480, 160}, {480, 120}, {256, 64}, {60, 15}, {1024, 256}}) {
    SCOPED_TRACE(n);
    std::vector<float> window(static_cast<std::size_t>(n));
    for (std::size_t i = 0; i < window.size(); ++i) {
      window[i] =
          static_cast<float>(std::sin(std::acos(-1.0) * (static_cast<double>(i) + 0.5) / n));
    }
    Stft analysis(false, n, hop, window.data(), 7), synthesis(true, n, hop, window.data(), 13);
    const auto delay = static_cast<std::size_t>(zel_stft_get_delay(synthesis.state));
    EXPECT_EQ(delay, static_cast<std::size_t>(n - hop));
    const std::vector<float> x = Noise(8).reals(20 * n);
    const std::vector<float> y = chain(analysis, synthesis, x);
    for (std::size_t i = delay; i < y.size(); ++i) ASSERT_NEAR(y[i], x[i - delay], 2e-6) << i;
  }
}

TEST(Stft, ImpulseComesBackAsImpulse) {
  Chain stft;
  std::vector<float> x(160 * 12);
  x[1000] = 1;
  const std::vector<float> y = chain(stft.analysis, stft.synthesis, x);
  for (std::size_t i = 0; i < y.size(); ++i) EXPECT_NEAR(y[i], i == 1352 ? 1 : 0, 1e-6) << i;
}

// The sum of squared windows over the frames that cover a sample, read off a constant signal.
TEST(Stft, PlainSynthesisHasTheGainOfTheOverlap) {
  Chain stft;
  const std::vector<float> y =
      chain(stft.analysis, stft.synthesis, std::vector<float>(160 * 12, 1.0f), false);
  for (std::size_t j = 0; j < 160; ++j) {
    double gain = 0;
    for (std::size_t n = j; n < 512; n += 160) gain += std::pow(exact_window(n) / 1e6, 2);
    EXPECT_NEAR(y[160 * 10 + j], gain, 2e-5) << j;
  }
  EXPECT_NEAR(y[160 * 10 + 96], 1.1905, 5e-5);
  EXPECT_NEAR(y[160 * 10 + 16], 1.2101, 5e-5);
}

TEST(Stft, SilenceStaysExactlySilent) {
  Chain stft;
  for (const float v : chain(stft.analysis, stft.synthesis, std::vector<float>(160 * 8))) {
    EXPECT_EQ(v, 0);
  }
}

// After a reset the objects repeat what they did, but for the envelope, which then starts at 0: the
// output is exact at once, with the one sample that no window value covers at 0 and never NaN.
TEST(Stft, ResetForgetsThePast) {
  Chain stft;
  const std::vector<float> x = Noise(9).reals(160 * 8);
  const std::vector<zel_lcomplex> first = stft.analysis.analyse(x.data());
  chain(stft.analysis, stft.synthesis, x);
  EXPECT_EQ(zel_stft_reset(stft.analysis.state), 0);
  EXPECT_EQ(zel_stft_reset(stft.synthesis.state), 0);
  const std::vector<zel_lcomplex> again = stft.analysis.analyse(x.data());
  EXPECT_EQ(std::memcmp(first.data(), again.data(), first.size() * sizeof(zel_lcomplex)), 0);

  // A full history, so that the first frame already carries signal in all its samples.
  for (std::size_t at = 160; at <= 320; at += 160) stft.analysis.analyse(x.data() + at);
  const std::vector<float> y =
      chain(stft.analysis, stft.synthesis, std::vector<float>(x.begin() + 480, x.end()));
  EXPECT_EQ(y[0], 0.0f);
  for (std::size_t i = 16; i < y.size(); ++i)
    EXPECT_NEAR(y[i], x[128 + i], 5e-6 + 1e-3 / static_cast<double>(i));

  for (int t = 0; t < 2; ++t) {  // also where whole hops are uncovered
    std::vector<float> zeros(512);
    Stft synthesis(true, 512, 160, zeros.data());
    zel_stft_reset(synthesis.state);
    for (const float v : synthesis.synthesise(first)) EXPECT_EQ(v, 0);
  }
}

TEST(Stft, AnalysisChangesOnlyItsHistoryAndTheScratch) {
  Stft stft(false, 512, 160, p_win_tmp);
  const std::size_t size = zel_stft_query_mem(512, 0);
  const auto* bytes = static_cast<const unsigned char*>(stft.mem.data());
  const std::vector<unsigned char> before(bytes, bytes + size);
  const std::vector<float> x = Noise(10).reals(160);
  stft.analyse(x.data());
  std::size_t first = size, last = 0;
  for (std::size_t i = 0; i < size; ++i) {
    if (bytes[i] == before[i]) continue;
    first = std::min(first, i);
    last = i;
  }
  ASSERT_LT(first, last);
  EXPECT_EQ(last + 1 - first, 160 * sizeof(float));
  EXPECT_EQ(std::memcmp(bytes + first, x.data(), 160 * sizeof(float)), 0);
}

TEST(Stft, OddAndTinyLengthsStayInTheirMemory) {
  const std::vector<float> ones(64, 1.0f);
  for (const int n : {0, 1, 2, 3, 5, 6, 30, 31, 62}) {
    const int hop = n == 0 ? 0 : (n + 1) / 2;
    for (std::size_t misalignment = 0; misalignment < 17; ++misalignment) {
      SCOPED_TRACE(testing::Message() << n << " at " << misalignment);
      Stft analysis(false, n, hop, ones.data(), misalignment);
      Stft synthesis(true, n, hop, ones.data(), misalignment);
      for (int t = 0; t < 4; ++t) {
        const std::vector<zel_lcomplex> spectrum = analysis.analyse(ones.data());
        for (const float v : synthesis.synthesise(spectrum)) {
          if (n < 2) {
            EXPECT_EQ(v, 0);
          } else {
            EXPECT_TRUE(v > -1e-6f && v < 1 + 1e-5f) << v;
          }
        }
        if (n > 1) {
          EXPECT_EQ(std::isfinite(spectrum[0].re), true);
        }
      }
      EXPECT_TRUE(analysis.mem.intact() && analysis.scratch.intact());
    }
  }
}

TEST(Stft, MemoryFollowsThePublishedFigures) {
  // Growth with 8-byte pointers: the object, the handle, its plan.
  constexpr std::size_t kGrowth = 24 + 12 + 20;
  EXPECT_EQ(zel_stft_query_mem(512, 0), grown(5487, kGrowth));
  EXPECT_EQ(zel_stft_query_mem(512, 1), grown(7550, kGrowth));
  EXPECT_EQ(zel_stft_query_scratch(512), 6174u);
  for (std::size_t misalignment = 0; misalignment < 17; ++misalignment) {
    Stft analysis(false, 512, 160, p_win_tmp, misalignment);
    Stft synthesis(true, 512, 160, p_win_tmp, misalignment);
    EXPECT_TRUE(analysis.mem.holds(bytes_of(analysis.state), 1, 4) &&
                synthesis.mem.holds(bytes_of(synthesis.state), 1, 4));
    const std::vector<float> x = Noise(11).reals(160 * 6);
    const std::vector<float> y = chain(analysis, synthesis, x);
    EXPECT_NEAR(y[352 + 100], x[100], 3e-6);
    EXPECT_TRUE(analysis.mem.intact() && analysis.scratch.intact());
  }
  EXPECT_EQ(zel_stft_destroy(nullptr), 0);
}
