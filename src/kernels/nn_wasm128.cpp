// Kernels of the denoiser for WebAssembly's vectors.
//
// Integer products: a row's weights are widened and multiplied with the activations in pairs
// (i32x4.dot_i16x8), sixteen columns per step. One vector of activations meets four rows at a time,
// a convolution four rows at two positions, so that loads and widenings serve several products.
#include "kernels/tanh.h"
#include "kernels/unrolled.h"
#include "kernels/variants.h"
#include "kernels/wasm128.h"

namespace se {
namespace {

using namespace wasm128;

constexpr int kRows = 4;           // of a block of products
constexpr int kConvPositions = 2;  // of a block of a convolution
constexpr int kMaxPatch = 576;     // longest row: nine windows' places of 64 channels

// The products of kRows rows of weights, `cols` apart, with kVectors vectors of activations,
// `q_step` apart: sum[vector] holds one total per row. `cols` is a multiple of 8.
template <int kVectors>
inline void dot_rows(const std::int8_t* w, int cols, const std::int16_t* q, int q_step,
                     v128_t (&sum)[kVectors]) {
  v128_t part[kVectors][kRows];
  for (auto& vector : part) {
    for (v128_t& row : vector) row = wasm_i32x4_splat(0);
  }
  int i = 0;
  for (; i + 16 <= cols; i += 16) {
    v128_t low[kVectors], high[kVectors];
    unrolled<kVectors>([&](int v) SE_INLINE {
      low[v] = wasm_v128_load(q + v * q_step + i);
      high[v] = wasm_v128_load(q + v * q_step + i + 8);
    });
    unrolled<kRows>([&](int r) SE_INLINE {
      const v128_t bytes = wasm_v128_load(w + r * cols + i);
      const v128_t w_low = wasm_i16x8_extend_low_i8x16(bytes);
      const v128_t w_high = wasm_i16x8_extend_high_i8x16(bytes);
      unrolled<kVectors>([&](int v) SE_INLINE {
        part[v][r] = wasm_i32x4_add(part[v][r], wasm_i32x4_dot_i16x8(w_low, low[v]));
        part[v][r] = wasm_i32x4_add(part[v][r], wasm_i32x4_dot_i16x8(w_high, high[v]));
      });
    });
  }
  if (i < cols) {
    unrolled<kRows>([&](int r) SE_INLINE {
      const v128_t w_last = wasm_i16x8_load8x8(w + r * cols + i);
      unrolled<kVectors>([&](int v) SE_INLINE {
        const v128_t last = wasm_v128_load(q + v * q_step + i);
        part[v][r] = wasm_i32x4_add(part[v][r], wasm_i32x4_dot_i16x8(w_last, last));
      });
    });
  }
  unrolled<kVectors>([&](int v) SE_INLINE {
    const auto halves = [](v128_t a, v128_t b) {
      return wasm_i32x4_add(wasm_i32x4_shuffle(a, b, 0, 1, 4, 5),
                            wasm_i32x4_shuffle(a, b, 2, 3, 6, 7));
    };
    const v128_t a = halves(part[v][0], part[v][1]), b = halves(part[v][2], part[v][3]);
    sum[v] =
        wasm_i32x4_add(wasm_i32x4_shuffle(a, b, 0, 2, 4, 6), wasm_i32x4_shuffle(a, b, 1, 3, 5, 7));
  });
}

// The three rows lie side by side in the lanes, the fourth counts nowhere. A band is complete when
// the bins of the next one start.
void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride) {
  v128_t own = wasm_f32x4_splat(0.0f);
  v128_t next = own;
  const auto store = [y_stride](float* to, v128_t v) {
    to[0] = wasm_f32x4_extract_lane(v, 0);
    to[y_stride] = wasm_f32x4_extract_lane(v, 1);
    to[2 * y_stride] = wasm_f32x4_extract_lane(v, 2);
  };
  int band = 0;
  for (int k = 0; k < shares.bins; ++k, ++x) {
    if (shares.band[k] != band) {
      ++band;
      store(y++, own);
      own = next;
      next = wasm_f32x4_splat(0.0f);
    }
    const v128_t v = wasm_f32x4_make(x[0], x[x_stride], x[2 * x_stride], 0.0f);
    const v128_t f = wasm_f32x4_splat(shares.fraction[k]);
    const v128_t r = wasm_f32x4_splat(shares.inverse_width[k]);
    next = fused(wasm_f32x4_mul(f, v), r, next);
    own = fused(wasm_f32x4_sub(wasm_f32x4_splat(1.0f), f), wasm_f32x4_mul(v, r), own);
  }
  store(y, own);
  store(y + 1, next);
}

void expand(const BinShares& shares, const float* x, float* y) {
  BinShares at = shares;
  for (int steps = shares.bins / 4; steps > 0; --steps, y += 4) {
    const float* const band[4] = {x + at.band[0], x + at.band[1], x + at.band[2], x + at.band[3]};
    const v128_t own = wasm_f32x4_make(band[0][0], band[1][0], band[2][0], band[3][0]);
    const v128_t next = wasm_f32x4_make(band[0][1], band[1][1], band[2][1], band[3][1]);
    const v128_t f = wasm_v128_load(at.fraction);
    const v128_t share = wasm_f32x4_sub(wasm_f32x4_splat(1.0f), f);
    const v128_t value = fused(own, share, wasm_f32x4_mul(next, f));
    wasm_v128_store(y, wasm_f32x4_mul(value, wasm_v128_load(at.inverse_width)));
    at = {at.bins - 4, at.band + 4, at.fraction + 4, at.inverse_width + 4};
  }
  kScalarNn.expand(at, x, y);
}

// Rounds halves away from zero. The conversion truncates and saturates, NaN gives 0; narrowing
// saturates again, so that no clamp is needed ahead.
void quantise(const float* x, int n, float scale, std::int16_t* q) {
  const auto rounded = [scale](const float* from) {
    const v128_t scaled = wasm_f32x4_mul(wasm_v128_load(from), wasm_f32x4_splat(scale));
    const v128_t half = with_sign_of(wasm_f32x4_splat(0.5f), scaled);
    return wasm_i32x4_trunc_sat_f32x4(wasm_f32x4_add(scaled, half));
  };
  for (; n >= 8; n -= 8, x += 8, q += 8) {
    wasm_v128_store(q, wasm_i16x8_narrow_i32x4(rounded(x), rounded(x + 4)));
  }
  kScalarNn.quantise(x, n, scale, q);
}

void product(const Matrix& m, const std::int16_t* q, std::int32_t* sums) {
  if (m.rows < kRows || m.cols % 8 != 0) return kScalarNn.product(m, q, sums);
  for (int done = 0; done < m.rows; done += kRows) {
    const int r = block_start(done, m.rows, kRows);
    v128_t sum[1];
    dot_rows(m.weights + r * m.cols, m.cols, q, 0, sum);
    wasm_v128_store(sums + r, sum[0]);
  }
}

// The windows of a position put together into one run in the order of the weights, zeros behind it.
inline void gather(const ConvInput& in, int position, int row_len, std::int16_t* patch) {
  const int last = in.window - 8;
  for (int t = 0; t < in.frame_count; ++t, patch += in.window) {
    const std::int16_t* from = in.frames[t] + position * in.step;
    wasm_v128_store(patch + last, wasm_v128_load(from + last));
    for (int i = 0; i < last; i += 8) wasm_v128_store(patch + i, wasm_v128_load(from + i));
  }
  for (int i = in.frame_count * in.window; i < row_len; ++i) *patch++ = 0;
}

void convolve(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  if (m.cols % 8 != 0 || m.cols > kMaxPatch || m.rows < kRows || in.window < 8 ||
      in.positions < kConvPositions) {
    return kScalarNn.convolve(m, in, out, y);
  }
  std::int16_t patches[kConvPositions * kMaxPatch];
  for (int done = 0; done < in.positions; done += kConvPositions) {
    const int position = block_start(done, in.positions, kConvPositions);
    for (int p = 0; p < kConvPositions; ++p) {
      gather(in, position + p, m.cols, patches + p * kMaxPatch);
    }
    for (int row = 0; row < m.rows; row += kRows) {
      const int r = block_start(row, m.rows, kRows);
      v128_t sum[kConvPositions];
      dot_rows(m.weights + r * m.cols, m.cols, patches, kMaxPatch, sum);
      const v128_t scale =
          wasm_f32x4_mul(wasm_v128_load(out.scale + r), wasm_f32x4_splat(out.unit));
      for (int p = 0; p < kConvPositions; ++p) {
        const v128_t scaled = wasm_f32x4_mul(wasm_f32x4_convert_i32x4(sum[p]), scale);
        wasm_v128_store(y + (position + p) * m.rows + r,
                        wasm_f32x4_add(scaled, wasm_v128_load(out.bias + r)));
      }
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  for (; n >= 4; n -= 4, x += 4, mul += 4, add += 4, y += 4) {
    const v128_t v = fused(wasm_v128_load(x), wasm_v128_load(mul), wasm_v128_load(add));
    const v128_t kept = wasm_v128_and(v, wasm_f32x4_gt(v, wasm_f32x4_splat(0.0f)));  // NaN: 0
    wasm_v128_store(y, wasm_f32x4_pmin(wasm_f32x4_splat(kActivationLimit), kept));
  }
  kScalarNn.normalise(x, mul, add, n, y);
}

void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y) {
  for (; n >= 4; n -= 4, update += 4, candidate += 4, state += 4, y += 4) {
    const v128_t z = wasm_v128_load(update);
    const v128_t fresh =
        wasm_f32x4_mul(wasm_f32x4_sub(wasm_f32x4_splat(1.0f), z), wasm_v128_load(candidate));
    const v128_t old = wasm_f32x4_convert_i32x4(wasm_i32x4_load16x4(state));
    wasm_v128_store(y, fused(old, wasm_f32x4_mul(z, wasm_f32x4_splat(kStateUnit)), fresh));
  }
  kScalarNn.gru_blend(update, candidate, state, n, y);
}

void tanh_in_place(float* x, int n) {
  for (; n >= 4; n -= 4, x += 4) wasm_v128_store(x, tanh_of(Float4{wasm_v128_load(x)}).v);
  kScalarNn.tanh(x, n);
}

void sigmoid_in_place(float* x, int n) {
  for (; n >= 4; n -= 4, x += 4) wasm_v128_store(x, sigmoid_of(Float4{wasm_v128_load(x)}).v);
  kScalarNn.sigmoid(x, n);
}

}  // namespace

void use_wasm128(NnKernels& k) {
  k.pool = pool;
  k.expand = expand;
  k.quantise = quantise;
  k.product = product;
  k.convolve = convolve;
  k.normalise = normalise;
  k.gru_blend = gru_blend;
  k.tanh = tanh_in_place;
  k.sigmoid = sigmoid_in_place;
}

}  // namespace se
