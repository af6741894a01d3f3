// What the AVX2 kernels share: vectors of eight floats, whole or only their first lanes.
//
// Everything here has internal linkage: an inline function that other files shared could be linked
// in the copy that only this instruction set runs.
#pragma once

#include <immintrin.h>

#include "speechenhance/types.h"

namespace se {
namespace {

inline __m256 fill(float x) {
  return _mm256_set1_ps(x);
}

inline __m256 greater(__m256 a, __m256 b) {
  return _mm256_cmp_ps(a, b, _CMP_GT_OQ);
}

// Four complex numbers, real and imaginary parts by turns.
inline __m256 load4(const zel_lcomplex* p) {
  return _mm256_loadu_ps(&p->re);
}

inline void store4(zel_lcomplex* p, __m256 v) {
  _mm256_storeu_ps(&p->re, v);
}

// Real and imaginary parts exchanged.
inline __m256 swapped(__m256 v) {
  return _mm256_permute_ps(v, 0xb1);
}

// Eight complex numbers as their parts. The numbers are in the order 0 1 4 5 2 3 6 7, which the
// shuffles within halves give for free; `in_order` undoes it for what is computed from them.
struct Parts {
  __m256 re, im;
};

inline Parts split_parts(__m256 low, __m256 high) {
  return {_mm256_shuffle_ps(low, high, 0x88), _mm256_shuffle_ps(low, high, 0xdd)};
}

inline __m256 in_order(__m256 v) {
  return _mm256_castpd_ps(_mm256_permute4x64_pd(_mm256_castps_pd(v), 0xd8));
}

// Every value of four twice: the factor of both parts of a complex number.
inline __m256 each_twice(__m128 v) {
  return _mm256_permutevar8x32_ps(_mm256_castps128_ps256(v),
                                  _mm256_setr_epi32(0, 0, 1, 1, 2, 2, 3, 3));
}

// All eight lanes.
struct Whole {
  __m256 load(const float* p) const { return _mm256_loadu_ps(p); }
  void store(float* p, __m256 v) const { _mm256_storeu_ps(p, v); }
  __m256 load_each_twice(const float* p) const { return each_twice(_mm_loadu_ps(p)); }
  Parts load_parts(const zel_lcomplex* p) const {
    return split_parts(_mm256_loadu_ps(&p[0].re), _mm256_loadu_ps(&p[4].re));
  }
};

// The first `count` lanes, 1..7. The others read as 0; memory behind them is not touched.
class First {
 public:
  explicit First(int count) : count_(count) {}
  __m256 load(const float* p) const { return _mm256_maskload_ps(p, lanes(count_)); }
  void store(float* p, __m256 v) const { _mm256_maskstore_ps(p, lanes(count_), v); }
  __m256 load_each_twice(const float* p) const {
    return each_twice(_mm_maskload_ps(p, _mm256_castsi256_si128(lanes(count_ / 2))));
  }
  Parts load_parts(const zel_lcomplex* p) const {
    const __m256 low = _mm256_maskload_ps(&p[0].re, lanes(2 * count_));
    const __m256 high =
        count_ > 4 ? _mm256_maskload_ps(&p[4].re, lanes(2 * count_ - 8)) : _mm256_setzero_ps();
    return split_parts(low, high);
  }

 private:
  static __m256i lanes(int count) {
    return _mm256_cmpgt_epi32(_mm256_set1_epi32(count), _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
  }

  int count_;
};

// body(i, lanes) for i = 0, 8, 16, ... < n, the last time with the lanes that are left.
template <class Body>
inline void by_eights(int n, Body body) {
  int i = 0;
  for (; i + 8 <= n; i += 8) body(i, Whole());
  if (i < n) body(i, First(n - i));
}

// Eight floats for tanh_of (tanh.h).
struct Float8 {
  __m256 v;

  static Float8 fill(float x) { return {_mm256_set1_ps(x)}; }
};

inline Float8 operator+(Float8 a, Float8 b) {
  return {_mm256_add_ps(a.v, b.v)};
}

inline Float8 operator-(Float8 a, Float8 b) {
  return {_mm256_sub_ps(a.v, b.v)};
}

inline Float8 operator*(Float8 a, Float8 b) {
  return {_mm256_mul_ps(a.v, b.v)};
}

inline Float8 plus_product(Float8 c, Float8 a, Float8 b) {
  return c + a * b;
}

inline Float8 minus_product(Float8 c, Float8 a, Float8 b) {
  return c - a * b;
}

inline Float8 magnitude(Float8 a) {
  return {_mm256_andnot_ps(fill(-0.0f), a.v)};
}

inline Float8 with_sign_of(Float8 a, Float8 x) {
  return {_mm256_or_ps(a.v, _mm256_and_ps(fill(-0.0f), x.v))};
}

inline Float8 at_most(Float8 a, Float8 limit) {
  return {_mm256_min_ps(limit.v, a.v)};  // the second operand wins where one is NaN
}

inline Float8 shifted_power(Float8 s) {
  const __m256i exponent = _mm256_slli_epi32(_mm256_castps_si256(s.v), 23);
  return {_mm256_castsi256_ps(_mm256_add_epi32(exponent, _mm256_set1_epi32(0x3f800000)))};
}

inline Float8 below(Float8 a, Float8 limit, Float8 yes, Float8 no) {
  return {_mm256_blendv_ps(no.v, yes.v, greater(limit.v, a.v))};
}

}  // namespace
}  // namespace se
