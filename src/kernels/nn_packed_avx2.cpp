// Products of packed weights for AVX2: eight rows in the lanes of a vector, so that nothing is left
// to add across lanes.
//
// The activations of a GRU's state and of what follows it lie within +-1, -2048 to 2048 in their
// fixed point. Such values split into six low bits and a high part from 0 to 64 (32 stands for 0).
// The byte product of a part with two weights fits 16 bits, so that vpmaddubsw cannot saturate, and
// so does the sum over twenty columns nearly everywhere; packing finds out where. A step takes
// twenty columns of eight rows with ten byte products; where the sums might not fit, eight columns
// with four. For any other activations the weights widen, as in the products of plain rows.
#include <cstring>
#include <type_traits>

#include "kernels/integers_256.h"
#include "kernels/packing.h"
#include "kernels/unrolled.h"
#include "kernels/variants.h"

namespace se {
namespace {

__m256i broadcast64(const std::int16_t* from) {
  std::int64_t bits;
  std::memcpy(&bits, from, sizeof bits);
  return _mm256_set1_epi64x(bits);
}

// The sum stays in its register: the compiler would rather add up all products of a step first, for
// which there are not enough.
void add(Sums& sum, __m256i products) {
  __asm__("vpaddd %1, %0, %0" : "+x"(sum) : "x"(products));
}

// Adds the products of bytes to 16-bit sums, likewise.
void add_bytes(__m256i& sums, __m256i x, const __m256i& weights) {
  const __m256i products = _mm256_maddubs_epi16(x, weights);
  __asm__("vpaddw %1, %0, %0" : "+x"(sums) : "x"(products));
}

// The same number in all lanes.
struct alignas(32) Unit {
  std::int16_t lanes[16];
};

constexpr Unit unit(int value) {
  Unit u = {};
  for (std::int16_t& lane : u.lanes) lane = static_cast<std::int16_t>(value);
  return u;
}

// Adds up pairs of 16-bit sums times `unit`, which is taken from memory: registers are short.
__m256i widened(__m256i sums, const Unit& unit) {
  __asm__("vpmaddwd %1, %0, %0" : "+x"(sums) : "m"(unit));
  return sums;
}

constexpr int kLowBits = 6;
constexpr int kSmallest = -2048;   // that splits
constexpr int kSplitRange = 4160;  // as many values do
constexpr int kGroup = 4;
constexpr int kChunkGroups = 5;  // whose products are added up in 16 bits
constexpr int kChunk = kChunkGroups * kGroup;
constexpr PackOrder kProductOrder = {8 * kLanes, kLanes, kGroup};
constexpr ShortSums kShortSums = {kChunk, (kSplitRange - 1) >> kLowBits};
constexpr int kPanelBlocks = kProductOrder.panel / kLanes;
constexpr int kBlockBytes = kLanes * kGroup;  // of a group's columns of eight rows

// Activations in two parts of bytes, zeros behind them.
struct SplitVector {
  alignas(32) std::uint8_t low[kMostPackedCols], high[kMostPackedCols];

  // False where a value does not split.
  bool set(const std::int16_t* q, int n) {
    __m256i largest = _mm256_setzero_si256();
    for (int i = 0; i < n; i += 16) {
      __m256i x;
      if (i + 16 <= n) {
        x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(q + i));
      } else {
        alignas(32) std::int16_t last[16] = {};
        std::memcpy(last, q + i, static_cast<std::size_t>(n - i) * sizeof *q);
        x = _mm256_load_si256(reinterpret_cast<const __m256i*>(last));
      }
      x = _mm256_sub_epi16(x, _mm256_set1_epi16(kSmallest));
      largest = _mm256_max_epu16(largest, x);
      const __m256i lows = _mm256_and_si256(x, _mm256_set1_epi16((1 << kLowBits) - 1));
      const __m256i highs = _mm256_srli_epi16(x, kLowBits);
      const __m256i both = _mm256_permute4x64_epi64(_mm256_packus_epi16(lows, highs), 0xd8);
      _mm_store_si128(reinterpret_cast<__m128i*>(low + i), _mm256_castsi256_si128(both));
      _mm_store_si128(reinterpret_cast<__m128i*>(high + i), _mm256_extracti128_si256(both, 1));
    }
    const __m256i limit = _mm256_set1_epi16(kSplitRange - 1);
    const __m256i within = _mm256_cmpeq_epi16(_mm256_max_epu16(largest, limit), limit);
    return _mm256_movemask_epi8(within) == -1;
  }
};

// Adds to kBlocks sums of eight rows the products of one part of kGroups groups of columns, times
// `unit`. The 16-bit sums over the groups have to fit.
template <int kGroups, int kBlocks>
__attribute__((always_inline)) inline void add_part(const std::uint8_t* part, const std::int8_t* w,
                                                    const Unit& unit, Sums (&sum)[kBlocks]) {
  __m256i x[kGroups];
  unrolled<kGroups>([&](int g) SE_INLINE { x[g] = broadcast32(part + g * kGroup); });
  unrolled<kBlocks>([&](int b) SE_INLINE {
    const auto* const block = reinterpret_cast<const __m256i*>(w + b * kBlockBytes);
    __m256i added = _mm256_maddubs_epi16(x[0], block[0]);
    unrolled<kGroups - 1>([&](int g)
                              SE_INLINE { add_bytes(added, x[g + 1], block[(g + 1) * kBlocks]); });
    add(sum[b], widened(added, unit));
  });
  // The weights of the other part come from memory again, as operands, not from registers that are
  // loaded first.
  __asm__ volatile("" ::: "memory");
}

// The sums of kBlocks * 8 rows. `cols` is a multiple of four. `fits`: see PackedMatrix.
template <int kBlocks>
__attribute__((noinline)) void split_panel(const std::int8_t* w, const std::int32_t* row_sums,
                                           std::uint32_t fits, const SplitVector& q,
                                           std::ptrdiff_t cols, std::int32_t* sums) {
  static constexpr Unit kLowUnit = unit(1), kHighUnit = unit(1 << kLowBits);
  Sums sum[kBlocks];
  unrolled<kBlocks>([&](int b) SE_INLINE {
    const __m256i row_sum =
        _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row_sums + b * kLanes));
    sum[b] = reinterpret_cast<Sums>(row_sum) * static_cast<unsigned>(kSmallest);
  });
  constexpr int kGroupBytes = kBlocks * kBlockBytes;
  // Returns the column behind the last of the groups.
  const auto add_groups = [&](auto groups, std::ptrdiff_t first) SE_INLINE {
    add_part<groups.value>(q.low + first, w, kLowUnit, sum);
    add_part<groups.value>(q.high + first, w, kHighUnit, sum);
    w += groups.value * kGroupBytes;
    return first + groups.value * kGroup;
  };
  for (std::ptrdiff_t i = 0; i < cols;) {
    const bool all_fit = (fits & 1) != 0;
    fits >>= 1;
    if (all_fit) {
      i = add_groups(std::integral_constant<int, kChunkGroups>(), i);
      continue;
    }
    const std::ptrdiff_t end = i + kChunk < cols ? i + kChunk : cols;
    while (i + 2 * kGroup <= end)
      i = add_groups(std::integral_constant<int, 2>(), i);  // always fit
    if (i < end) i = add_groups(std::integral_constant<int, 1>(), i);
  }
  unrolled<kBlocks>([&](int b) SE_INLINE { store_sums(sums + b * kLanes, as_integers(sum[b])); });
}

