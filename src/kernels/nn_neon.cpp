// NEON kernels of the denoiser.
//
// Integer products: eight rows at a time, sixteen columns per step, so that the activations are
// loaded once for eight rows. Per row and step one load of weights, two widenings and four
// multiply-adds; the lanes of a row are added up once at its end. Convolutions take four rows and
// two or four positions at a time, so that the widening serves several positions, too.
#include "kernels/nn_arm.h"
#include "kernels/tanh.h"
#include "kernels/variants.h"

namespace se {
namespace {

using namespace neon;

// Of one block of a convolution: what the registers hold.
constexpr int kConvRows = 4;
#if defined(__aarch64__)
constexpr int kConvPositions = 4;
#else
constexpr int kConvPositions = 2;
#endif
constexpr int kMaxPatch = 576;  // longest row: nine windows' places of 64 channels

// Adds the products of kRowCount rows of weights, `cols` apart, with kVectors vectors of
// activations, `q_step` apart, to sum[vector][row]. `cols` is a multiple of 8. Weights are loaded
// and widened once for all vectors, activations loaded once for all rows.
template <int kVectors, int kRowCount>
SE_INLINE inline void add_products(const std::int8_t* weights, int cols,
                                   const std::int16_t* activations, int q_step,
                                   int32x4_t (&sum)[kVectors][kRowCount]) {
  // With one vector, two rows in turn: cores that execute in order then wait less for each.
  constexpr int kTogether = kVectors == 1 ? 2 : 1;
  const std::int8_t* w[kRowCount];
  const std::int16_t* q[kVectors];
  unrolled<kRowCount>([&](int r) SE_INLINE { w[r] = weights + r * cols; });
  unrolled<kVectors>([&](int v) SE_INLINE { q[v] = activations + v * q_step; });
  for (int steps = cols >> 4; steps > 0; --steps) {
    int16x8_t low[kVectors], high[kVectors];
    unrolled<kVectors>([&](int v) SE_INLINE {
      low[v] = vld1q_s16(q[v]);
      step(q[v], 8);
      high[v] = vld1q_s16(q[v]);
      step(q[v], 8);
    });
    unrolled<kRowCount / kTogether>([&](int group) SE_INLINE {
      int16x8_t w_low[kTogether], w_high[kTogether];
      unrolled<kTogether>([&](int i) SE_INLINE {
        const int8x16_t bytes = vld1q_s8(w[group * kTogether + i]);
        w[group * kTogether + i] += 16;
        w_low[i] = widen_low(bytes);
        w_high[i] = widen_high(bytes);
      });
      unrolled<kVectors>([&](int v) SE_INLINE {
        int32x4_t* const s = sum[v] + group * kTogether;
        unrolled<kTogether>([&](int i) SE_INLINE { s[i] = multiply_add(s[i], w_low[i], low[v]); });
        unrolled<kTogether>([&](int i)
                                SE_INLINE { s[i] = multiply_add(s[i], w_high[i], high[v]); });
      });
    });
  }
  if ((cols & 8) != 0) {
    int16x8_t last[kVectors];
    unrolled<kVectors>([&](int v) SE_INLINE { last[v] = vld1q_s16(q[v]); });
    unrolled<kRowCount>([&](int r) SE_INLINE {
      const int16x8_t w_last = vmovl_s8(vld1_s8(w[r]));
      unrolled<kVectors>([&](int v)
                             SE_INLINE { sum[v][r] = multiply_add(sum[v][r], w_last, last[v]); });
    });
  }
}

template <int kVectors, int kRowCount>
inline void clear(int32x4_t (&sum)[kVectors][kRowCount]) {
  unrolled<kVectors>([&](int v) SE_INLINE {
    unrolled<kRowCount>([&](int r) SE_INLINE { sum[v][r] = vdupq_n_s32(0); });
  });
}

// The products of eight rows with one vector. A function of its own, so that nothing of its callers
// competes for its registers.
__attribute__((noinline)) Int32x8 dot8(const std::int8_t* w, const std::int16_t* q, int cols) {
  int32x4_t sum[1][kRows];
  clear(sum);
  add_products(w, cols, q, 0, sum);
  return {totals(sum[0][0], sum[0][1], sum[0][2], sum[0][3]),
          totals(sum[0][4], sum[0][5], sum[0][6], sum[0][7])};
}

class Vector16 {
 public:
  Vector16(const std::int16_t* q, int length) : q_(q), length_(length) {}
  int length() const { return length_; }
  Int32x8 eight_rows(const std::int8_t* w) const { return dot8(w, q_, length_); }

