// NEON kernels of the denoiser.
//
// Integer products: eight rows at a time, sixteen columns per step, so that the activations are
// loaded once for eight rows. Per row and step one load of weights, two widenings and four
// multiply-adds; the lanes of a row are added up once at its end. Convolutions take four rows and
// two or four positions at a time, so that the widening serves several positions, too.
#include "kernels/nn_neon.h"

#include "kernels/nn_arm.h"
#include "kernels/tanh.h"
#include "kernels/variants.h"

namespace se {
namespace neon {
namespace {

constexpr float kFloor = 1e-8f;
constexpr float kStateUnit = 0x1p-11f;

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

}  // namespace

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
    vst1q_f32(y, square_root(vaddq_f32(vld1q_f32(x), vdupq_n_f32(kFloor))));
  }
  kScalarNn.compress(x, n, y);
}

namespace {

// Rounds halves away from zero. The conversion truncates and saturates, NaN gives 0; narrowing
// saturates again, so that no clamp is needed ahead.
inline int16x4_t quantise4(float32x4_t x, float32x4_t scale) {
  const float32x4_t scaled = vmulq_f32(x, scale);
  const float32x4_t half = vbslq_f32(vdupq_n_u32(kSignBit), scaled, vdupq_n_f32(0.5f));
  return vqmovn_s32(vcvtq_s32_f32(vaddq_f32(scaled, half)));
}

}  // namespace

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

void affine(const IntegerLayer& layer, const std::int16_t* q, float* y) {
  if (layer.rows < kRows || layer.row_len % 8 != 0) return kScalarNn.affine(layer, q, y);
  affine_rows(layer, Vector16(q, layer.row_len), y);
}

