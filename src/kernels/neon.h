// What the NEON kernels share: one vocabulary for ARMv7-A and AArch64, in which every function is
// the same operation on both, to the bit. Where ARMv7 lacks a vector instruction (division, square
// root) its scalar unit does the lanes one by one, correctly rounded like the vector unit of
// AArch64; estimates are never used.
//
// A product that is not fused is vmlaq_f32 / vmlsq_f32 when it is added or subtracted right away:
// ARMv7 rounds the product of that instruction first, and on AArch64 compilers make two of it
// (under -ffp-contract=off).
#pragma once

#include <arm_neon.h>

#include <cstdint>

#include "speechenhance/types.h"

namespace se::neon {
namespace {

constexpr std::uint32_t kSignBit = 0x80000000u;

#if defined(__aarch64__)

inline float32x4_t divide(float32x4_t a, float32x4_t b) {
  return vdivq_f32(a, b);
}

inline float32x4_t square_root(float32x4_t a) {
  return vsqrtq_f32(a);
}

inline uint32x4_t greater(float32x4_t a, float32x4_t b) {
  return vcgtq_f32(a, b);
}

inline uint32x4_t at_or_above(float32x4_t a, float32x4_t b) {
  return vcgeq_f32(a, b);
}

inline uint32x4_t is_zero(float32x4_t a) {
  return vceqzq_f32(a);
}

inline int16x8_t widen_low(int8x16_t a) {
  return vmovl_s8(vget_low_s8(a));
}

inline int16x8_t widen_high(int8x16_t a) {
  return vmovl_high_s8(a);
}

// sum + a * b over eight lanes, in pairs.
inline int32x4_t multiply_add(int32x4_t sum, int16x8_t a, int16x8_t b) {
  return vmlal_high_s16(vmlal_s16(sum, vget_low_s16(a), vget_low_s16(b)), a, b);
}

// The totals of four vectors.
inline int32x4_t totals(int32x4_t a, int32x4_t b, int32x4_t c, int32x4_t d) {
  return vpaddq_s32(vpaddq_s32(a, b), vpaddq_s32(c, d));
}

inline bool any(uint32x4_t mask) {
  return vmaxvq_u32(mask) != 0;
}

#else

// The scalar unit sees the lanes of q0 as s0 to s3 and those of q1 as s4 to s7. Written lane by
// lane in C++, compilers carry every lane through a core register.
inline float32x4_t divide(float32x4_t a, float32x4_t b) {
  register float32x4_t quotient __asm__("q0") = a;
  register float32x4_t divisor __asm__("q1") = b;
  __asm__(
      "vdiv.f32 s0, s0, s4\n\t"
      "vdiv.f32 s1, s1, s5\n\t"
      "vdiv.f32 s2, s2, s6\n\t"
      "vdiv.f32 s3, s3, s7"
      : "+w"(quotient)
      : "w"(divisor));
  return quotient;
}

inline float32x4_t square_root(float32x4_t a) {
  register float32x4_t root __asm__("q0") = a;
  __asm__(
      "vsqrt.f32 s0, s0\n\t"
      "vsqrt.f32 s1, s1\n\t"
      "vsqrt.f32 s2, s2\n\t"
      "vsqrt.f32 s3, s3"
      : "+w"(root));
  return root;
}

// GCC takes the intrinsics of these apart into lanes, because the vector unit flushes subnormals
// and it does not know that the scalar unit does so here, too.
inline uint32x4_t greater(float32x4_t a, float32x4_t b) {
  uint32x4_t mask;
  __asm__("vcgt.f32 %q0, %q1, %q2" : "=w"(mask) : "w"(a), "w"(b));
  return mask;
}

inline uint32x4_t at_or_above(float32x4_t a, float32x4_t b) {
  uint32x4_t mask;
  __asm__("vcge.f32 %q0, %q1, %q2" : "=w"(mask) : "w"(a), "w"(b));
  return mask;
}

inline uint32x4_t is_zero(float32x4_t a) {
  uint32x4_t mask;
  __asm__("vceq.f32 %q0, %q1, #0" : "=w"(mask) : "w"(a));
  return mask;
}

inline int16x8_t widen_low(int8x16_t a) {
  return vmovl_s8(vget_low_s8(a));
}

inline int16x8_t widen_high(int8x16_t a) {
  return vmovl_s8(vget_high_s8(a));
}

inline int32x4_t multiply_add(int32x4_t sum, int16x8_t a, int16x8_t b) {
  sum = vmlal_s16(sum, vget_low_s16(a), vget_low_s16(b));
  return vmlal_s16(sum, vget_high_s16(a), vget_high_s16(b));
}

inline int32x4_t totals(int32x4_t a, int32x4_t b, int32x4_t c, int32x4_t d) {
  const auto halves = [](int32x4_t v) { return vadd_s32(vget_low_s32(v), vget_high_s32(v)); };
  return vcombine_s32(vpadd_s32(halves(a), halves(b)), vpadd_s32(halves(c), halves(d)));
}

inline bool any(uint32x4_t mask) {
  const uint32x2_t half = vorr_u32(vget_low_u32(mask), vget_high_u32(mask));
  return vget_lane_u64(vreinterpret_u64_u32(half), 0) != 0;
}

#endif

inline float32x4_t zero_where(uint32x4_t mask, float32x4_t x) {
  return vreinterpretq_f32_u32(vbicq_u32(vreinterpretq_u32_f32(x), mask));
}

// Steps a pointer whose last use was a load. The empty statement hides from the compiler where it
// then stands, so that the step becomes the load's post-increment instead of an addition each time.
template <class T>
inline void step(const T*& p, int n) {
  p += n;
  __asm__("" : "+r"(p));
}

// The lanes added up as partial sums are: (0 + 2) + (1 + 3).
inline float combine(float32x4_t partial) {
  const float32x2_t pairs = vadd_f32(vget_low_f32(partial), vget_high_f32(partial));
  return vget_lane_f32(pairs, 0) + vget_lane_f32(pairs, 1);
}

// The first `n` < 4 values at `x`, zeros behind them; nothing beyond them is read.
inline float32x4_t load_partial(const float* x, int n) {
  float32x4_t v = vdupq_n_f32(0.0f);
  if (n > 0) v = vld1q_lane_f32(x, v, 0);
  if (n > 1) v = vld1q_lane_f32(x + 1, v, 1);
  if (n > 2) v = vld1q_lane_f32(x + 2, v, 2);
  return v;
}

// Four complex values. (The registers of vld2 and vst2 have a type of their own, float32x4x2_t,
// which GCC keeps in memory as soon as anything is computed in it.)
struct Complex4 {
  float32x4_t re;
  float32x4_t im;
};

inline Complex4 operator+(Complex4 a, Complex4 b) {
  return {vaddq_f32(a.re, b.re), vaddq_f32(a.im, b.im)};
}

inline Complex4 operator-(Complex4 a, Complex4 b) {
  return {vsubq_f32(a.re, b.re), vsubq_f32(a.im, b.im)};
}

inline const float* floats(const zel_lcomplex* x) {
  return &x->re;
}

inline float* floats(zel_lcomplex* x) {
  return &x->re;
}

inline Complex4 load4(const zel_lcomplex* x) {
  const float32x4x2_t v = vld2q_f32(floats(x));
  return {v.val[0], v.val[1]};
}

inline void store4(zel_lcomplex* x, Complex4 v) {
  const float32x4x2_t interleaved = {{v.re, v.im}};
  vst2q_f32(floats(x), interleaved);
}

// |x|^2 with the squared real part fused onto the squared imaginary part.
inline float32x4_t fused_power(Complex4 x) {
  return vfmaq_f32(vmulq_f32(x.im, x.im), x.re, x.re);
}

// Four floats for tanh_of (tanh.h).
struct Float4 {
  float32x4_t v;

