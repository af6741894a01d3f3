// The complex and the real transform against the definition in double precision, their tables and
// buffer rules.
#include "speechenhance/zel_fft.h"

#include <algorithm>

#include "spectral_test_support.h"

using namespace spectral_test;

namespace {

using Factors = std::vector<std::int32_t>;

// A transform in guarded memory of any misalignment.
struct ComplexFft {
  explicit ComplexFft(int n, std::size_t misalignment = 0)
      : mem(zel_fft_c2c_float32_query_mem(n), misalignment),
        scratch(zel_fft_c2c_float32_query_scratch_mem(n), misalignment),
        plan(ne10_fft_init_c2c_float32_c_x(n, mem.data(), scratch.data())) {}

  Spectrum run(const Spectrum& in, int inverse) {
    const auto out = written<zel_lcomplex>(in.size(), [&](zel_lcomplex* values) {
      ne10_fft_c2c_1d_float32_c_x(values, in.data(), plan, inverse);
    });
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return out;
  }

  GuardedRegion mem, scratch;
  c2c_plan* plan;
};

struct RealFft {
  explicit RealFft(int n, std::size_t misalignment = 0)
      : length(n),
        mem(zel_fft_r2c_query_mem_api(n), misalignment),
        scratch(zel_fft_r2c_query_scratch_mem_api(n), misalignment),
        handle(zel_fft_init_r2c(n, mem.data(), scratch.data())) {}

  Spectrum forward(const std::vector<float>& in) {
    const auto bins = static_cast<std::size_t>(length / 2 + 1);
    const auto out = written<zel_lcomplex>(
        bins, [&](zel_lcomplex* spectrum) { zel_CLfftL(handle, spectrum, in.data()); });
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return out;
  }
  std::vector<float> inverse(const Spectrum& in) {
    const auto out = written<float>(static_cast<std::size_t>(length),
                                    [&](float* signal) { zel_LifftCL(handle, signal, in.data()); });
    EXPECT_TRUE(mem.intact() && scratch.intact());
    return out;
  }

  int length;
  GuardedRegion mem, scratch;
  r2c_handle* handle;
};

bool same_bits(const Spectrum& a, const Spectrum& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](zel_lcomplex x, zel_lcomplex y) { return x.re == y.re && x.im == y.im; });
}

Factors factors_of(int n, int flags) {
  Factors factors(ZEL_FFT_FACTORS, -99);
  EXPECT_EQ(ne10_factor(n, factors.data(), flags), 0);
  const auto used = static_cast<std::size_t>(2 * factors[0] + 3);
  EXPECT_EQ(std::count(factors.begin(), factors.end(), -99),
            static_cast<std::ptrdiff_t>(ZEL_FFT_FACTORS - used));
  factors.resize(used);
  return factors;
}

}  // namespace

