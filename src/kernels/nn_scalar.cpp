// Scalar kernels of the denoiser: the definition of every variant.
//
// Written so that compilers turn the loops into whatever the baseline of the machine offers: the
// products are int16 x int16 into 32 bits (pmaddwd on x86-64), sums are unsigned and wrap.
#include <cmath>

#include "kernels/nn_kernels.h"
#include "kernels/tanh.h"

namespace se {
namespace {

std::uint32_t dot(const std::int8_t* w, const std::int16_t* q, int n) {
  std::uint32_t sum = 0;
  for (int i = 0; i < n; ++i) {
    sum += static_cast<std::uint32_t>(static_cast<std::int16_t>(w[i]) * q[i]);
  }
  return sum;
}

void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride) {
  for (int row = 0; row < 3; ++row, x += x_stride, y += y_stride) {
    for (int b = 0; b <= shares.band[shares.bins - 1] + 1; ++b) y[b] = 0.0f;
    for (int k = 0; k < shares.bins; ++k) {
      const int b = shares.band[k];
      const float f = shares.fraction[k];
      const float r = shares.inverse_width[k];
      y[b + 1] = std::fma(f * x[k], r, y[b + 1]);
      y[b] = std::fma(1.0f - f, x[k] * r, y[b]);
    }
  }
}

void expand(const BinShares& shares, const float* x, float* y) {
  for (int k = 0; k < shares.bins; ++k) {
    const int b = shares.band[k];
    const float f = shares.fraction[k];
    y[k] = std::fma(x[b], 1.0f - f, x[b + 1] * f) * shares.inverse_width[k];
  }
}

void compress(const float* x, int n, float* y) {
  for (int i = 0; i < n; ++i) y[i] = std::sqrt(x[i] + kFeatureFloor);
}

void quantise(const float* x, int n, float scale, std::int16_t* q) {
  for (int i = 0; i < n; ++i) {
    float v = x[i] * scale;
    v = v == v ? v : 0.0f;
    v = v < 32767.0f ? v : 32767.0f;
    v = v > -32768.0f ? v : -32768.0f;
    v += v < 0.0f ? -0.5f : 0.5f;
    q[i] = static_cast<std::int16_t>(static_cast<std::int32_t>(v));
  }
}

void product(const Matrix& m, const std::int16_t* q, std::int32_t* sums) {
  for (int r = 0; r < m.rows; ++r) {
    sums[r] = static_cast<std::int32_t>(dot(m.weights + r * m.cols, q, m.cols));
  }
}

void scale_sums(const std::int32_t* sums, const OutputScale& out, int n, float* y) {
  for (int r = 0; r < n; ++r) {
    y[r] = static_cast<float>(sums[r]) * (out.scale[r] * out.unit) + out.bias[r];
  }
}

void convolve(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y) {
  for (int p = 0; p < in.positions; ++p) {
    const std::int8_t* w = m.weights;
    for (int r = 0; r < m.rows; ++r, w += m.cols) {
      std::uint32_t sum = 0;
      for (int t = 0; t < in.frame_count; ++t) {
        sum += dot(w + t * in.window, in.frames[t] + p * in.step, in.window);
      }
      const auto value = static_cast<float>(static_cast<std::int32_t>(sum));
      *y++ = value * (out.scale[r] * out.unit) + out.bias[r];
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  // Two loops: where the machine has no fused instruction the first one is calls.
  for (int i = 0; i < n; ++i) y[i] = std::fma(x[i], mul[i], add[i]);
  for (int i = 0; i < n; ++i) {
    const float v = y[i] > 0.0f ? y[i] : 0.0f;
    y[i] = v < kActivationLimit ? v : kActivationLimit;
  }
}

// A power of two times an integer is exact, so adding it rounds once, fused or not.
void gru_gate(const GruGate& gate, int n, float* y) {
  for (int j = 0; j < n; ++j) {
    float v = static_cast<float>(gate.sum_in[j]) * kGruUnit + gate.bias_in[j];
    v += static_cast<float>(gate.sum_state[j]) * kGruUnit;
    y[j] = v + gate.bias_state[j];
  }
}

void gru_candidate(const GruGate& gate, const float* reset, int n, float* y) {
  for (int j = 0; j < n; ++j) {
    float v = static_cast<float>(gate.sum_state[j]) * kGruUnit + gate.bias_state[j];
    v *= reset[j];
    v += static_cast<float>(gate.sum_in[j]) * kGruUnit;
    y[j] = v + gate.bias_in[j];
  }
}

void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y) {
  for (int j = 0; j < n; ++j) {
    const float z = update[j];
    y[j] = std::fma(static_cast<float>(state[j]), z * kStateUnit, (1.0f - z) * candidate[j]);
  }
}

void tanh_in_place(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = tanh_scalar(x[i]);
}

void sigmoid_in_place(float* x, int n) {
  for (int i = 0; i < n; ++i) x[i] = sigmoid_of(Float1{x[i]}).v;
}

constexpr NnKernels table() {
  NnKernels k = {};
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
  return k;
}

}  // namespace

const NnKernels kScalarNn = table();

}  // namespace se
