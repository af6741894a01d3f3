// The complex and the real transform against the definition in double precision, their tables,
// memory figures and buffer rules.
#include "speechenhance/zel_fft.h"

#include <algorithm>

#include "spectral_test_support.h"

using namespace spectral_test;

namespace {

// Growth of the records with 8-byte pointers.
constexpr std::size_t kC2cGrowth = 16;
constexpr std::size_t kPow2Growth = 20;
constexpr std::size_t kRealGrowth = 20;
constexpr std::size_t kHandleGrowth = 12;

// A transform in guarded memory of any misalignment.
struct ComplexFft {
  ComplexFft(int n, std::size_t misalignment)
      : mem(zel_fft_c2c_float32_query_mem(n), misalignment),
        scratch(zel_fft_c2c_float32_query_scratch_mem(n), misalignment),
        plan(ne10_fft_init_c2c_float32_c_x(n, mem.data(), scratch.data())) {}

  std::vector<zel_lcomplex> run(const std::vector<zel_lcomplex>& in, int inverse) {
    GuardedRegion out(in.size() * sizeof(zel_lcomplex));
    auto* values = reinterpret_cast<zel_lcomplex*>(out.data());
    ne10_fft_c2c_1d_float32_c_x(values, in.data(), plan, inverse);
    EXPECT_TRUE(mem.intact() && scratch.intact() && out.intact());
    return {values, values + in.size()};
  }

  GuardedRegion mem;
  GuardedRegion scratch;
  c2c_plan* plan;
};

struct RealFft {
  RealFft(int n, std::size_t misalignment)
      : length(n),
        mem(zel_fft_r2c_query_mem_api(n), misalignment),
        scratch(zel_fft_r2c_query_scratch_mem_api(n), misalignment),
        handle(zel_fft_init_r2c(n, mem.data(), scratch.data())) {}

  std::vector<zel_lcomplex> forward(const std::vector<float>& in) {
    const auto bins = static_cast<std::size_t>(length / 2 + 1);
    GuardedRegion out(bins * sizeof(zel_lcomplex));
    auto* spectrum = reinterpret_cast<zel_lcomplex*>(out.data());
    zel_CLfftL(handle, spectrum, in.data());
    EXPECT_TRUE(mem.intact() && scratch.intact() && out.intact());
    return {spectrum, spectrum + bins};
  }

  std::vector<float> inverse(const std::vector<zel_lcomplex>& in) {
    GuardedRegion out(static_cast<std::size_t>(length) * sizeof(float));
    auto* signal = reinterpret_cast<float*>(out.data());
    zel_LifftCL(handle, signal, in.data());
    EXPECT_TRUE(mem.intact() && scratch.intact() && out.intact());
    return {signal, signal + length};
  }

  int length;
  GuardedRegion mem;
  GuardedRegion scratch;
  r2c_handle* handle;
};

bool same_bits(const std::vector<zel_lcomplex>& a, const std::vector<zel_lcomplex>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](zel_lcomplex x, zel_lcomplex y) { return x.re == y.re && x.im == y.im; });
}

std::vector<std::int32_t> factors_of(int n, int flags) {
  std::vector<std::int32_t> factors(ZEL_FFT_FACTORS, -99);
  EXPECT_EQ(ne10_factor(n, factors.data(), flags), 0);
  const auto used = static_cast<std::size_t>(2 * factors[0] + 3);
  EXPECT_TRUE(std::all_of(factors.begin() + static_cast<std::ptrdiff_t>(used), factors.end(),
                          [](std::int32_t f) { return f == -99; }));
  factors.resize(used);
  return factors;
}

using Factors = std::vector<std::int32_t>;

}  // namespace

