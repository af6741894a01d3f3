// The products alone, as nn_packed_avx2.cpp does them where activations split.
#include <immintrin.h>

#include "bare_products.h"
#include "kernels/unrolled.h"
#include "lane_total.h"

namespace se_bench {
namespace {

using se::unrolled;

// A type of its own and a register: the compiler would copy sums, and merge those that are equal.
using Sums = int __attribute__((vector_size(32)));

void add(Sums& sum, __m256i products) {
  sum += reinterpret_cast<Sums>(products);
  __asm__("" : "+x"(sum));
}

__m256i pair_of_products(__m256i pattern, const __m256i* w) {
  return _mm256_add_epi16(_mm256_maddubs_epi16(pattern, w[0]), _mm256_maddubs_epi16(pattern, w[1]));
}

// Two vectors of weights by both parts of the activations: four byte products, paired in 16 bits.
std::int32_t dense(const std::int8_t* weights, const ProductLayer& layer) {
  constexpr int kPairs = 8;
  const __m256i one = _mm256_set1_epi16(1), high_unit = _mm256_set1_epi16(64);
  const __m256i low = _mm256_set1_epi32(0x03010201), high = _mm256_set1_epi32(0x01020103);
  Sums sum[kPairs];
  unrolled<kPairs>([&](int v) SE_INLINE { sum[v] = Sums{}; });
  for (std::int64_t i = 0; i < layer.bytes; i += kPairs * 64) {
    unrolled<kPairs>([&](int v) SE_INLINE {
      const auto* const w = reinterpret_cast<const __m256i*>(weights + i + v * 64);
      add(sum[v], _mm256_madd_epi16(pair_of_products(low, w), one));
      add(sum[v], _mm256_madd_epi16(pair_of_products(high, w), high_unit));
    });
  }
  Sums all = {};
  unrolled<kPairs>([&](int v) SE_INLINE { all += sum[v]; });
  return lane_total(all);
}

// Weights widen once for eight positions.
std::int32_t convolution(const std::int8_t* weights, const ProductLayer& layer) {
  constexpr int kPositions = 8;
  Sums sum[kPositions];
  unrolled<kPositions>([&](int p) SE_INLINE { sum[p] = Sums{}; });
  for (int p = 0; p < layer.positions; p += kPositions) {
    for (std::int64_t i = 0; i < layer.bytes; i += 16) {
      const auto* const from = reinterpret_cast<const __m128i*>(weights + i);
      const __m256i w = _mm256_cvtepi8_epi16(_mm_load_si128(from));
      __m256i pattern = _mm256_set1_epi32(0x00030201);
      unrolled<kPositions>([&](int s) SE_INLINE {
        __asm__("" : "+x"(pattern));  // so that every position has a product of its own
        add(sum[s], _mm256_madd_epi16(w, pattern));
      });
    }
  }
  Sums all = {};
  unrolled<kPositions>([&](int s) SE_INLINE { all += sum[s]; });
  return lane_total(all);
}

}  // namespace

const ProductPasses kPassesAvx2 = {"avx2", dense, convolution};

}  // namespace se_bench
