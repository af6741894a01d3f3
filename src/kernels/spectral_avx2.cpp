// Spectral kernels for AVX2.
//
// A vector holds four complex numbers, real and imaginary parts by turns. The product of two is
// their real parts' and imaginary parts' share, added on the odd lanes and subtracted on the even
// ones (or the other way round): one instruction exists for the first, and the second is a fused
// one with a factor of 1, which rounds once, as the addition alone would. Four butterflies run side
// by side. Transforms with fewer neighbours than that, none of the engine's, run in scalar code.
#include "kernels/avx2.h"
#include "kernels/spectral_kernels.h"
#include "kernels/variants.h"

namespace se {
namespace {

// (a.re + b.re, a.im - b.im)
__m256 add_subtract(__m256 a, __m256 b) {
  return _mm256_fmsubadd_ps(a, _mm256_set1_ps(1.0f), b);
}

// (a.re - b.re, a.im + b.im)
__m256 subtract_add(__m256 a, __m256 b) {
  return _mm256_addsub_ps(a, b);
}

// a * w, or a * conjugate(w) in an inverse transform.
template <bool kInverse>
__m256 rotate(__m256 a, __m256 w) {
  const __m256 with_re = _mm256_mul_ps(_mm256_moveldup_ps(a), w);
  const __m256 with_im = _mm256_mul_ps(_mm256_movehdup_ps(a), swapped(w));
  return kInverse ? add_subtract(with_im, with_re) : subtract_add(with_re, with_im);
}

// Four numbers of each of four transforms; the k-th of each becomes a vector of its own, and back.
void transpose(__m256* v) {
  const auto pairs = [](__m256 a, __m256 b, bool high) {
    const __m256d x = _mm256_castps_pd(a), y = _mm256_castps_pd(b);
    return _mm256_castpd_ps(high ? _mm256_unpackhi_pd(x, y) : _mm256_unpacklo_pd(x, y));
  };
  const __m256 a = pairs(v[0], v[1], false), b = pairs(v[0], v[1], true);
  const __m256 c = pairs(v[2], v[3], false), d = pairs(v[2], v[3], true);
  v[0] = _mm256_permute2f128_ps(a, c, 0x20);
  v[1] = _mm256_permute2f128_ps(b, d, 0x20);
  v[2] = _mm256_permute2f128_ps(a, c, 0x31);
  v[3] = _mm256_permute2f128_ps(b, d, 0x31);
}

template <bool kInverse>
void butterflies4(__m256* a) {
  const __m256 sum02 = _mm256_add_ps(a[0], a[2]);
  const __m256 sum13 = _mm256_add_ps(a[1], a[3]);
  const __m256 difference02 = _mm256_sub_ps(a[0], a[2]);
  const __m256 turned13 = swapped(_mm256_sub_ps(a[1], a[3]));  // but for a sign
  a[0] = _mm256_add_ps(sum02, sum13);
  a[2] = _mm256_sub_ps(sum02, sum13);
  a[1] = kInverse ? subtract_add(difference02, turned13) : add_subtract(difference02, turned13);
  a[3] = kInverse ? add_subtract(difference02, turned13) : subtract_add(difference02, turned13);
}

template <bool kScaled>
void scale_all(__m256* a, float scale) {
  if (!kScaled) return;
  for (int k = 0; k < 4; ++k) a[k] = _mm256_mul_ps(a[k], _mm256_set1_ps(scale));
}

template <bool kInverse, bool kScaled>
void first_stage4_by_fours(const zel_lcomplex* __restrict in, zel_lcomplex* __restrict out,
                           int stride, float scale) {
  for (int g = 0; g < stride; g += 4) {
    __m256 leg[4];
    for (int k = 0; k < 4; ++k) leg[k] = load4(in + k * stride + g);
    butterflies4<kInverse>(leg);
    scale_all<kScaled>(leg, scale);
    transpose(leg);
    for (int k = 0; k < 4; ++k) store4(out + (g + k) * 4, leg[k]);
  }
}

template <bool kInverse, bool kScaled>
void stage4_by_fours(const zel_lcomplex* __restrict in, const zel_lcomplex* __restrict twiddles,
                     zel_lcomplex* __restrict out, int stride, int span, float scale) {
  const std::ptrdiff_t quarter = static_cast<std::ptrdiff_t>(stride) * span;
  for (int g = 0; g < stride; ++g, in += span, out += 4 * span) {
    for (int j = 0; j < span; j += 4) {
      __m256 leg[4] = {load4(in + j)};
      for (int k = 1; k < 4; ++k) {
        leg[k] =
            rotate<kInverse>(load4(in + k * quarter + j), load4(twiddles + (k - 1) * span + j));
      }
      butterflies4<kInverse>(leg);
      scale_all<kScaled>(leg, scale);
      for (int k = 0; k < 4; ++k) store4(out + k * span + j, leg[k]);
    }
  }
}

void first_stage4(const zel_lcomplex* in, zel_lcomplex* out, int stride) {
  if (stride % 4 != 0) return kScalarSpectral.first_stage4(in, out, stride);
  first_stage4_by_fours<false, false>(in, out, stride, 1.0f);
}

void inverse_first_stage4(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  if (stride % 4 != 0) return kScalarSpectral.inverse_first_stage4(in, out, stride, scale);
  if (scale == 1.0f) return first_stage4_by_fours<true, false>(in, out, stride, scale);
  first_stage4_by_fours<true, true>(in, out, stride, scale);
}

void stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out, int stride,
            int span) {
  if (span % 4 != 0) return kScalarSpectral.stage4(in, twiddles, out, stride, span);
  stage4_by_fours<false, false>(in, twiddles, out, stride, span, 1.0f);
}

void inverse_stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                    int stride, int span, float scale) {
  if (span % 4 != 0) return kScalarSpectral.inverse_stage4(in, twiddles, out, stride, span, scale);
  if (scale == 1.0f) return stage4_by_fours<true, false>(in, twiddles, out, stride, span, scale);
  stage4_by_fours<true, true>(in, twiddles, out, stride, span, scale);
}

