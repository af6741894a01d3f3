// NEON kernels of transforms, windows, power spectra and gains: four values per step, and the
// scalar kernel for what is left over.
//
// The stages of the transform keep the order of operations of butterflies.h. A complex product is
// four instructions on ARMv7, which rounds the product of vmla before it adds.
#include "kernels/neon.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

inline Complex4 operator*(Complex4 a, float32x4_t b) {
  return {vmulq_f32(a.re, b), vmulq_f32(a.im, b)};
}

// a * w, or a * conjugate(w) in an inverse transform.
template <bool kInverse>
inline Complex4 rotate(Complex4 a, Complex4 w) {
  const float32x4_t re = vmulq_f32(a.re, w.re);
  if (kInverse) {
    const float32x4_t im = vmulq_f32(a.im, w.re);
    return {vmlaq_f32(re, a.im, w.im), vmlsq_f32(im, a.re, w.im)};
  }
  const float32x4_t im = vmulq_f32(a.re, w.im);
  return {vmlsq_f32(re, a.im, w.im), vmlaq_f32(im, a.im, w.re)};
}

// a plus b turned by a quarter in the direction of the transform, and a minus it.
template <bool kInverse>
inline Complex4 plus_turned(Complex4 a, Complex4 b) {
  if (kInverse) return {vsubq_f32(a.re, b.im), vaddq_f32(a.im, b.re)};
  return {vaddq_f32(a.re, b.im), vsubq_f32(a.im, b.re)};
}

template <bool kInverse>
inline Complex4 minus_turned(Complex4 a, Complex4 b) {
  return plus_turned<!kInverse>(a, b);
}

template <bool kInverse>
inline void butterfly4(Complex4* a) {
  const Complex4 sum02 = a[0] + a[2];
  const Complex4 sum13 = a[1] + a[3];
  const Complex4 difference02 = a[0] - a[2];
  const Complex4 difference13 = a[1] - a[3];
  a[0] = sum02 + sum13;
  a[1] = plus_turned<kInverse>(difference02, difference13);
  a[2] = sum02 - sum13;
  a[3] = minus_turned<kInverse>(difference02, difference13);
}

// Four butterflies, whose outputs of lane j go to out[4 j .. 4 j + 3].
template <bool kScaled>
inline void store_transposed(const Complex4* leg, float32x4_t scale, zel_lcomplex* out) {
  for (int half = 0; half < 4; half += 2) {
    float32x4x4_t pair = {{leg[half].re, leg[half].im, leg[half + 1].re, leg[half + 1].im}};
    if (kScaled) {
      for (float32x4_t& v : pair.val) v = vmulq_f32(v, scale);
    }
    vst4q_lane_f32(floats(out + half), pair, 0);
    vst4q_lane_f32(floats(out + half + 4), pair, 1);
    vst4q_lane_f32(floats(out + half + 8), pair, 2);
    vst4q_lane_f32(floats(out + half + 12), pair, 3);
  }
}

template <bool kInverse, bool kScaled>
void first4(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  for (int steps = stride / 4; steps > 0; --steps, in += 4, out += 16) {
    Complex4 leg[4];
    for (int k = 0; k < 4; ++k) leg[k] = load4(in + k * stride);
    butterfly4<kInverse>(leg);
    store_transposed<kScaled>(leg, vdupq_n_f32(scale), out);
  }
}

void first_stage4(const zel_lcomplex* in, zel_lcomplex* out, int stride) {
  if (stride % 4 != 0) return kScalarSpectral.first_stage4(in, out, stride);
  first4<false, false>(in, out, stride, 1.0f);
}

void inverse_first_stage4(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  if (stride % 4 != 0) return kScalarSpectral.inverse_first_stage4(in, out, stride, scale);
  if (scale == 1.0f) {
    first4<true, false>(in, out, stride, scale);
  } else {
    first4<true, true>(in, out, stride, scale);
  }
}

// The frames' transforms have no stage of radix 8.
void first_stage8(const zel_lcomplex* in, zel_lcomplex* out, int stride) {
  kScalarSpectral.first_stage8(in, out, stride);
}

void inverse_first_stage8(const zel_lcomplex* in, zel_lcomplex* out, int stride, float scale) {
  kScalarSpectral.inverse_first_stage8(in, out, stride, scale);
}