  static Float4 fill(float x) { return {vdupq_n_f32(x)}; }
};

inline Float4 operator+(Float4 a, Float4 b) {
  return {vaddq_f32(a.v, b.v)};
}

inline Float4 operator-(Float4 a, Float4 b) {
  return {vsubq_f32(a.v, b.v)};
}

inline Float4 operator*(Float4 a, Float4 b) {
  return {vmulq_f32(a.v, b.v)};
}

inline Float4 plus_product(Float4 c, Float4 a, Float4 b) {
  return {vmlaq_f32(c.v, a.v, b.v)};
}

inline Float4 minus_product(Float4 c, Float4 a, Float4 b) {
  return {vmlsq_f32(c.v, a.v, b.v)};
}

inline Float4 magnitude(Float4 a) {
  return {vabsq_f32(a.v)};
}

inline Float4 with_sign_of(Float4 a, Float4 x) {
  return {vbslq_f32(vdupq_n_u32(kSignBit), x.v, a.v)};
}

inline Float4 at_most(Float4 a, Float4 limit) {
  return {vminq_f32(a.v, limit.v)};
}

inline Float4 shifted_power(Float4 s) {
  const uint32x4_t exponent = vshlq_n_u32(vreinterpretq_u32_f32(s.v), 23);
  return {vreinterpretq_f32_u32(vaddq_u32(exponent, vdupq_n_u32(0x3f800000u)))};
}

// For values without sign, floats and their bits have the same order.
inline Float4 below(Float4 a, Float4 limit, Float4 yes, Float4 no) {
  const uint32x4_t is_below = vcltq_u32(vreinterpretq_u32_f32(a.v), vreinterpretq_u32_f32(limit.v));
  return {vbslq_f32(is_below, yes.v, no.v)};
}

}  // namespace
}  // namespace se::neon
