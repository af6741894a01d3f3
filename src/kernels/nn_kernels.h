// Kernels of the denoiser: integer products, quantisation, activations.
//
// Lengths may be any positive number, pointers have the alignment of their element and nothing
// more, reads and writes stay within the arrays. Integer sums are exact modulo 2^32. Floating point
// follows the stated order per element; "fused" marks the only fused multiply-adds. Unless stated
// otherwise an output may not overlap an input.
#pragma once

#include <cstdint>

namespace se {

// How neighbouring bins share in bands: bin k lies at the fraction `fraction[k]` of band `band[k]`,
// whose width is 1 / `inverse_width[k]` bins, and counts for the next band by that fraction.
struct BinShares {
  int bins;
  const std::uint8_t* band;  // ascending, from 0, without gaps
  const float* fraction;
  const float* inverse_width;
};

// The parameters of one gate of a GRU layer: `hidden` rows of each table, one bias per row. A
// stored weight stands for w / 256, an activation for q / 2048.
struct GruGate {
  const std::int8_t* weight_in;     // rows of `input_size`
  const std::int8_t* weight_state;  // rows of `hidden_size`
  const float* bias_in;
  const float* bias_state;
};

// What every gate of one GRU step reads.
struct GruStep {
  const std::int16_t* input;
  const std::int16_t* state;
  int input_size;
  int hidden_size;
};

// The input of a convolution along frequency: the last frames, margins included, oldest first. The
// window of position p is, in every frame, the run of `window` values that starts at p * step.
struct ConvInput {
  const std::int16_t* const* frames;
  int frame_count;
  int frame_len;  // at least (positions - 1) * step + window
  int window;
  int step;
  int positions;
};

// The parameters of an integer layer: a row of `row_len` weights, a scale and a bias per output.
struct IntegerLayer {
  const std::int8_t* weights;
  int rows;
  int row_len;
  const float* scale;
  float unit;  // what 1 of the activations stands for, a power of two
  const float* bias;
};

struct NnKernels {
  // Means of bins over bands, for three rows of `shares.bins` values, `x_stride` apart, into three
  // rows of band[bins - 1] + 2 values, `y_stride` apart. All start at 0; then, bin by bin with b =
  // band[k], f = fraction[k], r = inverse_width[k]: y[b + 1] = fused((f * x[k]) * r + y[b + 1]),
  // y[b] = fused((1 - f) * (x[k] * r) + y[b]).
  void (*pool)(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride);

  // The way back: y[k] = fused(x[b] * (1 - f) + x[b + 1] * f) * r.
  void (*expand)(const BinShares& shares, const float* x, float* y);

  // y[i] = sqrt(x[i] + 1e-8).
  void (*compress)(const float* x, int n, float* y);

  // q[i] = x[i] * scale rounded to the nearest integer, halves away from zero (add 0.5 with the
  // sign, truncate), saturated to -32768..32767; NaN gives 0. `scale` is a power of two.
  void (*quantise)(const float* x, int n, float scale, std::int16_t* q);

  // y[r] = float(sum of weights[r * row_len + i] * q[i]) * (scale[r] * unit) + bias[r].
  void (*affine)(const IntegerLayer& layer, const std::int16_t* q, float* y);

  // The same for every position p of a convolution, into y[p * rows + r]. The weights of a row run
  // frame after frame; what it holds past frame_count * window weights is not used.
  void (*convolve)(const IntegerLayer& layer, const ConvInput& in, float* y);

  // y[i] = fused(x[i] * mul[i] + add[i]) clamped to 0..6; NaN gives 0.
  void (*normalise)(const float* x, const float* mul, const float* add, int n, float* y);

  // The argument of a reset or update gate, for each row r, with the exact sums in = W_in input and
  // st = W_state state: y[r] = ((in * 2^-19 + bias_in[r]) + st * 2^-19) + bias_state[r].
  void (*gru_gate)(const GruGate& gate, const GruStep& step, float* y);

  // The argument of the candidate:
  // y[r] = ((st * 2^-19 + bias_state[r]) * reset[r] + in * 2^-19) + bias_in[r].
  void (*gru_candidate)(const GruGate& gate, const GruStep& step, const float* reset, float* y);

  // The new state: y[j] = fused(float(state[j]) * (z * 2^-11) + (1 - z) * candidate[j]), z =
  // update[j]. `y` may be `update` or `candidate`.
  void (*gru_blend)(const float* update, const float* candidate, const std::int16_t* state, int n,
                    float* y);

  // In place: x = tanh(x), and x = 0.5 * (tanh(0.5 * x) + 1), with the tanh of kernels/tanh.h.
  void (*tanh)(float* x, int n);
  void (*sigmoid)(float* x, int n);
};

extern const NnKernels kScalarNn;

}  // namespace se
