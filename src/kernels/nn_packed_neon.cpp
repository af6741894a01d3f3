// NEON products of packed weights: rows lie side by side in the lanes and meet one activation after
// the other (multiply-add by lane), so that nothing is left to add across lanes. Every weight is
// widened once, in a convolution for several positions.
#include "kernels/nn_arm.h"
#include "kernels/packing.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

// What the registers hold: sums of kPanelBlocks * 8 rows, or of eight rows at kPositions positions.
#if defined(__aarch64__)
constexpr int kPanelBlocks = 8;
constexpr int kPositions = 8;
#else
constexpr int kPanelBlocks = 4;
constexpr int kPositions = 4;
#endif
constexpr int kLanes = 8;

constexpr PackOrder kProductOrder = {kPanelBlocks * kLanes, kLanes, 1};
constexpr PackOrder kConvolveOrder = {kLanes, kLanes, 1};

// Adds the products of a column of eight rows with one activation.
template <int kLane>
SE_INLINE inline void add_column(Int32x8& sum, int16x8_t w, int16x4_t x) {
  sum.low = vmlal_lane_s16(sum.low, vget_low_s16(w), x, kLane);
#if defined(__aarch64__)
  sum.high = vmlal_high_lane_s16(sum.high, w, x, kLane);
#else
  sum.high = vmlal_lane_s16(sum.high, vget_high_s16(w), x, kLane);
#endif
}

// Loads 32 weights in one instruction. (Of two loads of 16, compilers for AArch64 make one.)
SE_INLINE inline int8x16x2_t load32(const std::int8_t*& w) {
  int8x16x2_t v;
#if defined(__aarch64__)
  v.val[0] = vld1q_s8(w);
  v.val[1] = vld1q_s8(w + 16);
  w += 32;
#else
  __asm__("vld1.8 %h0, [%1]!" : "=w"(v), "+r"(w) : "m"(*reinterpret_cast<const char(*)[32]>(w)));
#endif
  return v;
}

// ---- Matrix products ----------------------------------------------------------------------------

// Adds one column of kBlocks * 8 rows.
template <int kLane, int kBlocks>
SE_INLINE inline void add_rows(const std::int8_t*& w, int16x4_t x, Int32x8 (&sum)[kBlocks]) {
  unrolled<kBlocks / 4>([&](int i) SE_INLINE {
    const int8x16x2_t bytes = load32(w);
    add_column<kLane>(sum[4 * i], widen_low(bytes.val[0]), x);
    add_column<kLane>(sum[4 * i + 1], widen_high(bytes.val[0]), x);
    add_column<kLane>(sum[4 * i + 2], widen_low(bytes.val[1]), x);
    add_column<kLane>(sum[4 * i + 3], widen_high(bytes.val[1]), x);
  });
  unrolled<kBlocks % 4>([&](int i) SE_INLINE {
    const int8x8_t bytes = vld1_s8(w);
    step(w, 8);
    add_column<kLane>(sum[kBlocks / 4 * 4 + i], vmovl_s8(bytes), x);
  });
}

// The activations that are not zero. What leaves a layer that clamps at zero, as the denoiser's
// convolutions do, is zero more often than not, and the weights for it need not be read.
struct NonZeros {
  int count = 0;
  std::int16_t value[kMostPackedCols];
  std::uint16_t column[kMostPackedCols];  // ascending

  NonZeros(const std::int16_t* q, int n) {
    for (int i = 0; i < n; ++i) {
      value[count] = q[i];
      column[count] = static_cast<std::uint16_t>(i);
      count += q[i] != 0 ? 1 : 0;
    }
  }
};

// How the products with kBlocks * 8 rows are added: column after column, or those that count.
struct Dense {
  const std::int16_t* q;
  int cols;