TEST(ComplexFft, MatchesTheDefinition) {
  std::vector<int> lengths = {96,  120, 125, 128, 143, 160, 210, 240,  243,
                              256, 289, 360, 480, 500, 512, 625, 1009, 1024};
  for (int n = 1; n <= 70; ++n) lengths.push_back(n);
  Noise noise(1);
  double worst = 0;
  for (const int n : lengths) {
    SCOPED_TRACE(n);
    ComplexFft fft(n, static_cast<std::size_t>(n) % 17);
    ASSERT_NE(fft.plan, nullptr);
    EXPECT_TRUE(fft.mem.holds(bytes_of(fft.plan), 1, 4));
    const std::vector<zel_lcomplex> x = noise.complexes(n);
    const std::vector<zel_lcomplex> kept = x;
    const std::vector<zel_lcomplex> forward = fft.run(x, 0);
    const std::vector<zel_lcomplex> inverse = fft.run(x, 1);
    const std::vector<zel_lcomplex> back = fft.run(forward, 7);
    EXPECT_TRUE(same_bits(x, kept));
    EXPECT_TRUE(same_bits(fft.run(x, 0), forward)) << "a plan keeps nothing";

    Complexes expected_inverse = dft(widen(x), x.size(), 1);
    for (auto& v : expected_inverse) v /= n;
    const double scale = norm(widen(x));
    const double error =
        std::max({largest_difference(widen(forward), dft(widen(x), x.size())) / scale,
                  largest_difference(widen(inverse), expected_inverse) * n / scale,
                  largest_difference(widen(back), widen(x)) * std::sqrt(n) / scale});
    EXPECT_LT(error, 1.5e-6);
    worst = std::max(worst, error);
  }
  RecordProperty("worst_relative_error", std::to_string(worst));
}

TEST(ComplexFft, ImpulseAndOnesTransformExactly) {
  for (const int n : {1, 2, 8, 24, 40, 128, 256}) {
    ComplexFft fft(n, 0);
    std::vector<zel_lcomplex> impulse(static_cast<std::size_t>(n));
    impulse[0].re = 1;
    const std::vector<zel_lcomplex> ones(static_cast<std::size_t>(n), {1, 0});
    EXPECT_TRUE(same_bits(fft.run(impulse, 0), ones)) << n;
    EXPECT_LT(largest_difference(widen(fft.run(ones, 1)), widen(impulse)), 1e-7) << n;
  }
}

TEST(ComplexFft, RefusesLengthsBelowOne) {
  for (const int n : {0, -1, -512}) {
    ComplexFft fft(n, 3);
    EXPECT_EQ(fft.plan, nullptr);
    EXPECT_TRUE(fft.mem.intact() && fft.scratch.intact());
  }
  ne10_fft_destroy_c2c_float32_x(nullptr);
}

TEST(ComplexFft, FactorsInOrderOfPreference) {
  EXPECT_EQ(factors_of(256, 1), (Factors{4, 64, 4, 64, 4, 16, 4, 4, 4, 1, 0}));
  EXPECT_EQ(factors_of(512, 1), (Factors{4, 64, 4, 128, 4, 32, 4, 8, 8, 1, 0}));
  EXPECT_EQ(factors_of(512, 0), (Factors{5, 256, 4, 128, 4, 32, 4, 8, 4, 2, 2, 1, 0}));
  EXPECT_EQ(factors_of(24, 1), (Factors{2, 3, 3, 8, 8, 1, 1}));
  EXPECT_EQ(factors_of(24, 0), (Factors{3, 8, 4, 6, 2, 3, 3, 1, 1}));
  EXPECT_EQ(factors_of(40, 1), (Factors{2, 5, 5, 8, 8, 1, 1}));
  EXPECT_EQ(factors_of(40, 0), (Factors{3, 8, 4, 10, 2, 5, 5, 1, 1}));
  EXPECT_EQ(factors_of(2, 1), (Factors{1, 1, 2, 1, 0}));
  EXPECT_EQ(factors_of(1, 1), (Factors{1, 1, 1, 1, 1}));
  EXPECT_EQ(factors_of(7, 1), (Factors{1, 1, 7, 1, 1}));
}