TEST(ComplexFft, MatchesTheDefinition) {
  std::vector<int> lengths = {96,  120, 125, 128, 143, 160, 210, 240,  243,
                              256, 289, 360, 480, 500, 512, 625, 1009, 1024};
  for (int n = 1; n <= 70; ++n) lengths.push_back(n);
  RandomSignal random(1);
  for (const int n : lengths) {
    SCOPED_TRACE(n);
    ComplexFft fft(n, static_cast<std::size_t>(n));
    ASSERT_NE(fft.plan, nullptr);
    const Spectrum x = random.complexes(n), kept = x;
    const Spectrum forward = fft.run(x, 0), inverse = fft.run(x, 1), back = fft.run(forward, 7);
    EXPECT_TRUE(same_bits(x, kept));
    EXPECT_TRUE(same_bits(fft.run(x, 0), forward)) << "a plan keeps nothing";

    Complexes expected_inverse = dft(widen(x), x.size(), 1);
    for (auto& v : expected_inverse) v /= n;
    const double scale = norm(widen(x));
    EXPECT_LT(largest_difference(widen(forward), dft(widen(x), x.size())) / scale, 1.5e-6);
    EXPECT_LT(largest_difference(widen(inverse), expected_inverse) * n / scale, 1.5e-6);
    EXPECT_LT(largest_difference(widen(back), widen(x)) * std::sqrt(n) / scale, 1.5e-6);
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

// The engines on factor tables that plans do not make: the generic one on radix 8 and on powers of
// two, the power-of-two one behind a first stage of radix 2; with and without scaling.
TEST(ComplexFft, EnginesTakeEveryFactorTable) {
  RandomSignal random(2);
  for (const auto& [length, flags] :
       {std::pair{8, 0}, {8, 1}, {24, 1}, {32, 0}, {40, 1}, {128, 0}, {256, 1}, {120, 1}}) {
    SCOPED_TRACE(length);
    const int n = length;
    const Factors factors = factors_of(n, flags);
    const Spectrum x = random.complexes(n);
    Spectrum twiddles(x.size()), work(x.size());
    ne10_fft_generate_twiddles_float32_x(twiddles.data(), factors.data(), n);
    const double tolerance = 1e-6 * norm(widen(x));
    const auto check = [&](const auto& engine, double sign, float scale) {
      Spectrum out(x.size());
      engine(out.data(), x.data(), factors.data(), twiddles.data(), work.data());
      for (zel_lcomplex& v : out) v = {v.re * scale, v.im * scale};
      EXPECT_LT(largest_difference(widen(out), dft(widen(x), x.size(), sign)), tolerance);
    };
    const auto generic = [](const auto& engine, int is_scaled) {
      return [=](auto... arguments) { engine(arguments..., is_scaled); };
    };
    const auto undo = static_cast<float>(n);
    check(generic(ne10_mixed_radix_generic_butterfly_float32_c_x, 0), -1, 1);
    check(generic(ne10_mixed_radix_generic_butterfly_inverse_float32_c_x, 0), 1, 1);
    check(generic(ne10_mixed_radix_generic_butterfly_inverse_float32_c_x, 1), 1, undo);
    if (factors.back() != 0) continue;
    check(ne10_mixed_radix_butterfly_float32_c, -1, 1);
    check(ne10_mixed_radix_butterfly_inverse_float32_c, 1, undo);
  }
}

TEST(RealFft, MatchesTheDefinition) {
  std::vector<int> lengths = {96, 100, 128, 160, 240, 256, 320, 480, 512, 514, 1000, 1024};
  for (int n = 2; n <= 66; n += 2) lengths.push_back(n);
  RandomSignal random(3);
  for (const int n : lengths) {
    SCOPED_TRACE(n);
    RealFft fft(n, static_cast<std::size_t>(n / 2));
    const std::vector<float> x = random.reals(n), kept = x;
    const Spectrum spectrum = fft.forward(x), kept_spectrum = spectrum;
    EXPECT_EQ(x, kept);
    EXPECT_EQ(spectrum.front().im, 0);
    EXPECT_EQ(spectrum.back().im, 0);
    const std::vector<float> back = fft.inverse(spectrum);
    EXPECT_TRUE(same_bits(spectrum, kept_spectrum));

    const double bound = n == 512 ? 6e-6 : 1e-6;  // 512 has twiddles of six decimals
    const double scale = norm(widen(x));
    EXPECT_LT(largest_difference(widen(spectrum), dft(widen(x), spectrum.size())) / scale, bound);
    EXPECT_LT(largest_difference(widen(back), widen(x)) * std::sqrt(n) / scale, bound);
  }
}

TEST(RealFft, PowerOfTwoInverseIgnoresTheImaginaryPartsOfTheEnds) {
  RandomSignal random(4);
  for (const int n : {2, 4, 64, 512}) {
    RealFft fft(n);
    Spectrum spectrum = random.complexes(n / 2 + 1);
    const std::vector<float> expected = fft.inverse(spectrum);
    spectrum.front().im = 123;
    spectrum.back().im = NAN;
    EXPECT_EQ(fft.inverse(spectrum), expected) << n;
  }
}

TEST(RealFft, OddLengthTransformsAllButTheLastSample) {
  RandomSignal random(5);
  for (const int n : {3, 5, 9, 15, 31, 255, 481}) {
    SCOPED_TRACE(n);
    RealFft fft(n, 5);
    std::vector<float> x = random.reals(n);
    const Spectrum spectrum = fft.forward(x);
    x.pop_back();
    EXPECT_LT(largest_difference(widen(spectrum), dft(widen(x), spectrum.size())),
              2e-6 * norm(widen(x)));
    std::vector<float> back = fft.inverse(spectrum);
    EXPECT_EQ(back.back(), 0) << "left as it was";
    back.pop_back();
    EXPECT_LT(largest_difference(widen(back), widen(x)), 1e-5);
  }
}

TEST(RealFft, LengthsWithNothingToTransformTouchNoMemory) {
  for (const int n : {1, 0, -1, -6, -512}) {
    SCOPED_TRACE(n);
    RealFft fft(n, 1);
    GuardedRegion mem(zel_fft_real_float32_query_mem(n));
    GuardedRegion scratch(zel_fft_real_float32_query_scratch_mem(n));
    real_plan* plan = zel_fft_real_float32_init(n, mem.data(), scratch.data());
    ASSERT_TRUE(fft.handle != nullptr && plan != nullptr);
    zel_lcomplex bin = {7, 8};
    float sample = 9;
    zel_CLfftL(fft.handle, &bin, &sample);
    zel_LifftCL(fft.handle, &sample, &bin);
    zel_fft_real_by_cplx_float32(&bin, &sample, plan);
    zel_ifft_real_by_cplx_float32(&sample, &bin, plan);
    EXPECT_TRUE(bin.re == 7 && bin.im == 8 && sample == 9);
    zel_fft_destroy_r2c(fft.handle);
    EXPECT_TRUE(fft.mem.intact() && fft.scratch.intact() && mem.intact() && scratch.intact());
  }
  for (const int n : {-8, 0, 1, 12, 511}) {
    EXPECT_EQ(ne10_fft_r2c_init_float32_x(n, nullptr, nullptr), nullptr) << n;
  }
}
