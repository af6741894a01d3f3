// What the integer products with vectors of 256 bits share. Compiled with AVX-VNNI, products and
// sums take one instruction.
//
// Everything here has internal linkage: see kernels/avx2.h.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace se {
namespace {

constexpr int kLanes = 8;

inline __m256i widen16(const std::int8_t* w) {
  return _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(w)));
}

inline __m256i load16(const std::int16_t* q) {
  return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q));
}

template <class T>
__m256i broadcast32(const T* from) {
  std::int32_t bits;
  std::memcpy(&bits, from, sizeof bits);
  return _mm256_set1_epi32(bits);
}

// Eight 32-bit sums. As a type of its own, since GCC copies sums that pass from one view of a
// vector to another.
using Sums = unsigned __attribute__((vector_size(32)));

inline __m256i as_integers(Sums s) {
  return reinterpret_cast<__m256i>(s);
}

inline void store_sums(std::int32_t* to, __m256i v) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), v);
}

// Adds the products of pairs of 16-bit values. The sum stays in its register: the compiler would
// rather form all products of a step before it adds any, for which there are not enough.
inline void add_product(Sums& sum, __m256i w, __m256i x) {
#ifdef __AVXVNNI__
  sum = reinterpret_cast<Sums>(_mm256_dpwssd_avx_epi32(as_integers(sum), w, x));
#else
  sum += reinterpret_cast<Sums>(_mm256_madd_epi16(w, x));
  __asm__("" : "+x"(sum));
#endif
}

// The sums over the lanes of eight vectors.
inline __m256i lane_sums(Sums a, Sums b, Sums c, Sums d, Sums e, Sums f, Sums g, Sums h) {
  const auto pairs = [](Sums v, Sums w) {
    return _mm256_hadd_epi32(reinterpret_cast<__m256i>(v), reinterpret_cast<__m256i>(w));
  };
  const __m256i low = _mm256_hadd_epi32(pairs(a, b), pairs(c, d));
  const __m256i high = _mm256_hadd_epi32(pairs(e, f), pairs(g, h));
  return _mm256_add_epi32(_mm256_permute2x128_si256(low, high, 0x20),
                          _mm256_permute2x128_si256(low, high, 0x31));
}

}  // namespace
}  // namespace se
