// Scalar kernels of transforms, windows, power spectra and gains: the definition of every variant.
#include <cmath>

#include "kernels/butterflies.h"
#include "kernels/spectral_kernels.h"

namespace se {
namespace {

template <int kRadix>
void forward_first(const zel_lcomplex* in, zel_lcomplex* out, int stride) {
  first_stage<kRadix, false, false>(in, out, stride, 1.0f);
}

// Multiplying by 1 changes no bit, so that the stages in between leave it out.
template <int kRadix>
void inverse_first(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  if (scale == 1.0f) {
    first_stage<kRadix, true, false>(in, out, stride, scale);
  } else {
    first_stage<kRadix, true, true>(in, out, stride, scale);
  }
}

void stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out, int stride,
            int span) {
  twiddle_stage<4, false, false>(in, twiddles, out, stride, span, 1.0f);
}

void inverse_stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                    int stride, int span, float scale) {
  if (scale == 1.0f) {
    twiddle_stage<4, true, false>(in, twiddles, out, stride, span, scale);
  } else {
    twiddle_stage<4, true, true>(in, twiddles, out, stride, span, scale);
  }
}

// Bins k and n - k are the even and the odd half of the samples put together: the even samples'
// spectrum is half of F, the odd samples' (turned to their place) half of T.
template <bool kInverse>
void combine_mirrored(const zel_lcomplex* __restrict in, const zel_lcomplex* __restrict twiddles,
                      zel_lcomplex* __restrict out, int n) {
  for (int k = 1; k <= n / 2; ++k) {
    const zel_lcomplex p = in[k];
    const zel_lcomplex q = conjugate(in[n - k]);
    const zel_lcomplex even = p + q;
    const zel_lcomplex odd = rotate<kInverse>(p - q, twiddles[k - 1]);
    out[k] = (even + odd) * 0.5f;
    // The conjugate of even - odd. At k = n / 2 it is the same bin, and this one stands.
    out[n - k] = {(even.re - odd.re) * 0.5f, (odd.im - even.im) * 0.5f};
  }
}

void real_from_pairs(const zel_lcomplex* z, const zel_lcomplex* twiddles, zel_lcomplex* spectrum,
                     int n) {
  spectrum[0] = {z[0].re + z[0].im, 0.0f};
  spectrum[n] = {z[0].re - z[0].im, 0.0f};
  combine_mirrored<false>(z, twiddles, spectrum, n);
}

void pairs_from_real(const zel_lcomplex* spectrum, const zel_lcomplex* twiddles, zel_lcomplex* z,
                     int n) {
  z[0] = {(spectrum[0].re + spectrum[n].re) * 0.5f, (spectrum[0].re - spectrum[n].re) * 0.5f};
  combine_mirrored<true>(spectrum, twiddles, z, n);
}

void multiply(const float* a, const float* b, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = a[i] * b[i];
}

void overlap_add(const float* __restrict frame, const float* __restrict window,
                 float* __restrict sum, int n) {
  for (int i = 0; i < n; ++i) sum[i] += frame[i] * window[i];
}

void overlap_add_envelope(const float* __restrict frame, const float* __restrict window,
                          float* __restrict sum, float* __restrict envelope, int n) {
  for (int i = 0; i < n; ++i) {
    sum[i] += frame[i] * window[i];
    envelope[i] = std::fma(window[i], window[i], envelope[i]);
  }
}

void divide_or_zero(const float* a, const float* b, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = b[i] == 0.0f ? 0.0f : a[i] / b[i];
}

float power(zel_lcomplex a) {
  return std::fma(a.re, a.re, a.im * a.im);
}

void power_spectrum(const zel_lcomplex* spectrum, float* out, int n) {
  for (int k = 0; k < n; ++k) out[k] = power(spectrum[k]);
}

void magnitude(const zel_lcomplex* spectrum, float bias, float* out, int n) {
  for (int k = 0; k < n; ++k) out[k] = std::sqrt(power(spectrum[k]) + bias);
}

void apply_gain(const zel_lcomplex* in, const float* gain, zel_lcomplex* out, int n) {
  for (int k = 0; k < n; ++k) out[k] = in[k] * gain[k];
}

void apply_slope(zel_lcomplex* spectrum, float first, float direction, float step, float level,
                 int n) {
  for (int k = 0; k < n; ++k) {
    const float gain = std::fma(first + static_cast<float>(k) * direction, step, level);
    spectrum[k] = spectrum[k] * gain;
  }
}

void mix(const zel_lcomplex* wet, const zel_lcomplex* dry, float open, float level,
         zel_lcomplex* out, int n) {
  for (int k = 0; k < n; ++k) {
    const zel_lcomplex opened = dry[k] * open;
    out[k] = {std::fma(level, opened.re, wet[k].re), std::fma(level, opened.im, wet[k].im)};
  }
}

float combine(const float* partial) {
  return (partial[0] + partial[2]) + (partial[1] + partial[3]);
}

float sum(const float* a, int n) {
  float partial[4] = {};
  for (int i = 0; i < n; ++i) partial[i % 4] += a[i];
  return combine(partial);
}

float sum_of_squares(const float* a, int n) {
  float partial[4] = {};
  for (int i = 0; i < n; ++i) partial[i % 4] = std::fma(a[i], a[i], partial[i % 4]);
  return combine(partial);
}

constexpr SpectralKernels table() {
  SpectralKernels k = {};
  k.first_stage4 = forward_first<4>;
  k.first_stage8 = forward_first<8>;
  k.stage4 = stage4;
  k.inverse_first_stage4 = inverse_first<4>;
  k.inverse_first_stage8 = inverse_first<8>;
  k.inverse_stage4 = inverse_stage4;
  k.real_from_pairs = real_from_pairs;
  k.pairs_from_real = pairs_from_real;
  k.multiply = multiply;
  k.overlap_add = overlap_add;
  k.overlap_add_envelope = overlap_add_envelope;
  k.divide_or_zero = divide_or_zero;
  k.power_spectrum = power_spectrum;
  k.magnitude = magnitude;
  k.apply_gain = apply_gain;
  k.apply_slope = apply_slope;
  k.mix = mix;
  k.sum = sum;
  k.sum_of_squares = sum_of_squares;
  return k;
}

}  // namespace

const SpectralKernels kScalarSpectral = table();

}  // namespace se
