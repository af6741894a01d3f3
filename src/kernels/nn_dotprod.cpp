// Denoiser kernels for AArch64 with dot products (ARMv8.2 and later): the products of packed
// weights; everything else stays with NEON.
//
// The instruction adds four products of bytes to each 32-bit lane, here of four columns to the lane
// of their row, for each of the parts of the activations (nn_arm.h): two multiply-adds per sixteen
// weights instead of four behind two widenings. Activations without such parts go to NEON.
#include "kernels/nn_arm.h"
#include "kernels/packing.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

NnKernels g_base;  // takes what this variant leaves

constexpr int kGroup = 4;     // columns of one multiply-add
constexpr int kLanes = 4;     // rows of one
constexpr int kColumns = 16;  // of activations in a vector

bool split(const std::int16_t* q, int n, std::int8_t* high, std::int8_t* low) {
  return split_parts(q, n, high, low, 8);
}

// Sums of four rows in their parts.
struct PartSums {
  int32x4_t high, low;

  int32x4_t total() const { return vaddq_s32(vshlq_n_s32(high, kLowBits), low); }
};

// Adds the products of four columns of four rows, the activations' being the kFour-th four.
template <int kFour>
SE_INLINE inline void add_products(PartSums& sum, int8x16_t w, int8x16_t high, int8x16_t low) {
  sum.high = vdotq_laneq_s32(sum.high, w, high, kFour);
  sum.low = vdotq_laneq_s32(sum.low, w, low, kFour);
}

SE_INLINE inline int8x16_t broadcast_four(const std::int8_t* from) {
  std::int32_t bits;
  __builtin_memcpy(&bits, from, sizeof bits);
  return vreinterpretq_s8_s32(vdupq_n_s32(bits));
}

// ---- Matrix products ----------------------------------------------------------------------------

constexpr int kPanelBlocks = 8;
constexpr PackOrder kProductOrder = {kPanelBlocks * kLanes, kLanes, kGroup};

// Adds the products of four columns of kBlocks * 4 rows.
template <int kFour, int kBlocks>
SE_INLINE inline void add_rows(const std::int8_t*& w, int8x16_t high, int8x16_t low,
                               PartSums (&sum)[kBlocks]) {
  unrolled<kBlocks / 4>([&](int i) SE_INLINE {
    const int8x16x4_t bytes = vld1q_s8_x4(w);
    step(w, 64);
    unrolled<4>([&](int b)
                    SE_INLINE { add_products<kFour>(sum[4 * i + b], bytes.val[b], high, low); });
  });
  unrolled<kBlocks % 4>([&](int i) SE_INLINE {
    const int8x16_t bytes = vld1q_s8(w);
    step(w, 16);
    add_products<kFour>(sum[kBlocks / 4 * 4 + i], bytes, high, low);
  });
}

template <int kBlocks>
__attribute__((noinline)) void panel_product(const std::int8_t* w, const std::int8_t* high,
                                             const std::int8_t* low, int cols, std::int32_t* sums) {
  PartSums sum[kBlocks];
  unrolled<kBlocks>([&](int b) SE_INLINE { sum[b] = {vdupq_n_s32(0), vdupq_n_s32(0)}; });
  for (int steps = cols / kColumns; steps > 0; --steps) {
    const int8x16_t x_high = vld1q_s8(high), x_low = vld1q_s8(low);
    step(high, kColumns);
    step(low, kColumns);
    add_rows<0>(w, x_high, x_low, sum);
    add_rows<1>(w, x_high, x_low, sum);
    add_rows<2>(w, x_high, x_low, sum);
    add_rows<3>(w, x_high, x_low, sum);
  }
  for (int rest = cols % kColumns; rest > 0; rest -= kGroup, high += kGroup, low += kGroup) {
    add_rows<0>(w, broadcast_four(high), broadcast_four(low), sum);
  }
  unrolled<kBlocks>([&](int b) SE_INLINE { vst1q_s32(sums + b * kLanes, sum[b].total()); });
}

// The function for a panel of so many blocks.
template <int kBlocks = kPanelBlocks>
void any_panel_product(int blocks, const std::int8_t* w, const std::int8_t* high,
                       const std::int8_t* low, int cols, std::int32_t* sums) {
  if constexpr (kBlocks > 0) {
    if (blocks == kBlocks) return panel_product<kBlocks>(w, high, low, cols, sums);
    any_panel_product<kBlocks - 1>(blocks, w, high, low, cols, sums);
  }
}

void packed_product(const PackedMatrix& packed, const Matrix& m, const std::int16_t* q,
                    std::int32_t* sums) {
  std::int8_t high[kMostPackedCols], low[kMostPackedCols];
  if (m.cols % 8 != 0 || !split(q, m.cols, high, low)) return g_base.product(m, q, sums);
  const std::int8_t* w = packed.weights;
  for (int left = round_up(m.rows, kLanes) / kLanes; left > 0; left -= kPanelBlocks) {
    const int blocks = left < kPanelBlocks ? left : kPanelBlocks;
    any_panel_product(blocks, w, high, low, m.cols, sums);
    w += blocks * kLanes * m.cols;
    sums += blocks * kLanes;
  }
}

