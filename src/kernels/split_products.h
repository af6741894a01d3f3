// Matrix products with packed weights for CPUs with VNNI, for vectors of 512 bits and of 256.
//
// A 16-bit activation is two bytes. Each is multiplied with the 8-bit weights and four products are
// added to a lane by one instruction (vpdpbusd, exact and without saturation), so that a vector of
// weights takes two of them and need not be widened.
//
// Everything here has internal linkage: see kernels/avx2.h.
#pragma once

#include <immintrin.h>

#include "kernels/nn_kernels.h"
#include "kernels/packing.h"
#include "kernels/unrolled.h"

namespace se {
namespace {

// Activations as two unsigned bytes each, zeros behind them up to a whole group. Where some are
// negative, `offset` stands for 0 in all high bytes; where none is, groups of zeros can be left
// out.
struct SplitVector {
  alignas(64) std::uint8_t low[kMostPackedCols], high[kMostPackedCols];
  int offset;

  // Given the bytes of n activations as they are.
  void set_offset(bool any_negative, int n) {
    offset = any_negative ? 128 : 0;
    if (!any_negative) return;
    for (int i = 0; i < n; i += 32) {
      auto* const highs = reinterpret_cast<__m256i*>(high + i);
      _mm256_store_si256(highs, _mm256_xor_si256(_mm256_load_si256(highs), _mm256_set1_epi8(-128)));
    }
  }
};

// The products with a Vector of
//   kLanes sums, 32 bits each, of the type Sums; kPanelBlocks times as many rows make a panel,
//   whose low and high sums together stay in registers; load, store, broadcast32 and add_products:
//   one instruction each; split: the activations as bytes.
template <class Vector>
struct SplitProducts {
  using Sums = typename Vector::Sums;
  static constexpr int kGroup = 4;
  static constexpr int kLanes = Vector::kLanes;
  static constexpr int kPanelBlocks = Vector::kPanelBlocks;
  static constexpr int kBlockBytes = kLanes * kGroup;
  static constexpr PackOrder kOrder = {kPanelBlocks * kLanes, kLanes, kGroup};

  // The sums of kBlocks * kLanes rows.
  template <int kBlocks>
  __attribute__((noinline)) static void panel(const std::int8_t* weights,
                                              const std::int32_t* row_sums, const SplitVector& q,
                                              const NonZeroFours& fours, std::int32_t* sums) {
    Sums low[kBlocks], high[kBlocks];
    unrolled<kBlocks>([&](int b) SE_INLINE {
      low[b] = Sums{};
      high[b] = Vector::load(row_sums + b * kLanes) * static_cast<unsigned>(-q.offset);
    });
    const auto add_group = [&](int group) SE_INLINE {
      const std::int8_t* const w = weights + group * (kBlocks * kBlockBytes);
      const auto x_low = Vector::broadcast32(q.low + group * kGroup);
      const auto x_high = Vector::broadcast32(q.high + group * kGroup);
      unrolled<kBlocks>([&](int b) SE_INLINE {
        const auto block = Vector::load_weights(w + b * kBlockBytes);
        Vector::add_products(low[b], x_low, block);
        Vector::add_products(high[b], x_high, block);
      });
    };
    // Two groups at a time; what has no list of groups is a tenth faster without one.
    if (fours.all) {
#pragma GCC unroll 2
      for (int group = 0; group < fours.count; ++group) add_group(group);
    } else {
#pragma GCC unroll 2
      for (int i = 0; i < fours.count; ++i) add_group(fours.at[i]);
    }
    unrolled<kBlocks>([&](int b)
                          SE_INLINE { Vector::store(sums + b * kLanes, low[b] + (high[b] << 8)); });
  }

  // The function for a panel of so many blocks.
  template <int kBlocks = kPanelBlocks>
  static void any_panel(int blocks, const std::int8_t* w, const std::int32_t* row_sums,
                        const SplitVector& q, const NonZeroFours& fours, std::int32_t* sums) {
    if constexpr (kBlocks > 0) {
      if (blocks == kBlocks) return panel<kBlocks>(w, row_sums, q, fours, sums);
      any_panel<kBlocks - 1>(blocks, w, row_sums, q, fours, sums);
    }
  }

  static void packed_product(const PackedMatrix& m, const Matrix& /*plain*/, const std::int16_t* q,
                             std::int32_t* sums) {
    SplitVector split;
    split.set_offset(Vector::split(q, m.cols, split), m.cols);
    const int cols = round_up(m.cols, kGroup);
    const NonZeroFours fours(q, m.cols, split.offset == 0);
    const std::int8_t* w = m.weights;
    for (int block = 0; block * kLanes < m.rows; block += kPanelBlocks) {
      const int left = round_up(m.rows, kLanes) / kLanes - block;
      const int blocks = left < kPanelBlocks ? left : kPanelBlocks;
      any_panel(blocks, w, m.row_sums + block * kLanes, split, fours, sums + block * kLanes);
      w += blocks * kBlockBytes * (cols / kGroup);
    }
  }
};

}  // namespace
}  // namespace se