// Blocks in the order of running, each with the formula of its stage, and nothing behind them.
TEST(ComplexFft, TwiddlesFollowTheFormula) {
  for (const int n : {1, 2, 3, 7, 15, 24, 60, 77, 105, 256, 480}) {
    SCOPED_TRACE(n);
    const Factors factors = factors_of(n, 0);
    const zel_lcomplex untouched = {-9, -9};
    std::vector<zel_lcomplex> table(static_cast<std::size_t>(n) + 4, untouched);
    const zel_lcomplex* end = ne10_fft_generate_twiddles_impl_float32_x(
        ne10_fft_generate_twiddles_line_float32_x, table.data(), factors.data(), n);
    ASSERT_LE(end, table.data() + n);
    EXPECT_EQ(end->re, -9);

    const zel_lcomplex* entry = table.data();
    const auto stages = static_cast<std::size_t>(factors[0]);
    if (factors[2 * stages] % 2 == 1) {
      for (int i = 0; i < factors[2 * stages]; ++i, ++entry) {
        EXPECT_EQ(entry->re, 1);
        EXPECT_EQ(entry->im, 0);
      }
    }
    for (std::size_t pair = stages - 1; pair >= 1; --pair) {
      const int span = factors[2 * pair + 1];
      for (int k = 1; k < factors[2 * pair]; ++k) {
        for (int j = 0; j < span; ++j, ++entry) {
          const double phase = -2 * std::acos(-1.0) * j * k / (factors[2 * pair] * span);
          EXPECT_NEAR(entry->re, std::cos(phase), 5e-7);
          EXPECT_NEAR(entry->im, std::sin(phase), 5e-7);
        }
      }
    }
    EXPECT_EQ(entry, end);
  }
}

// The engines on factor tables that plans do not make: the generic one on radix 8 and on powers of
// two, the power-of-two one behind a first stage of radix 2; with and without scaling.
TEST(ComplexFft, EnginesTakeEveryFactorTable) {
  Noise noise(2);
  for (const auto& [n, flags] :
       {std::pair{8, 0}, {8, 1}, {24, 1}, {32, 0}, {40, 1}, {128, 0}, {256, 1}, {120, 1}}) {
    SCOPED_TRACE(n);
    const auto size = static_cast<std::size_t>(n);
    const Factors factors = factors_of(n, flags);
    std::vector<zel_lcomplex> twiddles(size), work(size), out(size);
    ne10_fft_generate_twiddles_float32_x(twiddles.data(), factors.data(), n);
    const std::vector<zel_lcomplex> x = noise.complexes(n);
    const Complexes expected = dft(widen(x), size);
    const Complexes expected_inverse = dft(widen(x), size, 1);
    const double tolerance = 1e-6 * norm(widen(x));

    ne10_mixed_radix_generic_butterfly_float32_c_x(out.data(), x.data(), factors.data(),
                                                   twiddles.data(), work.data(), 0);
    EXPECT_LT(largest_difference(widen(out), expected), tolerance);
    ne10_mixed_radix_generic_butterfly_inverse_float32_c_x(out.data(), x.data(), factors.data(),
                                                           twiddles.data(), work.data(), 0);
    EXPECT_LT(largest_difference(widen(out), expected_inverse), tolerance);
    std::vector<zel_lcomplex> scaled(size);
    ne10_mixed_radix_generic_butterfly_inverse_float32_c_x(scaled.data(), x.data(), factors.data(),
                                                           twiddles.data(), work.data(), 1);
    for (zel_lcomplex& v : scaled) v = {v.re * static_cast<float>(n), v.im * static_cast<float>(n)};
    EXPECT_LT(largest_difference(widen(scaled), expected_inverse), tolerance);

    if (factors.back() != 0) continue;
    ne10_mixed_radix_butterfly_float32_c(out.data(), x.data(), factors.data(), twiddles.data(),
                                         work.data());
    EXPECT_LT(largest_difference(widen(out), expected), tolerance);
    ne10_mixed_radix_butterfly_inverse_float32_c(out.data(), x.data(), factors.data(),
                                                 twiddles.data(), work.data());
    for (zel_lcomplex& v : out) v = {v.re * static_cast<float>(n), v.im * static_cast<float>(n)};
    EXPECT_LT(largest_difference(widen(out), expected_inverse), tolerance);
  }
}

