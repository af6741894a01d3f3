// Denoiser kernels for AArch64 with products of byte matrices (i8mm, ARMv8.6 and later): the
// products of packed weights; everything else stays with NEON.
//
// The instruction multiplies two rows of eight bytes with two columns of eight. The rows are those
// of the weights; the columns are the two parts of the same eight activations (nn_arm.h), so that
// one multiply-add takes sixteen weights, where dot products take two. Activations without such
// parts go to NEON.
#include <cstring>

#include "kernels/nn_arm.h"
#include "kernels/packing.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

NnKernels g_base;  // takes what this variant leaves

constexpr int kGroup = 8;               // columns of one multiply-add
constexpr int kBoth = 2 * kGroup;       // their activations' bytes: eight high parts, eight low
constexpr int kBlock = 4;               // rows of two multiply-adds
constexpr int kLanes = 2 * kBlock;      // rows whose weights one load takes
constexpr int kLoad = kLanes * kGroup;  // bytes of it

bool split_both(const std::int16_t* q, int n, std::int8_t* both) {
  return split_parts(q, n, both, both + kGroup, kBoth);
}

// The sums of four rows, for each of two rows both parts.
struct BlockSums {
  int32x4_t first, second;

  int32x4_t total() const {
    return vaddq_s32(vshlq_n_s32(vuzp1q_s32(first, second), kLowBits), vuzp2q_s32(first, second));
  }
};

// Adds the products of eight columns of eight rows.
SE_INLINE inline void add_products(BlockSums* sums, const int8x16x4_t& w, int8x16_t x) {
  sums[0].first = vmmlaq_s32(sums[0].first, w.val[0], x);
  sums[0].second = vmmlaq_s32(sums[0].second, w.val[1], x);
  sums[1].first = vmmlaq_s32(sums[1].first, w.val[2], x);
  sums[1].second = vmmlaq_s32(sums[1].second, w.val[3], x);
}

// ---- Matrix products ----------------------------------------------------------------------------

constexpr int kPanelLoads = 5;
constexpr PackOrder kProductOrder = {kPanelLoads * kLanes, kLanes, kGroup};

template <int kLoads>
__attribute__((noinline)) void panel_product(const std::int8_t* w, const std::int8_t* both,
                                             int cols, std::int32_t* sums) {
  BlockSums sum[2 * kLoads];
  unrolled<2 * kLoads>([&](int b) SE_INLINE { sum[b] = {vdupq_n_s32(0), vdupq_n_s32(0)}; });
  for (int steps = cols / kGroup; steps > 0; --steps) {
    const int8x16_t x = vld1q_s8(both);
    step(both, kBoth);
    unrolled<kLoads>([&](int i) SE_INLINE {
      const int8x16x4_t bytes = vld1q_s8_x4(w);
      step(w, kLoad);
      add_products(sum + 2 * i, bytes, x);
    });
  }
  unrolled<2 * kLoads>([&](int b) SE_INLINE { vst1q_s32(sums + b * kBlock, sum[b].total()); });
}

// The function for a panel of so many loads.
template <int kLoads = kPanelLoads>
void any_panel_product(int loads, const std::int8_t* w, const std::int8_t* both, int cols,
                       std::int32_t* sums) {
  if constexpr (kLoads > 0) {
    if (loads == kLoads) return panel_product<kLoads>(w, both, cols, sums);
    any_panel_product<kLoads - 1>(loads, w, both, cols, sums);
  }
}

void packed_product(const PackedMatrix& packed, const Matrix& m, const std::int16_t* q,
                    std::int32_t* sums) {
  std::int8_t both[2 * kMostPackedCols];
  if (m.cols % kGroup != 0 || !split_both(q, m.cols, both)) return g_base.product(m, q, sums);
  const std::int8_t* w = packed.weights;
  for (int left = round_up(m.rows, kLanes) / kLanes; left > 0; left -= kPanelLoads) {
    const int loads = left < kPanelLoads ? left : kPanelLoads;
    any_panel_product(loads, w, both, m.cols, sums);
    w += loads * kLanes * m.cols;
    sums += loads * kLanes;
  }
}

