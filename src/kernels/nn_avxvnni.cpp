// Denoiser kernels for AVX-VNNI, the multiply-adds of AVX-512 VNNI for CPUs with vectors of 256
// bits: the products of packed weights (split_products.h) and convolutions; everything else stays
// with AVX2.
#include <cstring>

#include "kernels/convolutions_256.h"
#include "kernels/integers_256.h"
#include "kernels/split_products.h"
#include "kernels/variants.h"

namespace se {
namespace {

struct Vector256 {
  using Sums = se::Sums;
  static constexpr int kLanes = se::kLanes;
  static constexpr int kPanelBlocks = 6;

  static Sums load(const std::int32_t* from) {
    return reinterpret_cast<Sums>(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(from)));
  }
  static void store(std::int32_t* to, Sums v) { store_sums(to, as_integers(v)); }
  static __m256i broadcast32(const std::uint8_t* from) { return se::broadcast32(from); }
  static __m256i load_weights(const std::int8_t* w) {
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(w));
  }
  static void add_products(Sums& sums, __m256i x, __m256i weights) {
    sums = reinterpret_cast<Sums>(_mm256_dpbusd_avx_epi32(as_integers(sums), x, weights));
  }

  // Returns whether any of the activations is negative.
  static bool split(const std::int16_t* q, int n, SplitVector& to) {
    __m256i any = _mm256_setzero_si256();
    for (int i = 0; i < n; i += 16) {
      __m256i x;
      if (i + 16 <= n) {
        x = load16(q + i);
      } else {
        alignas(32) std::int16_t last[16] = {};
        std::memcpy(last, q + i, static_cast<std::size_t>(n - i) * sizeof *q);
        x = load16(last);
      }
      any = _mm256_or_si256(any, x);
      const __m256i lows = _mm256_and_si256(x, _mm256_set1_epi16(0xff));
      const __m256i highs = _mm256_srli_epi16(x, 8);
      const __m256i both = _mm256_permute4x64_epi64(_mm256_packus_epi16(lows, highs), 0xd8);
      _mm_store_si128(reinterpret_cast<__m128i*>(to.low + i), _mm256_castsi256_si128(both));
      _mm_store_si128(reinterpret_cast<__m128i*>(to.high + i), _mm256_extracti128_si256(both, 1));
    }
    return _mm256_movemask_epi8(_mm256_srai_epi16(any, 15)) != 0;
  }
};

using Products = SplitProducts<Vector256>;

}  // namespace

void use_avxvnni(NnKernels& k) {
  k.product_order = Products::kOrder;
  k.short_sums = {};
  k.packed_product = Products::packed_product;
  use_convolutions_256(k);
}

}  // namespace se