TEST(RealFft, MatchesTheDefinition) {
  std::vector<int> lengths = {96, 100, 128, 160, 240, 256, 320, 480, 512, 514, 1000, 1024};
  for (int n = 2; n <= 66; n += 2) lengths.push_back(n);
  Noise noise(3);
  double worst = 0;
  for (const int n : lengths) {
    SCOPED_TRACE(n);
    RealFft fft(n, static_cast<std::size_t>(n / 2) % 17);
    EXPECT_TRUE(fft.mem.holds(bytes_of(fft.handle), 1, 4));
    const std::vector<float> x = noise.reals(n);
    const std::vector<float> kept = x;
    const std::vector<zel_lcomplex> spectrum = fft.forward(x);
    EXPECT_EQ(x, kept);
    EXPECT_EQ(spectrum.front().im, 0);
    EXPECT_EQ(spectrum.back().im, 0);
    const std::vector<zel_lcomplex> kept_spectrum = spectrum;
    const std::vector<float> back = fft.inverse(spectrum);
    EXPECT_TRUE(same_bits(spectrum, kept_spectrum));

    const double scale = norm(widen(x));
    const double error =
        std::max(largest_difference(widen(spectrum), dft(widen(x), spectrum.size())) / scale,
                 largest_difference(widen(back), widen(x)) * std::sqrt(n) / scale);
    EXPECT_LT(error, n == 512 ? 6e-6 : 1e-6) << "512 has twiddles of six decimals";
    worst = std::max(worst, error);
  }
  RecordProperty("worst_relative_error", std::to_string(worst));
}

TEST(RealFft, KnownSignalsOf512Samples) {
  RealFft fft(512, 0);
  std::vector<float> ones(512, 1.0f), cosine(512), alternating(512);
  for (std::size_t n = 0; n < 512; ++n) {
    cosine[n] =
        static_cast<float>(std::cos(std::acos(-1.0) * 2 * 8 * static_cast<double>(n) / 512));
    alternating[n] = n % 2 == 0 ? 1.0f : -1.0f;
  }
  Complexes dc(257), tone(257), nyquist(257);
  dc[0] = 512;
  tone[8] = 256;
  nyquist[256] = 512;
  EXPECT_LT(largest_difference(widen(fft.forward(ones)), dc), 1e-6);
  EXPECT_LT(largest_difference(widen(fft.forward(cosine)), tone), 3e-4);
  EXPECT_LT(largest_difference(widen(fft.forward(alternating)), nyquist), 1e-6);
}

TEST(RealFft, PowerOfTwoInverseIgnoresTheImaginaryPartsOfTheEnds) {
  Noise noise(4);
  for (const int n : {2, 4, 64, 512}) {
    RealFft fft(n, 0);
    std::vector<zel_lcomplex> spectrum = noise.complexes(n / 2 + 1);
    const std::vector<float> expected = fft.inverse(spectrum);
    spectrum.front().im = 123;
    spectrum.back().im = NAN;
    EXPECT_EQ(fft.inverse(spectrum), expected) << n;
  }
}

TEST(RealFft, OddLengthTransformsAllButTheLastSample) {
  Noise noise(5);
  for (const int n : {3, 5, 9, 15, 31, 255, 481}) {
    SCOPED_TRACE(n);
    RealFft fft(n, 5);
    const std::vector<float> x = noise.reals(n);
    const std::vector<float> all_but_last(x.begin(), x.end() - 1);
    const std::vector<zel_lcomplex> spectrum = fft.forward(x);
    EXPECT_LT(largest_difference(widen(spectrum), dft(widen(all_but_last), spectrum.size())),
              2e-6 * norm(widen(x)));
    std::vector<float> back = fft.inverse(spectrum);
    EXPECT_EQ(back.back(), 0) << "left as it was";
    back.pop_back();
    EXPECT_LT(largest_difference(widen(back), widen(all_but_last)), 1e-5);
  }
}

