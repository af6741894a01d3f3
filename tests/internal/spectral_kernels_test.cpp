// The kernels around the transforms by their definitions: what is fused, in which order sums run,
// tails, zeros; and the constant twiddles by their formulas.
#include "kernels/kernels.h"
#include "spectral/fft512_tables.h"
#include "spectral_test_support.h"

using namespace spectral_test;

namespace {

const se::SpectralKernels& kernel() {
  return *se::kernels().spectral;
}

const std::vector<int> kLengths = {0, 1, 2, 3, 4, 5, 7, 8, 13, 31, 256, 257};

}  // namespace

TEST(SpectralKernels, FuseWhatIsDefinedAsFused) {
  Noise noise(20);
  int fused_differs = 0;
  for (const int n : kLengths) {
    const std::vector<zel_lcomplex> x = noise.complexes(n), y = noise.complexes(n);
    const std::vector<float> window = noise.reals(n), frame = noise.reals(n);
    std::vector<float> power(x.size() + 1, -9.0f), magnitude(x.size() + 1, -9.0f);
    std::vector<float> ola(x.size(), 0.3f), plain(x.size(), 0.3f), envelope(x.size(), 0.7f);
    std::vector<zel_lcomplex> mixed(x.size());
    kernel().power_spectrum(x.data(), power.data(), n);
    kernel().magnitude(x.data(), 1e-8f, magnitude.data(), n);
    kernel().mix(x.data(), y.data(), 0.37f, mixed.data(), n);
    kernel().overlap_add_envelope(frame.data(), window.data(), ola.data(), envelope.data(), n);
    kernel().overlap_add(frame.data(), window.data(), plain.data(), n);
    for (std::size_t k = 0; k < x.size(); ++k) {
      const volatile float im_squared = x[k].im * x[k].im;
      const volatile float re_squared = x[k].re * x[k].re;
      const float fused = std::fma(x[k].re, x[k].re, im_squared);
      EXPECT_EQ(power[k], fused);
      EXPECT_EQ(magnitude[k], std::sqrt(fused + 1e-8f));
      fused_differs += fused != re_squared + im_squared;
      EXPECT_EQ(mixed[k].re, std::fma(0.37f, 3.0f * y[k].re, x[k].re));
      EXPECT_EQ(mixed[k].im, std::fma(0.37f, 3.0f * y[k].im, x[k].im));
      const volatile float product = frame[k] * window[k];
      EXPECT_EQ(ola[k], 0.3f + product);
      EXPECT_EQ(plain[k], 0.3f + product);
      EXPECT_EQ(envelope[k], std::fma(window[k], window[k], 0.7f));
    }
    EXPECT_EQ(power.back(), -9.0f);
    EXPECT_EQ(magnitude.back(), -9.0f);
  }
  EXPECT_GT(fused_differs, 20) << "the signal would not tell fused from unfused";
}

TEST(SpectralKernels, SumInFourPartialSums) {
  Noise noise(21);
  for (const int n : kLengths) {
    const std::vector<float> a = noise.reals(n);
    volatile float s[4] = {}, q[4] = {};
    for (std::size_t i = 0; i < a.size(); ++i) {
      s[i & 3] = s[i & 3] + a[i];
      q[i & 3] = std::fma(a[i], a[i], q[i & 3]);
    }
    EXPECT_EQ(kernel().sum(a.data(), n), (s[0] + s[2]) + (s[1] + s[3])) << n;
    EXPECT_EQ(kernel().sum_of_squares(a.data(), n), (q[0] + q[2]) + (q[1] + q[3])) << n;
  }
  // Only this order keeps the small values: 1e8 and -1e8 meet in one partial sum.
  const float order[8] = {1e8f, 1, 1, 1, -1e8f, 1, 1, 1};
  EXPECT_EQ(kernel().sum(order, 8), 6.0f);
}

TEST(SpectralKernels, ElementWiseInPlace) {
  Noise noise(22);
  for (const int n : kLengths) {
    std::vector<zel_lcomplex> x = noise.complexes(n);
    const std::vector<zel_lcomplex> y = x;
    const std::vector<float> gain = noise.reals(n);
    kernel().apply_gain(x.data(), gain.data(), x.data(), n);
    std::vector<float> product = gain;
    kernel().multiply(product.data(), gain.data(), product.data(), n);
    std::vector<float> quotient = product;
    std::vector<float> divisor = gain;
    if (n > 2) divisor[static_cast<std::size_t>(n) / 2] = n % 2 == 0 ? 0.0f : -0.0f;
    kernel().divide_or_zero(quotient.data(), divisor.data(), quotient.data(), n);
    for (std::size_t k = 0; k < x.size(); ++k) {
      EXPECT_EQ(x[k].re, y[k].re * gain[k]);
      EXPECT_EQ(x[k].im, y[k].im * gain[k]);
      EXPECT_EQ(product[k], gain[k] * gain[k]);
      EXPECT_EQ(quotient[k], divisor[k] == 0 ? 0.0f : product[k] / divisor[k]);
    }
  }
}

TEST(Fft512Tables, AreTheFormulasToSixDecimals) {
  const double pi = std::acos(-1.0);
  const auto expect = [](float stored, double exact) {
    EXPECT_EQ(stored, static_cast<float>(static_cast<double>(std::lround(exact * 1e6)) / 1e6));
  };
  int entry = 0;
  for (const auto& [fstride, mstride] : {std::pair{16, 4}, {4, 16}, {1, 64}}) {
    for (int k = 1; k < 4; ++k) {
      for (int j = 0; j < mstride; ++j, ++entry) {
        expect(se::kFft512TwiddleRe[entry], std::cos(-2 * pi * fstride * j * k / 256));
        expect(se::kFft512TwiddleIm[entry], std::sin(-2 * pi * fstride * j * k / 256));
      }
    }
  }
  for (; entry < se::kFft512Twiddles; ++entry) {
    EXPECT_EQ(se::kFft512TwiddleRe[entry], 0);
    EXPECT_EQ(se::kFft512TwiddleIm[entry], 0);
  }
  for (int i = 0; i < se::kFft512SuperTwiddles; ++i) {
    expect(se::kFft512SuperTwiddleRe[i], std::cos(-pi * ((i + 1) / 256.0 + 0.5)));
    expect(se::kFft512SuperTwiddleIm[i], std::sin(-pi * ((i + 1) / 256.0 + 0.5)));
  }
  EXPECT_EQ(se::kFft512TwiddleRe[251], -0.073565f);
  EXPECT_EQ(se::kFft512TwiddleIm[251], 0.997290f);
  EXPECT_EQ(se::kFft512SuperTwiddleRe[0], -0.012272f);
  EXPECT_EQ(se::kFft512SuperTwiddleIm[0], -0.999925f);
}