// The function for a panel of so many blocks.
template <int kBlocks = kPanelBlocks>
void any_split_panel(int blocks, const std::int8_t* w, const std::int32_t* row_sums,
                     std::uint32_t fits, const SplitVector& q, int cols, std::int32_t* sums) {
  if constexpr (kBlocks > 0) {
    if (blocks == kBlocks) return split_panel<kBlocks>(w, row_sums, fits, q, cols, sums);
    any_split_panel<kBlocks - 1>(blocks, w, row_sums, fits, q, cols, sums);
  }
}

// The sums of kBlocks * 8 rows of a panel of `panel` blocks with any activations. A widened load
// holds four columns of four rows, so that every row has two lanes until the end.
template <int kBlocks>
__attribute__((noinline)) void wide_blocks(const std::int8_t* weights, int panel,
                                           const std::int16_t* q, const NonZeroFours& fours,
                                           std::int32_t* sums) {
  Sums low[kBlocks], high[kBlocks];
  unrolled<kBlocks>([&](int b) SE_INLINE { low[b] = high[b] = Sums{}; });
  for (int i = 0; i < fours.count; ++i) {
    const int group = fours.at[i];
    const std::int8_t* const w = weights + group * panel * kBlockBytes;
    const __m256i x = broadcast64(q + group * kGroup);
    unrolled<kBlocks>([&](int b) SE_INLINE {
      const std::int8_t* const block = w + b * kBlockBytes;
      add_product(low[b], widen16(block), x);
      add_product(high[b], widen16(block + 16), x);
    });
  }
  unrolled<kBlocks>([&](int b) SE_INLINE {
    const __m256i pairs = _mm256_hadd_epi32(as_integers(low[b]), as_integers(high[b]));
    store_sums(sums + b * kLanes, _mm256_permute4x64_epi64(pairs, 0xd8));
  });
}

// All blocks of a panel, four at a time and then the rest.
template <int kBlocks = 4>
void wide_panel(int first, int panel, const std::int8_t* w, const std::int16_t* q,
                const NonZeroFours& fours, std::int32_t* sums) {
  for (; first + kBlocks <= panel; first += kBlocks) {
    wide_blocks<kBlocks>(w + first * kBlockBytes, panel, q, fours, sums + first * kLanes);
  }
  if constexpr (kBlocks > 1) wide_panel<kBlocks - 1>(first, panel, w, q, fours, sums);
}

void packed_product(const PackedMatrix& m, const Matrix& /*plain*/, const std::int16_t* q,
                    std::int32_t* sums) {
  SplitVector split;
  const bool splits = m.cols % kGroup == 0 && split.set(q, m.cols);
  const int cols = round_up(m.cols, kGroup);
  std::int16_t filled[kMostPackedCols];
  if (cols != m.cols) {
    std::memset(filled + cols - kGroup, 0, kGroup * sizeof *filled);
    std::memcpy(filled, q, static_cast<std::size_t>(m.cols) * sizeof *q);
    q = filled;
  }
  const NonZeroFours fours(q, splits ? 0 : cols);
  const std::int8_t* w = m.weights;
  const std::int32_t* row_sums = m.row_sums;
  const std::uint32_t* fits = m.fits;
  for (int left = round_up(m.rows, kLanes) / kLanes; left > 0; left -= kPanelBlocks) {
    const int blocks = left < kPanelBlocks ? left : kPanelBlocks;
    if (splits) {
      any_split_panel(blocks, w, row_sums, *fits++, split, cols, sums);
    } else {
      wide_panel(0, blocks, w, q, fours, sums);
    }
    w += blocks * kBlockBytes * (cols / kGroup);
    row_sums += blocks * kLanes;
    sums += blocks * kLanes;
  }
}

}  // namespace

void use_avx2_packed(NnKernels& k) {
  k.product_order = kProductOrder;
  k.short_sums = kShortSums;
  k.packed_product = packed_product;
}

}  // namespace se
