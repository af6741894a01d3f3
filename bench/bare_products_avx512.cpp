// The products alone, as nn_avx512.cpp does them.
#include <immintrin.h>

#include "bare_products.h"
#include "kernels/unrolled.h"
#include "lane_total.h"

namespace se_bench {
namespace {

using se::unrolled;

// A type of its own and a register: the compiler would copy sums, and merge those that are equal.
using Sums = int __attribute__((vector_size(64)));

void keep(Sums& sum) {
  __asm__("" : "+v"(sum));
}

__m512i as_integers(Sums s) {
  return reinterpret_cast<__m512i>(s);
}

// Two byte products for every vector of weights, one for each byte of the activations.
std::int32_t dense(const std::int8_t* weights, const ProductLayer& layer) {
  constexpr int kVectors = 8;
  const __m512i low = _mm512_set1_epi32(0x03010201), high = _mm512_set1_epi32(0x01020103);
  Sums lows[kVectors], highs[kVectors];
  unrolled<kVectors>([&](int v) SE_INLINE { lows[v] = highs[v] = Sums{}; });
  for (std::int64_t i = 0; i < layer.bytes; i += kVectors * 64) {
    unrolled<kVectors>([&](int v) SE_INLINE {
      const __m512i w = _mm512_load_si512(weights + i + v * 64);
      lows[v] = reinterpret_cast<Sums>(_mm512_dpbusd_epi32(as_integers(lows[v]), low, w));
      highs[v] = reinterpret_cast<Sums>(_mm512_dpbusd_epi32(as_integers(highs[v]), high, w));
    });
  }
  Sums all = {};
  unrolled<kVectors>([&](int v) SE_INLINE { all += lows[v] + highs[v]; });
  return lane_total(all);
}

// Weights widen once for sixteen positions.
std::int32_t convolution(const std::int8_t* weights, const ProductLayer& layer) {
  constexpr int kPositions = 16;
  const __m512i pattern = _mm512_set1_epi32(0x00030201);
  Sums sum[kPositions];
  unrolled<kPositions>([&](int p) SE_INLINE { sum[p] = Sums{}; });
  for (int p = 0; p < layer.positions; p += kPositions) {
    for (std::int64_t i = 0; i < layer.bytes; i += 32) {
      const auto* const from = reinterpret_cast<const __m256i*>(weights + i);
      const __m512i w = _mm512_cvtepi8_epi16(_mm256_load_si256(from));
      unrolled<kPositions>([&](int s) SE_INLINE {
        sum[s] = reinterpret_cast<Sums>(_mm512_dpwssd_epi32(as_integers(sum[s]), w, pattern));
        keep(sum[s]);
      });
    }
  }
  Sums all = {};
  unrolled<kPositions>([&](int s) SE_INLINE { all += sum[s]; });
  return lane_total(all);
}

}  // namespace

const ProductPasses kPassesAvx512 = {"avx512", dense, convolution};

}  // namespace se_bench
