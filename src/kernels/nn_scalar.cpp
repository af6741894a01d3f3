// Scalar kernels of the denoiser: the definition of every variant.
//
// Written so that compilers turn the loops into whatever the baseline of the machine offers: the
// products are int16 x int16 into 32 bits (pmaddwd on x86-64), sums are unsigned and wrap.
#include <cmath>

#include "kernels/nn_kernels.h"
#include "kernels/tanh.h"

namespace se {
namespace {

constexpr float kFloor = 1e-8f;         // keeps magnitudes and features at or above 1e-4
constexpr float kGruUnit = 0x1p-19f;    // weight / 2^8 times activation / 2^11
constexpr float kStateUnit = 0x1p-11f;  // activation

std::uint32_t dot(const std::int8_t* w, const std::int16_t* q, int n) {
  std::uint32_t sum = 0;
  for (int i = 0; i < n; ++i) {
    sum += static_cast<std::uint32_t>(static_cast<std::int16_t>(w[i]) * q[i]);
  }
  return sum;
}

float dot_as_float(const std::int8_t* w, const std::int16_t* q, int n) {
  return static_cast<float>(static_cast<std::int32_t>(dot(w, q, n)));
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
  for (int i = 0; i < n; ++i) y[i] = std::sqrt(x[i] + kFloor);
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

void affine(const IntegerLayer& layer, const std::int16_t* q, float* y) {
  const std::int8_t* w = layer.weights;
  for (int r = 0; r < layer.rows; ++r, w += layer.row_len) {
    y[r] = dot_as_float(w, q, layer.row_len) * (layer.scale[r] * layer.unit) + layer.bias[r];
  }
}

void convolve(const IntegerLayer& layer, const ConvInput& in, float* y) {
  for (int p = 0; p < in.positions; ++p, y += layer.rows) {
    const std::int8_t* w = layer.weights;
    for (int r = 0; r < layer.rows; ++r, w += layer.row_len) {
      std::uint32_t sum = 0;
      for (int t = 0; t < in.frame_count; ++t) {
        sum += dot(w + t * in.window, in.frames[t] + p * in.step, in.window);
      }
      const auto value = static_cast<float>(static_cast<std::int32_t>(sum));
      y[r] = value * (layer.scale[r] * layer.unit) + layer.bias[r];
    }
  }
}

void normalise(const float* x, const float* mul, const float* add, int n, float* y) {
  // Two loops: where the machine has no fused instruction the first one is calls.
  for (int i = 0; i < n; ++i) y[i] = std::fma(x[i], mul[i], add[i]);
  for (int i = 0; i < n; ++i) {
    const float v = y[i] > 0.0f ? y[i] : 0.0f;
    y[i] = v < 6.0f ? v : 6.0f;
  }
}

// A power of two times an integer is exact, so adding it rounds once, fused or not.
void gru_gate(const GruGate& gate, const GruStep& step, float* y) {
  const std::int8_t* w_in = gate.weight_in;
  const std::int8_t* w_state = gate.weight_state;
  for (int r = 0; r < step.hidden_size; ++r) {
    float v = dot_as_float(w_in, step.input, step.input_size) * kGruUnit;
    v += gate.bias_in[r];
    v += dot_as_float(w_state, step.state, step.hidden_size) * kGruUnit;
    y[r] = v + gate.bias_state[r];
    w_in += step.input_size;
    w_state += step.hidden_size;
  }
}

void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y) {
  const std::int8_t* w_in = gate.weight_in;
  const std::int8_t* w_state = gate.weight_state;
  for (int r = 0; r < step.hidden_size; ++r) {
    float v = dot_as_float(w_state, step.state, step.hidden_size) * kGruUnit;
    v += gate.bias_state[r];
    v *= reset[r];
    v += dot_as_float(w_in, step.input, step.input_size) * kGruUnit;
    y[r] = v + gate.bias_in[r];
    w_in += step.input_size;
    w_state += step.hidden_size;
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
  for (int i = 0; i < n; ++i) x[i] = 0.5f * (tanh_scalar(0.5f * x[i]) + 1.0f);
}

}  // namespace

const NnKernels kScalarNn = {pool,          expand,    compress,      quantise,
                             affine,        convolve,  normalise,     gru_gate,
                             gru_candidate, gru_blend, tanh_in_place, sigmoid_in_place};

}  // namespace se