 private:
  const std::int16_t* q_;
  int length_;
};

// The three rows lie side by side in the lanes, the fourth counts nowhere. A band is complete when
// the bins of the next one start.
void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride) {
  float32x4_t own = vdupq_n_f32(0.0f);
  float32x4_t next = own;
  const auto store = [y_stride](float* to, float32x4_t v) {
    vst1q_lane_f32(to, v, 0);
    vst1q_lane_f32(to + y_stride, v, 1);
    vst1q_lane_f32(to + 2 * y_stride, v, 2);
  };
  int band = 0;
  const auto add_bin = [&](int k, float32x4_t v) {
    if (shares.band[k] != band) {
      ++band;
      store(y++, own);
      own = next;
      next = vdupq_n_f32(0.0f);
    }
    const float32x4_t f = vld1q_dup_f32(shares.fraction + k);
    const float32x4_t r = vld1q_dup_f32(shares.inverse_width + k);
    next = vfmaq_f32(next, vmulq_f32(f, v), r);
    own = vfmaq_f32(own, vsubq_f32(vdupq_n_f32(1.0f), f), vmulq_f32(v, r));
  };
  int k = 0;
  for (; k + 4 <= shares.bins; k += 4, x += 4) {
    const float32x4_t c = vld1q_f32(x + 2 * x_stride);
    const float32x4x2_t ab = vtrnq_f32(vld1q_f32(x), vld1q_f32(x + x_stride));
    const float32x4x2_t cc = vtrnq_f32(c, c);
    add_bin(k, vcombine_f32(vget_low_f32(ab.val[0]), vget_low_f32(cc.val[0])));
    add_bin(k + 1, vcombine_f32(vget_low_f32(ab.val[1]), vget_low_f32(cc.val[1])));
    add_bin(k + 2, vcombine_f32(vget_high_f32(ab.val[0]), vget_high_f32(cc.val[0])));
    add_bin(k + 3, vcombine_f32(vget_high_f32(ab.val[1]), vget_high_f32(cc.val[1])));
  }
  for (; k < shares.bins; ++k, ++x) {
    float32x4_t v = vdupq_n_f32(0.0f);
    v = vld1q_lane_f32(x, v, 0);
    v = vld1q_lane_f32(x + x_stride, v, 1);
    add_bin(k, vld1q_lane_f32(x + 2 * x_stride, v, 2));
  }
  store(y, own);
  store(y + 1, next);
}

void expand(const BinShares& shares, const float* x, float* y) {
  BinShares at = shares;
  for (int steps = shares.bins / 4; steps > 0; --steps, y += 4) {
    const auto band_and_next = [&](int i) { return vld1_f32(x + at.band[i]); };
    const float32x4x2_t values = vuzpq_f32(vcombine_f32(band_and_next(0), band_and_next(1)),
                                           vcombine_f32(band_and_next(2), band_and_next(3)));
    const float32x4_t f = vld1q_f32(at.fraction);
    const float32x4_t share = vsubq_f32(vdupq_n_f32(1.0f), f);
    const float32x4_t value = vfmaq_f32(vmulq_f32(values.val[1], f), values.val[0], share);
    vst1q_f32(y, vmulq_f32(value, vld1q_f32(at.inverse_width)));
    at = {at.bins - 4, at.band + 4, at.fraction + 4, at.inverse_width + 4};
  }
  kScalarNn.expand(at, x, y);
}

void compress(const float* x, int n, float* y) {
  for (; n >= 4; n -= 4, x += 4, y += 4) {
    vst1q_f32(y, square_root(vaddq_f32(vld1q_f32(x), vdupq_n_f32(kFeatureFloor))));
  }
  kScalarNn.compress(x, n, y);
}

// Rounds halves away from zero. The conversion truncates and saturates, NaN gives 0; narrowing
// saturates again, so that no clamp is needed ahead.
inline int16x4_t quantise4(float32x4_t x, float32x4_t scale) {
  const float32x4_t scaled = vmulq_f32(x, scale);
  const float32x4_t half = vbslq_f32(vdupq_n_u32(kSignBit), scaled, vdupq_n_f32(0.5f));
  return vqmovn_s32(vcvtq_s32_f32(vaddq_f32(scaled, half)));
}

void quantise(const float* x, int n, float scale, std::int16_t* q) {
  const float32x4_t scales = vdupq_n_f32(scale);
  for (; n >= 8; n -= 8, q += 8) {
    const float32x4_t low = vld1q_f32(x);
    step(x, 4);
    const float32x4_t high = vld1q_f32(x);
    step(x, 4);
    vst1q_s16(q, vcombine_s16(quantise4(low, scales), quantise4(high, scales)));
  }
  kScalarNn.quantise(x, n, scale, q);
}

void product(const Matrix& m, const std::int16_t* q, std::int32_t* sums) {
  if (m.rows < kRows || m.cols % 8 != 0) return kScalarNn.product(m, q, sums);
  product_rows(m, Vector16(q, m.cols), sums);
}

void scale_sums(const std::int32_t* sums, const OutputScale& out, int n, float* y) {
  int i = 0;
  for (; i + 4 <= n; i += 4) {
    const float32x4_t scale = vmulq_n_f32(vld1q_f32(out.scale + i), out.unit);
    vst1q_f32(y + i, vmlaq_f32(vld1q_f32(out.bias + i), vcvtq_f32_s32(vld1q_s32(sums + i)), scale));
  }
  kScalarNn.scale_sums(sums + i, {out.scale + i, out.unit, out.bias + i}, n - i, y + i);
}

// A window of at least eight values. The last block may overlap the one before.
inline void copy_window(const std::int16_t* from, int window, std::int16_t* to) {
  const int last = window - 8;
  vst1q_s16(to + last, vld1q_s16(from + last));
  for (int steps = last >> 3; steps >= 0; --steps, from += 8, to += 8) {
    vst1q_s16(to, vld1q_s16(from));
  }
}

// The windows of a position put together into one run in the order of the weights, zeros behind it.
inline void gather(const ConvInput& in, int position, int row_len, std::int16_t* patch) {
  for (int t = 0; t < in.frame_count; ++t, patch += in.window) {
    copy_window(in.frames[t] + position * in.step, in.window, patch);
  }
  for (int i = in.frame_count * in.window; i < row_len; ++i) *patch++ = 0;
}

// The outputs of kConvRows rows from `row` on at kConvPositions positions.
inline void convolve_block(const Matrix& m, const OutputScale& out, int row,
                           const std::int16_t* patches, float* y) {
  int32x4_t sum[kConvPositions][kConvRows];
  clear(sum);
  add_products(m.weights + row * m.cols, m.cols, patches, kMaxPatch, sum);
  const float32x4_t scale = vmulq_n_f32(vld1q_f32(out.scale + row), out.unit);
  const float32x4_t bias = vld1q_f32(out.bias + row);
  y += row;
  for (int p = 0; p < kConvPositions; ++p, y += m.rows) {
    const int32x4_t total = totals(sum[p][0], sum[p][1], sum[p][2], sum[p][3]);
    vst1q_f32(y, vmlaq_f32(bias, vcvtq_f32_s32(total), scale));
  }
}

void convolve(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  if (m.cols % 8 != 0 || m.cols > kMaxPatch || m.rows < kConvRows || in.window < 8 ||
      in.positions < kConvPositions) {
    return kScalarNn.convolve(m, in, out, y);
  }
  std::int16_t patches[kConvPositions * kMaxPatch];
  for (int done = 0; done < in.positions; done += kConvPositions) {
    const int position = block_start(done, in.positions, kConvPositions);
    for (int p = 0; p < kConvPositions; ++p) {
      gather(in, position + p, m.cols, patches + p * kMaxPatch);
    }
    for (int row = 0; row < m.rows; row += kConvRows) {
      convolve_block(m, out, block_start(row, m.rows, kConvRows), patches, y + position * m.rows);
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  for (; n >= 4; n -= 4, x += 4, mul += 4, add += 4, y += 4) {
    const float32x4_t v = vfmaq_f32(vld1q_f32(add), vld1q_f32(x), vld1q_f32(mul));
    const uint32x4_t positive = greater(v, vdupq_n_f32(0.0f));  // not so for NaN
    const float32x4_t kept = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(v), positive));
    vst1q_f32(y, vminq_f32(kept, vdupq_n_f32(kActivationLimit)));
  }
  kScalarNn.normalise(x, mul, add, n, y);
}

constexpr int kGruFractionBits = 19;

inline float32x4_t load_and_step(const float*& x) {
  const float32x4_t v = vld1q_f32(x);
  step(x, 4);
  return v;
}

// Sums of a GRU. Exact but for the one rounding to single precision.
inline float32x4_t load_and_step(const std::int32_t*& sums) {
  const int32x4_t v = vld1q_s32(sums);
  step(sums, 4);
  return vcvtq_n_f32_s32(v, kGruFractionBits);
}

void gru_gate(const GruGate& gate, int n, float* y) {
  GruGate at = gate;
  for (; n >= 4; n -= 4, y += 4) {
    float32x4_t v = vaddq_f32(load_and_step(at.sum_in), load_and_step(at.bias_in));
    v = vaddq_f32(v, load_and_step(at.sum_state));
    vst1q_f32(y, vaddq_f32(v, load_and_step(at.bias_state)));
  }
  kScalarNn.gru_gate(at, n, y);
}

void gru_candidate(const GruGate& gate, const float* reset, int n, float* y) {
  GruGate at = gate;
  for (; n >= 4; n -= 4, y += 4) {
    const float32x4_t state = vaddq_f32(load_and_step(at.sum_state), load_and_step(at.bias_state));
    const float32x4_t both = vmlaq_f32(load_and_step(at.sum_in), state, load_and_step(reset));
    vst1q_f32(y, vaddq_f32(both, load_and_step(at.bias_in)));
  }
  kScalarNn.gru_candidate(at, reset, n, y);
}

void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y) {
  for (; n >= 4; n -= 4, update += 4, candidate += 4, state += 4, y += 4) {
    const float32x4_t z = vld1q_f32(update);
    const float32x4_t fresh = vmulq_f32(vsubq_f32(vdupq_n_f32(1.0f), z), vld1q_f32(candidate));
    const float32x4_t old = vcvtq_f32_s32(vmovl_s16(vld1_s16(state)));
    vst1q_f32(y, vfmaq_f32(fresh, old, vmulq_f32(z, vdupq_n_f32(kStateUnit))));
  }
  kScalarNn.gru_blend(update, candidate, state, n, y);
}