  template <int kBlocks>
  SE_INLINE void add(const std::int8_t* w, Int32x8 (&sum)[kBlocks]) const {
    const std::int16_t* x = q;
    for (int steps = cols / 8; steps > 0; --steps) {
      const int16x8_t eight = vld1q_s16(x);
      step(x, 8);
      const int16x4_t low = vget_low_s16(eight), high = vget_high_s16(eight);
      add_rows<0>(w, low, sum);
      add_rows<1>(w, low, sum);
      add_rows<2>(w, low, sum);
      add_rows<3>(w, low, sum);
      add_rows<0>(w, high, sum);
      add_rows<1>(w, high, sum);
      add_rows<2>(w, high, sum);
      add_rows<3>(w, high, sum);
    }
    for (int rest = cols % 8; rest > 0; --rest, ++x) add_rows<0>(w, vld1_dup_s16(x), sum);
  }
};

struct Sparse {
  const NonZeros& values;

  template <int kBlocks>
  SE_INLINE void add(const std::int8_t* weights, Int32x8 (&sum)[kBlocks]) const {
    const std::int16_t* x = values.value;
    const std::uint16_t* column = values.column;
    for (int left = values.count; left > 0; --left) {
      const std::int8_t* w = weights + *column++ * (kBlocks * kLanes);
      const int16x4_t v = vld1_dup_s16(x);
      step(x, 1);
      add_rows<0>(w, v, sum);
    }
  }
};

template <int kBlocks, class Activations>
__attribute__((noinline)) void panel_product(const std::int8_t* w, const Activations& q,
                                             std::int32_t* sums) {
  Int32x8 sum[kBlocks];
  unrolled<kBlocks>([&](int b) SE_INLINE { sum[b] = {vdupq_n_s32(0), vdupq_n_s32(0)}; });
  q.add(w, sum);
  unrolled<kBlocks>([&](int b) SE_INLINE {
    vst1q_s32(sums + b * kLanes, sum[b].low);
    vst1q_s32(sums + b * kLanes + 4, sum[b].high);
  });
}

// The function for a panel of so many blocks.
template <int kBlocks = kPanelBlocks, class Activations>
void any_panel_product(int blocks, const std::int8_t* w, const Activations& q, std::int32_t* sums) {
  if constexpr (kBlocks > 0) {
    if (blocks == kBlocks) return panel_product<kBlocks>(w, q, sums);
    any_panel_product<kBlocks - 1>(blocks, w, q, sums);
  }
}

template <class Activations>
void panels(const PackedMatrix& m, const Activations& q, std::int32_t* sums) {
  const std::int8_t* w = m.weights;
  for (int left = round_up(m.rows, kLanes) / kLanes; left > 0; left -= kPanelBlocks) {
    const int blocks = left < kPanelBlocks ? left : kPanelBlocks;
    any_panel_product(blocks, w, q, sums);
    w += blocks * kLanes * m.cols;
    sums += blocks * kLanes;
  }
}

// Of a whole number of fours.
bool none_negative(const std::int16_t* q, int n) {
  int16x4_t smallest = vdup_n_s16(0);
  for (; n > 0; n -= 4, q += 4) smallest = vmin_s16(smallest, vld1_s16(q));
  return vget_lane_s64(vreinterpret_s64_s16(smallest), 0) == 0;
}

void packed_product(const PackedMatrix& m, const Matrix& /*plain*/, const std::int16_t* q,
                    std::int32_t* sums) {
  // Values of both signs do not come from a clamp at zero.
  if (m.cols % 4 == 0 && none_negative(q, m.cols)) {
    const NonZeros values(q, m.cols);
    panels(m, Sparse{values}, sums);
  } else {
    panels(m, Dense{q, m.cols}, sums);
  }
}

// ---- Convolutions -------------------------------------------------------------------------------

using Tile = Int32x8[kPositions];