namespace {

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
inline void convolve_block(const IntegerLayer& layer, int row, const std::int16_t* patches,
                           float* y) {
  int32x4_t sum[kConvPositions][kConvRows];
  clear(sum);
  add_products(layer.weights + row * layer.row_len, layer.row_len, patches, kMaxPatch, sum);
  const float32x4_t scale = vmulq_n_f32(vld1q_f32(layer.scale + row), layer.unit);
  const float32x4_t bias = vld1q_f32(layer.bias + row);
  y += row;
  for (int p = 0; p < kConvPositions; ++p, y += layer.rows) {
    const int32x4_t total = totals(sum[p][0], sum[p][1], sum[p][2], sum[p][3]);
    vst1q_f32(y, vmlaq_f32(bias, vcvtq_f32_s32(total), scale));
  }
}

}  // namespace

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  if (layer.row_len % 8 != 0 || layer.row_len > kMaxPatch || layer.rows < kConvRows ||
      in.window < 8 || in.positions < kConvPositions) {
    return kScalarNn.convolve(layer, in, y);
  }
  std::int16_t patches[kConvPositions * kMaxPatch];
  for (int done = 0; done < in.positions; done += kConvPositions) {
    const int position = block_start(done, in.positions, kConvPositions);
    for (int p = 0; p < kConvPositions; ++p) {
      gather(in, position + p, layer.row_len, patches + p * kMaxPatch);
    }
    for (int row = 0; row < layer.rows; row += kConvRows) {
      convolve_block(layer, block_start(row, layer.rows, kConvRows), patches,
                     y + position * layer.rows);
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  for (; n >= 4; n -= 4, x += 4, mul += 4, add += 4, y += 4) {
    const float32x4_t v = vfmaq_f32(vld1q_f32(add), vld1q_f32(x), vld1q_f32(mul));
    const uint32x4_t positive = greater(v, vdupq_n_f32(0.0f));  // not so for NaN
    const float32x4_t kept = vreinterpretq_f32_u32(vandq_u32(vreinterpretq_u32_f32(v), positive));
    vst1q_f32(y, vminq_f32(kept, vdupq_n_f32(6.0f)));
  }
  kScalarNn.normalise(x, mul, add, n, y);
}

namespace {

bool fits(const GruStep& step) {
  return step.hidden_size >= kRows && step.hidden_size % 8 == 0 && step.input_size % 8 == 0;
}

}  // namespace

void gru_gate(const GruGate& gate, const GruStep& step, float* y) {
  if (!fits(step)) return kScalarNn.gru_gate(gate, step, y);
  gate_rows(gate, Vector16(step.input, step.input_size), Vector16(step.state, step.hidden_size), y);
}

void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y) {
  if (!fits(step)) return kScalarNn.gru_candidate(gate, step, reset, y);
  candidate_rows(gate, Vector16(step.input, step.input_size),
                 Vector16(step.state, step.hidden_size), reset, y);
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

namespace {

// The constants in the order in which tanh4 takes them.
using T = TanhConstants;
constexpr float kTanhSequence[] = {
    T::kOdd[4],     T::kOdd[3],     T::kOdd[2],        T::kOdd[1],     T::kOdd[0],  //
    T::kLimit,      T::kRound,      T::kMinus2OverLn2,                              //
    -2.0f,          T::kLn2High,    T::kLn2Low,                                     //
    T::kExp[4],     T::kExp[3],     T::kExp[2],        T::kExp[1],     T::kExp[0],  //
    T::kInverse[5], T::kInverse[4], T::kInverse[3],    T::kInverse[2], T::kInverse[1],
    T::kInverse[0], T::kSplit};

// Loads the next constant into all lanes.
inline float32x4_t next(const float*& c) {
  const float32x4_t v = vld1q_dup_f32(c);
  step(c, 1);
  return v;
}

// The polynomial in x with the next `count` constants, every product rounded.
inline float32x4_t horner(const float*& c, int count, float32x4_t x) {
  float32x4_t p = next(c);
  for (int i = 1; i < count; ++i) p = vmlaq_f32(next(c), p, x);
  return p;
}

// tanh_scalar, lane by lane.
inline float32x4_t tanh4(float32x4_t x) {
  const float* c = kTanhSequence;

  const float32x4_t a = vabsq_f32(x);
  const float32x4_t s = vmulq_f32(a, a);
  const float32x4_t near = vmlaq_f32(a, a, vmulq_f32(s, horner(c, 5, s)));

  const float32x4_t b = vminq_f32(a, next(c));  // NaN stays
  const float32x4_t round = next(c);
  const float32x4_t shifted = vmlaq_f32(round, b, next(c));
  const float32x4_t n = vsubq_f32(shifted, round);
  float32x4_t r = vmulq_f32(b, next(c));
  r = vmlsq_f32(r, n, next(c));
  r = vmlsq_f32(r, n, next(c));
  const float32x4_t e = horner(c, 5, r);
  const float32x4_t one = vdupq_n_f32(1.0f);
  const uint32x4_t exponent = vshlq_n_u32(vreinterpretq_u32_f32(shifted), 23);
  const float32x4_t power =
      vreinterpretq_f32_u32(vaddq_u32(exponent, vreinterpretq_u32_f32(one)));  // 2^n
  const float32x4_t t = vmulq_f32(vaddq_f32(one, vmlaq_f32(r, vmulq_f32(r, r), e)), power);

  const float32x4_t q = horner(c, 6, t);
  const float32x4_t t2 = vaddq_f32(t, t);
  const float32x4_t far = vsubq_f32(one, vmlaq_f32(t2, t2, vmulq_f32(t, q)));

  // For values without sign, floats and their bits have the same order.
  const uint32x4_t is_near = vcltq_u32(vreinterpretq_u32_f32(a), vreinterpretq_u32_f32(next(c)));
  return vbslq_f32(vdupq_n_u32(kSignBit), x, vbslq_f32(is_near, near, far));
}

}  // namespace

void tanh_in_place(float* x, int n) {
  for (; n >= 4; n -= 4, x += 4) vst1q_f32(x, tanh4(vld1q_f32(x)));
  kScalarNn.tanh(x, n);
}

void sigmoid_in_place(float* x, int n) {
  const float32x4_t half = vdupq_n_f32(0.5f);
  for (; n >= 4; n -= 4, x += 4) {
    const float32x4_t t = tanh4(vmulq_f32(half, vld1q_f32(x)));
    vst1q_f32(x, vmulq_f32(half, vaddq_f32(t, vdupq_n_f32(1.0f))));
  }
  kScalarNn.sigmoid(x, n);
}

}  // namespace neon

const NnKernels kNeonNn = {neon::pool,      neon::expand,        neon::compress,
                           neon::quantise,  neon::affine,        neon::convolve,
                           neon::normalise, neon::gru_gate,      neon::gru_candidate,
                           neon::gru_blend, neon::tanh_in_place, neon::sigmoid_in_place};

}  // namespace se