TEST(RealFft, LengthsWithNothingToTransformTouchNoMemory) {
  for (const int n : {1, 0, -1, -6, -512}) {
    SCOPED_TRACE(n);
    RealFft fft(n, 1);
    ASSERT_NE(fft.handle, nullptr);
    zel_lcomplex bin = {7, 8};
    float sample = 9;
    zel_CLfftL(fft.handle, &bin, &sample);
    zel_LifftCL(fft.handle, &sample, &bin);
    EXPECT_TRUE(bin.re == 7 && bin.im == 8 && sample == 9);
    zel_fft_destroy_r2c(fft.handle);
    EXPECT_TRUE(fft.mem.intact() && fft.scratch.intact());

    GuardedRegion mem(zel_fft_real_float32_query_mem(n));
    GuardedRegion scratch(zel_fft_real_float32_query_scratch_mem(n));
    real_plan* plan = zel_fft_real_float32_init(n, mem.data(), scratch.data());
    ASSERT_NE(plan, nullptr);
    zel_fft_real_by_cplx_float32(&bin, &sample, plan);
    zel_ifft_real_by_cplx_float32(&sample, &bin, plan);
    EXPECT_TRUE(bin.re == 7 && bin.im == 8 && sample == 9);
    EXPECT_TRUE(mem.intact() && scratch.intact());
  }
  for (const int n : {-8, 0, 1, 12, 511}) {
    EXPECT_EQ(ne10_fft_r2c_init_float32_x(n, nullptr, nullptr), nullptr) << n;
  }
}

// The general path takes powers of two as well, and agrees.
TEST(RealFft, PathsAgree) {
  Noise noise(6);
  for (const int n : {2, 8, 512}) {
    RealFft fft(n, 0);
    GuardedRegion mem(zel_fft_real_float32_query_mem(n), 9);
    GuardedRegion scratch(zel_fft_real_float32_query_scratch_mem(n), 9);
    real_plan* plan = zel_fft_real_float32_init(n, mem.data(), scratch.data());
    const std::vector<float> x = noise.reals(n);
    std::vector<zel_lcomplex> spectrum(static_cast<std::size_t>(n / 2 + 1));
    zel_fft_real_by_cplx_float32(spectrum.data(), x.data(), plan);
    EXPECT_LT(largest_difference(widen(spectrum), widen(fft.forward(x))), 3e-6 * norm(widen(x)));
    std::vector<float> back(x.size());
    zel_ifft_real_by_cplx_float32(back.data(), spectrum.data(), plan);
    EXPECT_LT(largest_difference(widen(back), widen(x)), 2e-6);
    EXPECT_TRUE(mem.intact() && scratch.intact());
  }
}

TEST(FftMemory, FollowsThePublishedFigures) {
  EXPECT_EQ(zel_fft_r2c_query_mem_api(512), grown(3381, kHandleGrowth + kPow2Growth));
  EXPECT_EQ(zel_fft_r2c_query_scratch_mem_api(512), 4111u);
  for (const int n : {0, 1, 2, 6, 9, 480, 512, 1024}) {
    SCOPED_TRACE(n);
    const auto length = static_cast<std::size_t>(n);
    const std::size_t half = length / 2;
    const bool power_of_two = n == 0 || (n & (n - 1)) == 0;
    EXPECT_EQ(zel_fft_c2c_float32_query_mem(n), grown(8 * length + 302, kC2cGrowth));
    EXPECT_EQ(zel_fft_c2c_float32_query_scratch_mem(n), 8 * length + 15);
    EXPECT_EQ(zel_fft_r2c_float32_query_mem(n), grown((half + half / 2) * 8 + 294, kPow2Growth));
    EXPECT_EQ(zel_fft_r2c_float32_query_scratch_mem(n), 8 * length + 15);
    EXPECT_EQ(zel_fft_real_float32_query_mem(n),
              grown(8 * half + 302 + 16 * half + 38, kC2cGrowth + kRealGrowth));
    EXPECT_EQ(zel_fft_real_float32_query_scratch_mem(n), 8 * half + 15 + 16 * half + 23);
    EXPECT_EQ(zel_fft_r2c_u_float32_query_mem(n),
              grown(15, kHandleGrowth) + (power_of_two ? zel_fft_r2c_float32_query_mem(n)
                                                       : zel_fft_real_float32_query_mem(n)));
    EXPECT_EQ(zel_fft_r2c_u_float32_query_scratch_mem(n),
              power_of_two ? zel_fft_r2c_float32_query_scratch_mem(n)
                           : zel_fft_real_float32_query_scratch_mem(n));
    EXPECT_EQ(zel_fft_r2c_query_mem_api(n), zel_fft_r2c_u_float32_query_mem(n));
  }
  EXPECT_EQ(PI, static_cast<float>(std::acos(-1.0)));
}