// ---- Convolutions -------------------------------------------------------------------------------

constexpr int kPositions = 4;
constexpr PackOrder kConvolveOrder = {kLanes, kLanes, kGroup};

// The frames of a convolution in parts. Where windows start on whole groups, every value is split
// once, however many windows hold it; otherwise once per window.
class SplitFrames {
 public:
  bool set(const ConvInput& in) {
    const bool shared = in.step % kGroup == 0;
    const int window = round_up(in.window, kGroup);
    const int len = shared ? round_up(in.frame_len, kGroup) : in.positions * window;
    step_ = 2 * (shared ? in.step : window);
    if (in.frame_count > kMaxFrames || len > kMaxLength) return false;
    for (int t = 0; t < in.frame_count; ++t) {
      const std::int16_t* const frame = in.frames[t];
      if (shared && !split_any(frame, in.frame_len, both_[t])) return false;
      for (int p = 0; p < in.positions && !shared; ++p) {
        const int start = p * in.step;
        const int left = in.frame_len - start < window ? in.frame_len - start : window;
        if (!split_any(frame + start, left, both_[t] + p * step_)) return false;
      }
    }
    return true;
  }
  // The window of a position.
  const std::int8_t* window(int t, int position) const { return both_[t] + position * step_; }

 private:
  static constexpr int kMaxFrames = 3, kMaxLength = 1152;

  // Fills the last group up with zeros.
  static bool split_any(const std::int16_t* q, int n, std::int8_t* both) {
    const int whole = n / kGroup * kGroup;
    if (!split_both(q, whole, both)) return false;
    if (whole == n) return true;
    std::int16_t last[kGroup] = {};
    std::memcpy(last, q + whole, static_cast<std::size_t>(n - whole) * sizeof *q);
    return split_both(last, kGroup, both + 2 * whole);
  }

  int step_;  // bytes from window to window
  std::int8_t both_[kMaxFrames][2 * kMaxLength];
};

// The outputs of eight rows from `first` on at kPositions positions from `position` on.
__attribute__((noinline)) void convolve_tile(const PackedMatrix& m, const ConvInput& in,
                                             const SplitFrames& frames, const OutputScale& out,
                                             int first, int position, float* y) {
  const int window = round_up(in.window, kGroup);
  const std::int8_t* w = m.weights + first * in.frame_count * window;
  BlockSums sum[kPositions][2];
  unrolled<kPositions>([&](int p) SE_INLINE {
    sum[p][0] = sum[p][1] = {vdupq_n_s32(0), vdupq_n_s32(0)};
  });
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int8_t* x[kPositions];
    unrolled<kPositions>([&](int p) SE_INLINE { x[p] = frames.window(t, position + p); });
    for (int steps = window / kGroup; steps > 0; --steps) {
      const int8x16x4_t bytes = vld1q_s8_x4(w);
      step(w, kLoad);
      unrolled<kPositions>([&](int p) SE_INLINE {
        const int8x16_t both = vld1q_s8(x[p]);
        step(x[p], kBoth);
        add_products(sum[p], bytes, both);
      });
    }
  }
  y += position * m.rows;
  unrolled<2>([&](int b) SE_INLINE {
    store_outputs<kPositions>(out, first + b * kBlock, m.rows, y,
                              [&](int p) SE_INLINE { return sum[p][b].total(); });
  });
}

void packed_convolve(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                     const OutputScale& out, float* y) {
  SplitFrames frames;
  if (m.rows % kLanes != 0 || in.positions % kPositions != 0 || !frames.set(in)) {
    return g_base.convolve(m, in, out, y);
  }
  for (int first = 0; first < m.rows; first += kLanes) {
    for (int p = 0; p < in.positions; p += kPositions) {
      convolve_tile(packed, in, frames, out, first, p, y);
    }
  }
}

}  // namespace

void use_i8mm(NnKernels& k) {
  g_base = k;
  k.product_order = kProductOrder;
  k.packed_product = packed_product;
  k.convolve_order = kConvolveOrder;
  k.packed_convolve = packed_convolve;
}

}  // namespace se
