// What the AVX2 kernels share: vectors of eight floats, whole or only their first lanes.
//
// Everything here has internal linkage: an inline function that other files shared could be linked
// in the copy that only this instruction set runs.
#pragma once

#include <immintrin.h>

#include "speechenhance/types.h"

namespace se {
namespace {

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

}  // namespace
}  // namespace se