// ---- Convolutions -------------------------------------------------------------------------------

constexpr int kTileBlocks = 2;
constexpr int kTileRows = kTileBlocks * kLanes;
constexpr int kPositions = 4;
constexpr PackOrder kConvolveOrder = {kTileRows, kTileRows, kGroup};

// The frames of a convolution in parts. Every value is split once, however many windows hold it.
class SplitFrames {
 public:
  bool set(const ConvInput& in) {
    if (in.frame_count > kMaxFrames || in.frame_len > kMaxLength) return false;
    for (int t = 0; t < in.frame_count; ++t) {
      const int whole = in.frame_len / 8 * 8;
      if (!split(in.frames[t], whole, high_[t], low_[t])) return false;
      std::int16_t last[8] = {};
      for (int i = whole; i < in.frame_len; ++i) last[i - whole] = in.frames[t][i];
      if (!split(last, 8, high_[t] + whole, low_[t] + whole)) return false;
    }
    return true;
  }
  const std::int8_t* high(int t) const { return high_[t]; }
  const std::int8_t* low(int t) const { return low_[t]; }

 private:
  static constexpr int kMaxFrames = 3, kMaxLength = 1152;

  // A last group may reach behind the last window; its weights are 0 there.
  std::int8_t high_[kMaxFrames][kMaxLength + 8];
  std::int8_t low_[kMaxFrames][kMaxLength + 8];
};

using Tile = PartSums[kPositions][kTileBlocks];

struct Activations {
  int8x16_t high, low;
};

// Adds the products of four columns of eight rows at all positions.
template <int kFour>
SE_INLINE inline void add_positions(const int8x16_t* w, const Activations (&x)[kPositions],
                                    Tile& sum) {
  unrolled<kPositions>([&](int p) SE_INLINE {
    unrolled<kTileBlocks>(
        [&](int b) SE_INLINE { add_products<kFour>(sum[p][b], w[b], x[p].high, x[p].low); });
  });
}

// The outputs of eight rows from `first` on at kPositions positions from `position` on.
__attribute__((noinline)) void convolve_tile(const PackedMatrix& m, const ConvInput& in,
                                             const SplitFrames& frames, const OutputScale& out,
                                             int first, int position, float* y) {
  const int window = round_up(in.window, kGroup);
  const std::int8_t* w = m.weights + first * in.frame_count * window;
  Tile sum;
  unrolled<kPositions>([&](int p) SE_INLINE {
    unrolled<kTileBlocks>([&](int b) SE_INLINE { sum[p][b] = {vdupq_n_s32(0), vdupq_n_s32(0)}; });
  });
  Activations x[kPositions];
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int8_t *high[kPositions], *low[kPositions];
    unrolled<kPositions>([&](int p) SE_INLINE {
      high[p] = frames.high(t) + (position + p) * in.step;
      low[p] = frames.low(t) + (position + p) * in.step;
    });
    for (int steps = window / kColumns; steps > 0; --steps) {
      unrolled<kPositions>([&](int p) SE_INLINE {
        x[p] = {vld1q_s8(high[p]), vld1q_s8(low[p])};
        step(high[p], kColumns);
        step(low[p], kColumns);
      });
      const int8x16x4_t first_half = vld1q_s8_x4(w);
      step(w, 64);
      add_positions<0>(first_half.val, x, sum);
      add_positions<1>(first_half.val + 2, x, sum);
      const int8x16x4_t second_half = vld1q_s8_x4(w);
      step(w, 64);
      add_positions<2>(second_half.val, x, sum);
      add_positions<3>(second_half.val + 2, x, sum);
    }
    for (int rest = window % kColumns; rest > 0; rest -= kGroup, w += kTileRows * kGroup) {
      unrolled<kPositions>([&](int p) SE_INLINE {
        x[p] = {broadcast_four(high[p]), broadcast_four(low[p])};
        high[p] += kGroup;
        low[p] += kGroup;
      });
      const int8x16_t bytes[kTileBlocks] = {vld1q_s8(w), vld1q_s8(w + 16)};
      add_positions<0>(bytes, x, sum);
    }
  }
  y += position * m.rows;
  unrolled<kTileBlocks>([&](int b) SE_INLINE {
    store_outputs<kPositions>(out, first + b * kLanes, m.rows, y,
                              [&](int p) SE_INLINE { return sum[p][b].total(); });
  });
}

void packed_convolve(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  SplitFrames frames;
  if (m.rows % kTileRows != 0 || in.positions % kPositions != 0 || !frames.set(in)) {
    return g_base.convolve(m, in, out, y);
  }
  for (int first = 0; first < m.rows; first += kTileRows) {
    for (int p = 0; p < in.positions; p += kPositions) {
      convolve_tile(packed, in, frames, out, first, p, y);
    }
  }
}

}  // namespace

void use_dotprod(NnKernels& k) {
  g_base = k;
  k.product_order = kProductOrder;
  k.packed_product = packed_product;
  k.convolve_order = kConvolveOrder;
  k.packed_convolve = packed_convolve;
}

}  // namespace se
