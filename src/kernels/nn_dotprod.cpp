// Denoiser kernels for AArch64 with dot products (ARMv8.2 and later): the integer products;
// everything else stays with NEON.
//
// The instruction adds four products of bytes to each 32-bit lane. An activation is therefore split
// in two, x = 128 * high + low with low from 0 to 127, and the products of both parts are summed
// apart and put together at the end: two multiply-adds per sixteen weights instead of four behind
// two widenings. What is outside -16384..16383 has no such parts, which the denoiser's activations
// (at most 6 in Q11) never are; such calls, and lengths that fit no vector, go to NEON.
#include "kernels/nn_arm.h"
#include "kernels/nn_neon.h"
#include "kernels/variants.h"

namespace se {
namespace dotprod {
namespace {

using namespace neon;

constexpr int kStep = 16;  // bytes of a vector
constexpr int kLowBits = 7;

// The parts of `n` values, a multiple of 8. False where a value has none.
bool split(const std::int16_t* q, int n, std::int8_t* high, std::int8_t* low) {
  int16x8_t outside = vdupq_n_s16(0);
  for (; n > 0; n -= 8, q += 8, high += 8, low += 8) {
    const int16x8_t x = vld1q_s16(q);
    outside = vorrq_s16(outside, veorq_s16(x, vshlq_n_s16(x, 1)));  // do the top two bits differ?
    vst1_s8(high, vshrn_n_s16(x, kLowBits));
    vst1_s8(low, vmovn_s16(vandq_s16(x, vdupq_n_s16((1 << kLowBits) - 1))));
  }
  return vminvq_s16(outside) >= 0;
}

// The sums of four rows from those of their parts.
inline int32x4_t joined_totals(const int32x4_t* high, const int32x4_t* low) {
  const int32x4_t highs = totals(high[0], high[1], high[2], high[3]);
  return vaddq_s32(vshlq_n_s32(highs, kLowBits), totals(low[0], low[1], low[2], low[3]));
}

inline int8x16_t load_and_step(const std::int8_t*& from) {
  const int8x16_t v = vld1q_s8(from);
  step(from, kStep);
  return v;
}

// A vector of activations in parts, zeros behind them.
class SplitVector {
 public:
  static bool fits(int length) { return length % 8 == 0 && length <= kMaxLength; }

  bool set(const std::int16_t* q, int length) {
    length_ = length;
    vst1_s8(high_ + length, vdup_n_s8(0));
    vst1_s8(low_ + length, vdup_n_s8(0));
    return split(q, length, high_, low_);
  }

  int length() const { return length_; }

  // Not inlined, so that nothing of its callers competes for its registers.
  __attribute__((noinline)) Int32x8 eight_rows(const std::int8_t* weights) const {
    int32x4_t high[kRows], low[kRows];
    const std::int8_t* w[kRows];
    unrolled<kRows>([&](int r) SE_INLINE {
      high[r] = low[r] = vdupq_n_s32(0);
      w[r] = weights + r * length_;
    });
    const std::int8_t *q_high = high_, *q_low = low_;
    const auto add = [&](auto load) SE_INLINE {
      const int8x16_t x_high = vld1q_s8(q_high), x_low = vld1q_s8(q_low);
      unrolled<kRows>([&](int r) SE_INLINE {
        const int8x16_t row = load(w[r]);
        high[r] = vdotq_s32(high[r], row, x_high);
        low[r] = vdotq_s32(low[r], row, x_low);
      });
    };
    for (int steps = length_ / kStep; steps > 0; --steps) {
      add([](const std::int8_t*& from) SE_INLINE { return load_and_step(from); });
      q_high += kStep;
      q_low += kStep;
    }
    if (length_ % kStep != 0) {  // eight more
      add([](const std::int8_t* from)
              SE_INLINE { return vcombine_s8(vld1_s8(from), vdup_n_s8(0)); });
    }
    return {joined_totals(high, low), joined_totals(high + 4, low + 4)};
  }

 private:
  static constexpr int kMaxLength = 400;