// Pointers to the four legs of a butterfly, which lie `step` apart.
template <class Complex>
struct Legs {
  Legs(Complex* first, int step) : leg{first, first + step, first + 2 * step, first + 3 * step} {}
  void advance(int n) {
    for (Complex*& p : leg) p += n;
  }
  Complex* leg[4];
};

template <bool kInverse, bool kScaled>
void later4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out, int stride,
            int span, float scale) {
  Legs<const zel_lcomplex> from(in, stride * span);
  for (int g = 0; g < stride; ++g, out += 4 * span) {
    Legs<const zel_lcomplex> turn(twiddles - span, span);  // leg 0 is not turned
    Legs<zel_lcomplex> to(out, span);
    for (int steps = span / 4; steps > 0; --steps) {
      Complex4 leg[4];
      leg[0] = load4(from.leg[0]);
      for (int k = 1; k < 4; ++k) leg[k] = rotate<kInverse>(load4(from.leg[k]), load4(turn.leg[k]));
      butterfly4<kInverse>(leg);
      for (int k = 0; k < 4; ++k) {
        store4(to.leg[k], kScaled ? leg[k] * vdupq_n_f32(scale) : leg[k]);
      }
      from.advance(4);
      turn.advance(4);
      to.advance(4);
    }
  }
}

void stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out, int stride,
            int span) {
  if (span % 4 != 0) return kScalarSpectral.stage4(in, twiddles, out, stride, span);
  later4<false, false>(in, twiddles, out, stride, span, 1.0f);
}

void inverse_stage4(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                    int stride, int span, float scale) {
  if (span % 4 != 0) return kScalarSpectral.inverse_stage4(in, twiddles, out, stride, span, scale);
  if (scale == 1.0f) {
    later4<true, false>(in, twiddles, out, stride, span, scale);
  } else {
    later4<true, true>(in, twiddles, out, stride, span, scale);
  }
}

inline float32x4_t reversed(float32x4_t a) {
  const float32x4_t pairs = vrev64q_f32(a);
  return vcombine_f32(vget_high_f32(pairs), vget_low_f32(pairs));
}

// Four bins k from below and their mirror images n - k from above, in reversed lanes. The last step
// has bin n / 2 in both; the mirror image is stored last and stands, as in the scalar kernel.
template <bool kInverse>
void combine_mirrored(const zel_lcomplex* in, const zel_lcomplex* twiddles, zel_lcomplex* out,
                      int n) {
  const float32x4_t half = vdupq_n_f32(0.5f);
  const zel_lcomplex* mirrored_in = in + n - 4;
  zel_lcomplex* mirrored_out = out + n - 4;
  ++in;
  ++out;
  for (int steps = n / 8; steps > 0; --steps) {
    const Complex4 p = load4(in);
    const Complex4 mirrored = load4(mirrored_in);
    const float32x4_t q_re = reversed(mirrored.re);
    const float32x4_t q_minus_im = reversed(mirrored.im);
    const Complex4 even = {vaddq_f32(p.re, q_re), vsubq_f32(p.im, q_minus_im)};
    const Complex4 difference = {vsubq_f32(p.re, q_re), vaddq_f32(p.im, q_minus_im)};
    const Complex4 odd = rotate<kInverse>(difference, load4(twiddles));
    store4(out, (even + odd) * half);
    store4(mirrored_out, {reversed(vmulq_f32(vsubq_f32(even.re, odd.re), half)),
                          reversed(vmulq_f32(vsubq_f32(odd.im, even.im), half))});
    in += 4;
    mirrored_in -= 4;
    twiddles += 4;
    out += 4;
    mirrored_out -= 4;
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

void multiply(const float* a, const float* b, float* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, a += 4, b += 4, out += 4) {
    vst1q_f32(out, vmulq_f32(vld1q_f32(a), vld1q_f32(b)));
  }
  kScalarSpectral.multiply(a, b, out, n % 4);
}

void overlap_add(const float* frame, const float* window, float* sum, int n) {
  for (int steps = n / 4; steps > 0; --steps, frame += 4, window += 4, sum += 4) {
    vst1q_f32(sum, vmlaq_f32(vld1q_f32(sum), vld1q_f32(frame), vld1q_f32(window)));
  }
  kScalarSpectral.overlap_add(frame, window, sum, n % 4);
}

void overlap_add_envelope(const float* frame, const float* window, float* sum, float* envelope,
                          int n) {
  for (int steps = n / 4; steps > 0; --steps) {
    const float32x4_t w = vld1q_f32(window);
    vst1q_f32(sum, vmlaq_f32(vld1q_f32(sum), vld1q_f32(frame), w));
    vst1q_f32(envelope, vfmaq_f32(vld1q_f32(envelope), w, w));
    frame += 4;
    window += 4;
    sum += 4;
    envelope += 4;
  }
  kScalarSpectral.overlap_add_envelope(frame, window, sum, envelope, n % 4);
}

void divide_or_zero(const float* a, const float* b, float* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, a += 4, b += 4, out += 4) {
    const float32x4_t divisor = vld1q_f32(b);
    vst1q_f32(out, zero_where(is_zero(divisor), divide(vld1q_f32(a), divisor)));
  }
  kScalarSpectral.divide_or_zero(a, b, out, n % 4);
}