// A first stage of radix 8 opens transforms of 2 * 4^k points only.
void first_stage8(const zel_lcomplex* in, zel_lcomplex* out, int stride) {
  kScalarSpectral.first_stage8(in, out, stride);
}

void inverse_first_stage8(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  kScalarSpectral.inverse_first_stage8(in, out, stride, scale);
}

// Bins k .. k + 3 and their mirror images. At k + 3 = n / 2 the last of both is the same bin, and
// the image, written later, stands.
template <bool kInverse>
void combine_mirrored(const zel_lcomplex* __restrict in, const zel_lcomplex* __restrict twiddles,
                      zel_lcomplex* __restrict out, int n) {
  const __m256 half = _mm256_set1_ps(0.5f);
  const __m256 conjugating = _mm256_setr_ps(1, -1, 1, -1, 1, -1, 1, -1);
  const auto reversed = [](__m256 v) {
    return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(v), 0x1b));
  };
  for (int k = 1; k <= n / 2; k += 4) {
    const __m256 p = load4(in + k);
    const __m256 q = reversed(load4(in + n - k - 3));  // not conjugated yet
    const __m256 even = add_subtract(p, q);
    const __m256 odd = rotate<kInverse>(subtract_add(p, q), load4(twiddles + k - 1));
    const __m256 image = _mm256_fmaddsub_ps(even, conjugating, odd);  // conjugate(even - odd)
    store4(out + k, _mm256_mul_ps(_mm256_add_ps(even, odd), half));
    store4(out + n - k - 3, reversed(_mm256_mul_ps(image, half)));
  }
}

void real_from_pairs(const zel_lcomplex* z, const zel_lcomplex* twiddles, zel_lcomplex* spectrum,
                     int n) {
  if (n % 8 != 0) return kScalarSpectral.real_from_pairs(z, twiddles, spectrum, n);
  spectrum[0] = {z[0].re + z[0].im, 0.0f};
  spectrum[n] = {z[0].re - z[0].im, 0.0f};
  combine_mirrored<false>(z, twiddles, spectrum, n);
}

void pairs_from_real(const zel_lcomplex* spectrum, const zel_lcomplex* twiddles, zel_lcomplex* z,
                     int n) {
  if (n % 8 != 0) return kScalarSpectral.pairs_from_real(spectrum, twiddles, z, n);
  z[0] = {(spectrum[0].re + spectrum[n].re) * 0.5f, (spectrum[0].re - spectrum[n].re) * 0.5f};
  combine_mirrored<true>(spectrum, twiddles, z, n);
}

// ---- Windows and overlap-add --------------------------------------------------------------------

void multiply(const float* a, const float* b, float* out, int n) {
  by_eights(n, [&](int i, auto lanes) {
    lanes.store(out + i, _mm256_mul_ps(lanes.load(a + i), lanes.load(b + i)));
  });
}

void overlap_add(const float* frame, const float* window, float* sum, int n) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 windowed = _mm256_mul_ps(lanes.load(frame + i), lanes.load(window + i));
    lanes.store(sum + i, _mm256_add_ps(lanes.load(sum + i), windowed));
  });
}

void overlap_add_envelope(const float* frame, const float* window, float* sum, float* envelope,
                          int n) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 w = lanes.load(window + i);
    const __m256 windowed = _mm256_mul_ps(lanes.load(frame + i), w);
    lanes.store(sum + i, _mm256_add_ps(lanes.load(sum + i), windowed));
    lanes.store(envelope + i, _mm256_fmadd_ps(w, w, lanes.load(envelope + i)));
  });
}