  std::int8_t high_[kMaxLength + 8];
  std::int8_t low_[kMaxLength + 8];
  int length_ = 0;
};

void affine(const IntegerLayer& layer, const std::int16_t* q, float* y) {
  SplitVector vector;
  if (layer.rows < kRows || !SplitVector::fits(layer.row_len) || !vector.set(q, layer.row_len)) {
    return neon::affine(layer, q, y);
  }
  affine_rows(layer, vector, y);
}

// Both vectors of a GRU step. False where they have no parts.
bool split_step(const GruStep& step, SplitVector& input, SplitVector& state) {
  return step.hidden_size >= kRows && SplitVector::fits(step.hidden_size) &&
         SplitVector::fits(step.input_size) && input.set(step.input, step.input_size) &&
         state.set(step.state, step.hidden_size);
}

void gru_gate(const GruGate& gate, const GruStep& step, float* y) {
  SplitVector input, state;
  if (!split_step(step, input, state)) return neon::gru_gate(gate, step, y);
  gate_rows(gate, input, state, y);
}

void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y) {
  SplitVector input, state;
  if (!split_step(step, input, state)) return neon::gru_candidate(gate, step, reset, y);
  candidate_rows(gate, input, state, reset, y);
}

// ---- Convolutions -------------------------------------------------------------------------------

constexpr int kConvRows = 4;       // of one block of products
constexpr int kConvPositions = 2;  // of one block

// The frames of a convolution in parts. Every value is split once, however many windows hold it.
class SplitFrames {
 public:
  bool set(const ConvInput& in) {
    if (in.frame_count > kMaxFrames || in.frame_len > kMaxLength || in.frame_len % 8 != 0) {
      return false;
    }
    for (int t = 0; t < in.frame_count; ++t) {
      if (!split(in.frames[t], in.frame_len, high_[t], low_[t])) return false;
    }
    return true;
  }
  const std::int8_t* high(int t) const { return high_[t]; }
  const std::int8_t* low(int t) const { return low_[t]; }

 private:
  static constexpr int kMaxFrames = 3, kMaxLength = 1152;

  std::int8_t high_[kMaxFrames][kMaxLength];
  std::int8_t low_[kMaxFrames][kMaxLength];
};

// The outputs of kConvRows rows from `row` on at kConvPositions positions from `position` on.
__attribute__((noinline)) void convolve_block(const IntegerLayer& layer, const ConvInput& in,
                                              const SplitFrames& frames, int row, int position,
                                              float* y) {
  int32x4_t high[kConvPositions][kConvRows], low[kConvPositions][kConvRows];
  unrolled<kConvPositions>([&](int p) SE_INLINE {
    unrolled<kConvRows>([&](int r) SE_INLINE { high[p][r] = low[p][r] = vdupq_n_s32(0); });
  });
  const std::int8_t* w[kConvRows];
  unrolled<kConvRows>([&](int r) SE_INLINE { w[r] = layer.weights + (row + r) * layer.row_len; });
  for (int t = 0; t < in.frame_count; ++t) {
    const std::int8_t *q_high[kConvPositions], *q_low[kConvPositions];
    unrolled<kConvPositions>([&](int p) SE_INLINE {
      q_high[p] = frames.high(t) + (position + p) * in.step;
      q_low[p] = frames.low(t) + (position + p) * in.step;
    });
    for (int steps = in.window / kStep; steps > 0; --steps) {
      int8x16_t x_high[kConvPositions], x_low[kConvPositions];
      unrolled<kConvPositions>([&](int p) SE_INLINE {
        x_high[p] = load_and_step(q_high[p]);
        x_low[p] = load_and_step(q_low[p]);
      });
      unrolled<kConvRows>([&](int r) SE_INLINE {
        const int8x16_t weights = load_and_step(w[r]);
        unrolled<kConvPositions>([&](int p) SE_INLINE {
          high[p][r] = vdotq_s32(high[p][r], weights, x_high[p]);
          low[p][r] = vdotq_s32(low[p][r], weights, x_low[p]);
        });
      });
    }
  }
  const float32x4_t scale = vmulq_n_f32(vld1q_f32(layer.scale + row), layer.unit);
  const float32x4_t bias = vld1q_f32(layer.bias + row);
  unrolled<kConvPositions>([&](int p) SE_INLINE {
    const float32x4_t total = vcvtq_f32_s32(joined_totals(high[p], low[p]));
    vst1q_f32(y + (position + p) * layer.rows + row, vmlaq_f32(bias, total, scale));
  });
}

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  SplitFrames frames;
  if (in.window % kStep != 0 || layer.rows < kConvRows || in.positions < kConvPositions ||
      !frames.set(in)) {
    return neon::convolve(layer, in, y);
  }
  for (int row = 0; row < layer.rows; row += kConvRows) {
    for (int position = 0; position < in.positions; position += kConvPositions) {
      convolve_block(layer, in, frames, block_start(row, layer.rows, kConvRows),
                     block_start(position, in.positions, kConvPositions), y);
    }
  }
}

}  // namespace
}  // namespace dotprod

const NnKernels kDotprodNn = {neon::pool,      neon::expand,        neon::compress,
                              neon::quantise,  dotprod::affine,     dotprod::convolve,
                              neon::normalise, dotprod::gru_gate,   dotprod::gru_candidate,
                              neon::gru_blend, neon::tanh_in_place, neon::sigmoid_in_place};

}  // namespace se