// The activations that a load brings per position.
#if defined(__aarch64__)
using Loaded = int16x8_t;
SE_INLINE inline Loaded load_activations(const std::int16_t* q) {
  return vld1q_s16(q);
}
template <int kColumn>
SE_INLINE inline int16x4_t four_of(Loaded x) {
  return kColumn < 4 ? vget_low_s16(x) : vget_high_s16(x);
}
#else
using Loaded = int16x4_t;  // eight would leave too few registers
SE_INLINE inline Loaded load_activations(const std::int16_t* q) {
  return vld1_s16(q);
}
template <int kColumn>
SE_INLINE inline int16x4_t four_of(Loaded x) {
  return x;
}
#endif
constexpr int kLoaded = static_cast<int>(sizeof(Loaded) / sizeof(std::int16_t));

// Adds one column of eight rows at all positions.
template <int kColumn>
SE_INLINE inline void add_positions(int16x8_t w, const Loaded (&x)[kPositions], Tile& sum) {
  unrolled<kPositions>(
      [&](int p) SE_INLINE { add_column<kColumn % 4>(sum[p], w, four_of<kColumn>(x[p])); });
}

template <int kColumn>
SE_INLINE inline void add_loaded(const std::int8_t*& w, const Loaded (&x)[kPositions], Tile& sum) {
  const int8x16x2_t bytes = load32(w);
  add_positions<kColumn>(widen_low(bytes.val[0]), x, sum);
  add_positions<kColumn + 1>(widen_high(bytes.val[0]), x, sum);
  add_positions<kColumn + 2>(widen_low(bytes.val[1]), x, sum);
  add_positions<kColumn + 3>(widen_high(bytes.val[1]), x, sum);
  if constexpr (kColumn + 4 < kLoaded) add_loaded<kColumn + 4>(w, x, sum);
}

// The outputs of eight rows from `first` on at kPositions positions from `position` on.
__attribute__((noinline)) void convolve_tile(const PackedMatrix& m, const ConvInput& in,
                                             const OutputScale& out, int first, int position,
                                             float* y) {
  const std::int8_t* w = m.weights + first * m.cols;
  Tile sum;
  unrolled<kPositions>([&](int p) SE_INLINE { sum[p] = {vdupq_n_s32(0), vdupq_n_s32(0)}; });
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int16_t* q[kPositions];
    unrolled<kPositions>([&](int p) SE_INLINE { q[p] = in.frames[t] + (position + p) * in.step; });
    Loaded x[kPositions];
    for (int steps = in.window / kLoaded; steps > 0; --steps) {
      unrolled<kPositions>([&](int p) SE_INLINE {
        x[p] = load_activations(q[p]);
        step(q[p], kLoaded);
      });
      add_loaded<0>(w, x, sum);
    }
    for (int rest = in.window % kLoaded; rest > 0; --rest, w += kLanes) {
      const int16x8_t column = vmovl_s8(vld1_s8(w));
      unrolled<kPositions>([&](int p)
                               SE_INLINE { add_column<0>(sum[p], column, vld1_dup_s16(q[p]++)); });
    }
  }
  y += position * m.rows;
  store_outputs<kPositions>(out, first, m.rows, y, [&](int p) SE_INLINE { return sum[p].low; });
  store_outputs<kPositions>(out, first + 4, m.rows, y,
                            [&](int p) SE_INLINE { return sum[p].high; });
}

NnKernels g_plain;  // takes what the packed kernels leave

void packed_convolve(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  if (m.rows % kLanes != 0 || in.positions % kPositions != 0) {
    return g_plain.convolve(m, in, out, y);
  }
  for (int first = 0; first < m.rows; first += kLanes) {
    for (int p = 0; p < in.positions; p += kPositions) convolve_tile(packed, in, out, first, p, y);
  }
}

}  // namespace

void use_neon_packed(NnKernels& k) {
  g_plain = k;
  k.product_order = kProductOrder;
  k.packed_product = packed_product;
  k.convolve_order = kConvolveOrder;
  k.packed_convolve = packed_convolve;
}

}  // namespace se