// Loads the constants one by one, stepping through them.
class Constants {
 public:
  Both<Float4> operator()() {
    const Float4 v = {vld1q_dup_f32(at_)};
    step(at_, 1);
    return {v, v};
  }

 private:
  const float* at_ = kTanhConstants;
};

// x[i] = f(x[i]) for eight values at a time, the last time for those that are left.
template <class Function>
inline void transform(float* x, int n, Function f) {
  const auto eight = [&](float* at) {
    const Both<Float4> y = f(Both<Float4>{{vld1q_f32(at)}, {vld1q_f32(at + 4)}});
    vst1q_f32(at, y.a.v);
    vst1q_f32(at + 4, y.b.v);
  };
  for (; n >= 8; n -= 8, x += 8) eight(x);
  if (n == 0) return;
  float last[8] = {};
  for (int i = 0; i < n; ++i) last[i] = x[i];
  eight(last);
  for (int i = 0; i < n; ++i) x[i] = last[i];
}

void tanh_in_place(float* x, int n) {
  transform(x, n, [](const Both<Float4>& v) SE_INLINE { return tanh_of(v, Constants()); });
}

void sigmoid_in_place(float* x, int n) {
  transform(x, n, [](const Both<Float4>& v) SE_INLINE { return sigmoid_of(v, Constants()); });
}

}  // namespace

void use_neon(NnKernels& k) {
  k.pool = pool;
  k.expand = expand;
  k.compress = compress;
  k.quantise = quantise;
  k.product = product;
  k.scale_sums = scale_sums;
  k.convolve = convolve;
  k.normalise = normalise;
  k.gru_gate = gru_gate;
  k.gru_candidate = gru_candidate;
  k.gru_blend = gru_blend;
  k.tanh = tanh_in_place;
  k.sigmoid = sigmoid_in_place;
  use_neon_packed(k);
}

}  // namespace se