void divide_or_zero(const float* a, const float* b, float* out, int n) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 divisor = lanes.load(b + i);
    const __m256 is_zero = _mm256_cmp_ps(divisor, _mm256_setzero_ps(), _CMP_EQ_OQ);
    lanes.store(out + i, _mm256_andnot_ps(is_zero, _mm256_div_ps(lanes.load(a + i), divisor)));
  });
}

// ---- Spectra ------------------------------------------------------------------------------------

__m256 power(const Parts& x) {
  return _mm256_fmadd_ps(x.re, x.re, _mm256_mul_ps(x.im, x.im));
}

void power_spectrum(const zel_lcomplex* spectrum, float* out, int n) {
  by_eights(n, [&](int i, auto lanes) {
    lanes.store(out + i, in_order(power(lanes.load_parts(spectrum + i))));
  });
}

void magnitude(const zel_lcomplex* spectrum, float bias, float* out, int n) {
  by_eights(n, [&](int i, auto lanes) {
    const __m256 biased =
        _mm256_add_ps(power(lanes.load_parts(spectrum + i)), _mm256_set1_ps(bias));
    lanes.store(out + i, in_order(_mm256_sqrt_ps(biased)));
  });
}

void apply_gain(const zel_lcomplex* in, const float* gain, zel_lcomplex* out, int n) {
  by_eights(2 * n, [&](int i, auto lanes) {
    lanes.store(&out->re + i,
                _mm256_mul_ps(lanes.load(&in->re + i), lanes.load_each_twice(gain + i / 2)));
  });
}

// Whole numbers are exact in single precision, so that stepping by 4 is the same as multiplying.
void apply_slope(zel_lcomplex* spectrum, float first, float direction, float step, float level,
                 int n) {
  const __m256 indices = _mm256_setr_ps(0, 0, 1, 1, 2, 2, 3, 3);
  __m256 at =
      _mm256_add_ps(_mm256_set1_ps(first), _mm256_mul_ps(indices, _mm256_set1_ps(direction)));
  by_eights(2 * n, [&](int i, auto lanes) {
    const __m256 gain = _mm256_fmadd_ps(at, _mm256_set1_ps(step), _mm256_set1_ps(level));
    lanes.store(&spectrum->re + i, _mm256_mul_ps(lanes.load(&spectrum->re + i), gain));
    at = _mm256_add_ps(at, _mm256_set1_ps(4.0f * direction));
  });
}

void mix(const zel_lcomplex* wet, const zel_lcomplex* dry, float open, float level,
         zel_lcomplex* out, int n) {
  by_eights(2 * n, [&](int i, auto lanes) {
    const __m256 opened = _mm256_mul_ps(lanes.load(&dry->re + i), fill(open));
    lanes.store(&out->re + i, _mm256_fmadd_ps(fill(level), opened, lanes.load(&wet->re + i)));
  });
}

// ---- Sums ---------------------------------------------------------------------------------------

// Four partial sums over the terms that `add` adds to them, four at a time and then the rest.
template <class Add>
float sum_by_fours(const float* a, int n, Add add) {
  __m128 sum = _mm_setzero_ps();
  int i = 0;
  for (; i + 4 <= n; i += 4) sum = add(sum, _mm_loadu_ps(a + i));
  if (i < n) {
    const __m128i lanes = _mm_cmpgt_epi32(_mm_set1_epi32(n - i), _mm_setr_epi32(0, 1, 2, 3));
    // A sum that gets no term keeps its sign of zero, too.
    const __m128 with_rest = add(sum, _mm_maskload_ps(a + i, lanes));
    sum = _mm_blendv_ps(sum, with_rest, _mm_castsi128_ps(lanes));
  }
  const __m128 pairs = _mm_add_ps(sum, _mm_movehl_ps(sum, sum));
  return _mm_cvtss_f32(_mm_add_ss(pairs, _mm_movehdup_ps(pairs)));
}

float sum(const float* a, int n) {
  return sum_by_fours(a, n, [](__m128 s, __m128 x) { return _mm_add_ps(s, x); });
}

float sum_of_squares(const float* a, int n) {
  return sum_by_fours(a, n, [](__m128 s, __m128 x) { return _mm_fmadd_ps(x, x, s); });
}

}  // namespace

void use_avx2(SpectralKernels& k) {
  k.first_stage4 = first_stage4;
  k.first_stage8 = first_stage8;
  k.stage4 = stage4;
  k.inverse_first_stage4 = inverse_first_stage4;
  k.inverse_first_stage8 = inverse_first_stage8;
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
}

}  // namespace se