void power_spectrum(const zel_lcomplex* spectrum, float* power, int n) {
  for (int steps = n / 4; steps > 0; --steps, spectrum += 4, power += 4) {
    vst1q_f32(power, fused_power(load4(spectrum)));
  }
  kScalarSpectral.power_spectrum(spectrum, power, n % 4);
}

void magnitude(const zel_lcomplex* spectrum, float bias, float* magnitude, int n) {
  for (int steps = n / 4; steps > 0; --steps, spectrum += 4, magnitude += 4) {
    vst1q_f32(magnitude, square_root(vaddq_f32(fused_power(load4(spectrum)), vdupq_n_f32(bias))));
  }
  kScalarSpectral.magnitude(spectrum, bias, magnitude, n % 4);
}

void apply_gain(const zel_lcomplex* in, const float* gain, zel_lcomplex* out, int n) {
  for (int steps = n / 4; steps > 0; --steps, in += 4, gain += 4, out += 4) {
    store4(out, load4(in) * vld1q_f32(gain));
  }
  kScalarSpectral.apply_gain(in, gain, out, n % 4);
}

// Whole numbers are exact in single precision, so that stepping by 4 is the same as multiplying.
void apply_slope(zel_lcomplex* spectrum, float first, float direction, float step, float level,
                 int n) {
  const float indices[4] = {0.0f, 1.0f, 2.0f, 3.0f};
  float32x4_t at = vmlaq_f32(vdupq_n_f32(first), vld1q_f32(indices), vdupq_n_f32(direction));
  for (int steps = n / 4; steps > 0; --steps, spectrum += 4) {
    const float32x4_t gain = vfmaq_f32(vdupq_n_f32(level), at, vdupq_n_f32(step));
    store4(spectrum, load4(spectrum) * gain);
    at = vaddq_f32(at, vdupq_n_f32(4.0f * direction));
  }
  const int done = n & ~3;
  kScalarSpectral.apply_slope(spectrum, first + static_cast<float>(done) * direction, direction,
                              step, level, n - done);
}

void mix(const zel_lcomplex* wet, const zel_lcomplex* dry, float open, float level,
         zel_lcomplex* out, int n) {
  const float32x4_t levels = vdupq_n_f32(level);
  const float32x4_t open_gain = vdupq_n_f32(open);
  for (int steps = n / 2; steps > 0; --steps, wet += 2, dry += 2, out += 2) {
    const float32x4_t opened = vmulq_f32(vld1q_f32(floats(dry)), open_gain);
    vst1q_f32(floats(out), vfmaq_f32(vld1q_f32(floats(wet)), levels, opened));
  }
  kScalarSpectral.mix(wet, dry, open, level, out, n % 2);
}

float sum(const float* a, int n) {
  float32x4_t partial = vdupq_n_f32(0.0f);
  for (int steps = n / 4; steps > 0; --steps, a += 4) partial = vaddq_f32(partial, vld1q_f32(a));
  return combine(vaddq_f32(partial, load_partial(a, n % 4)));
}

float sum_of_squares(const float* a, int n) {
  float32x4_t partial = vdupq_n_f32(0.0f);
  for (int steps = n / 4; steps > 0; --steps, a += 4) {
    const float32x4_t v = vld1q_f32(a);
    partial = vfmaq_f32(partial, v, v);
  }
  const float32x4_t rest = load_partial(a, n % 4);
  return combine(vfmaq_f32(partial, rest, rest));
}

}  // namespace

void use_neon(SpectralKernels& k) {
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
