// What the kernels for WebAssembly's 128-bit vectors share. Everything has internal linkage.
//
// WebAssembly has no fused multiply-add. A product of two singles is exact in double precision, so
// that only the sum is rounded twice: to double, then to single. That goes wrong only where the
// first rounding ends halfway between two singles; then, once in millions of values, the C
// library's fmaf() does the lanes. Subnormals are not flushed: there is no such mode.
#pragma once

#include <wasm_simd128.h>

#include <cmath>
#include <cstdint>

#include "speechenhance/types.h"

namespace se::wasm128 {
namespace {

// Where the block behind the first `done` of `count` things starts. The last block overlaps the one
// before it rather than being short; it then computes the same values again.
inline int block_start(int done, int count, int block) {
  return done + block <= count ? done : count - block;
}

__attribute__((noinline)) inline v128_t fused_lanes(v128_t a, v128_t b, v128_t c) {
  float x[4], y[4], z[4];
  wasm_v128_store(x, a);
  wasm_v128_store(y, b);
  wasm_v128_store(z, c);
  for (int i = 0; i < 4; ++i) z[i] = std::fma(x[i], y[i], z[i]);
  return wasm_v128_load(z);
}

inline v128_t is_halfway(v128_t sum) {
  constexpr std::int64_t kBelowSingle = (1 << 29) - 1, kHalf = 1 << 28;
  return wasm_i64x2_eq(wasm_v128_and(sum, wasm_i64x2_splat(kBelowSingle)), wasm_i64x2_splat(kHalf));
}

inline v128_t upper(v128_t a) {
  return wasm_i32x4_shuffle(a, a, 2, 3, 2, 3);
}

// a * b + c, rounded once.
inline v128_t fused(v128_t a, v128_t b, v128_t c) {
  const auto sum = [](v128_t x, v128_t y, v128_t z) {
    return wasm_f64x2_add(
        wasm_f64x2_mul(wasm_f64x2_promote_low_f32x4(x), wasm_f64x2_promote_low_f32x4(y)),
        wasm_f64x2_promote_low_f32x4(z));
  };
  const v128_t low = sum(a, b, c);
  const v128_t high = sum(upper(a), upper(b), upper(c));
  if (wasm_v128_any_true(wasm_v128_or(is_halfway(low), is_halfway(high)))) {
    return fused_lanes(a, b, c);
  }
  return wasm_i32x4_shuffle(wasm_f32x4_demote_f64x2_zero(low), wasm_f32x4_demote_f64x2_zero(high),
                            0, 1, 4, 5);
}

// The lanes added up as partial sums are: (0 + 2) + (1 + 3).
inline float combine(v128_t partial) {
  const v128_t pairs = wasm_f32x4_add(partial, upper(partial));
  return wasm_f32x4_extract_lane(pairs, 0) + wasm_f32x4_extract_lane(pairs, 1);
}

// Four complex values.
struct Complex4 {
  v128_t re;
  v128_t im;
};

inline Complex4 load4(const zel_lcomplex* x) {
  const v128_t low = wasm_v128_load(x), high = wasm_v128_load(x + 2);
  return {wasm_i32x4_shuffle(low, high, 0, 2, 4, 6), wasm_i32x4_shuffle(low, high, 1, 3, 5, 7)};
}

// Four floats for tanh_of (tanh.h).
struct Float4 {
  v128_t v;

  static Float4 fill(float x) { return {wasm_f32x4_splat(x)}; }
};

inline Float4 operator+(Float4 a, Float4 b) {
  return {wasm_f32x4_add(a.v, b.v)};
}

inline Float4 operator-(Float4 a, Float4 b) {
  return {wasm_f32x4_sub(a.v, b.v)};
}

inline Float4 operator*(Float4 a, Float4 b) {
  return {wasm_f32x4_mul(a.v, b.v)};
}

inline Float4 plus_product(Float4 c, Float4 a, Float4 b) {
  return c + a * b;
}

inline Float4 minus_product(Float4 c, Float4 a, Float4 b) {
  return c - a * b;
}

inline Float4 magnitude(Float4 a) {
  return {wasm_f32x4_abs(a.v)};
}

inline v128_t with_sign_of(v128_t a, v128_t x) {
  return wasm_v128_bitselect(x, a, wasm_i32x4_splat(INT32_MIN));
}

inline Float4 with_sign_of(Float4 a, Float4 x) {
  return {with_sign_of(a.v, x.v)};
}

inline Float4 at_most(Float4 a, Float4 limit) {
  return {wasm_f32x4_pmin(a.v, limit.v)};
}

inline Float4 shifted_power(Float4 s) {
  return {wasm_i32x4_add(wasm_i32x4_shl(s.v, 23), wasm_i32x4_splat(0x3f800000))};
}

inline Float4 below(Float4 a, Float4 limit, Float4 yes, Float4 no) {
  return {wasm_v128_bitselect(yes.v, no.v, wasm_f32x4_lt(a.v, limit.v))};
}

}  // namespace
}  // namespace se::wasm128
