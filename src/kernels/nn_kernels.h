// Kernels of the denoiser: integer products, quantisation, activations.
//
// Lengths may be any positive number, pointers have the alignment of their element and nothing
// more, reads and writes stay within the arrays. Integer sums are exact modulo 2^32. Floating point
// follows the stated order per element; "fused" marks the only fused multiply-adds. Unless stated
// otherwise an output may not overlap an input.
#pragma once

#include <cstdint>

namespace se {

constexpr float kFeatureFloor = 1e-8f;    // keeps magnitudes and features at or above 1e-4
constexpr float kStateUnit = 0x1p-11f;    // of a GRU's activations
constexpr float kGruUnit = 0x1p-19f;      // of its products: a weight is w / 2^8
constexpr float kActivationLimit = 6.0f;  // of a convolution's normalised output

// How neighbouring bins share in bands: bin k lies at the fraction `fraction[k]` of band `band[k]`,
// whose width is 1 / `inverse_width[k]` bins, and counts for the next band by that fraction.
struct BinShares {
  int bins;
  const std::uint8_t* band;  // ascending, from 0, without gaps
  const float* fraction;
  const float* inverse_width;
};

// A matrix of weights, row after row.
struct Matrix {
  const std::int8_t* weights;
  int rows;
  int cols;
};

// The order in which a variant's products read weights, so that rows lie side by side in its lanes:
// `panel` rows after `panel` rows; within these, `group` columns after `group` columns; within
// these, row after row. Zeros fill the last panel up to a multiple of `lanes` rows and every row to
// a whole number of groups. A panel of 0 rows: the variant has no such product.
struct PackOrder {
  int panel, lanes, group;
};

// Sums that a variant would like to form in 16 bits: of the products of every other pair of weights
// in `columns` columns with parts of activations from 0 to `largest`. 0 columns: it forms none.
struct ShortSums {
  int columns, largest;
};

// A matrix in that order, on a boundary of 64 bytes; the sums of its rows, as many as lanes; and
// for every panel of a variant with short sums a set of bits: bit c tells that those over columns
// c * columns to (c + 1) * columns - 1 fit 16 bits in all rows, on the way and at the end.
struct PackedMatrix {
  const std::int8_t* weights;
  const std::int32_t* row_sums;
  const std::uint32_t* fits;
  int rows;
  int cols;
};

constexpr int kMostPackedCols = 512;
constexpr int kSpareSums = 15;  // what a packed product may write behind the sums of the rows

// The sums of both sides of a GRU's gate, W_in input and W_state state, and the biases, by unit. A
// stored weight stands for w / 256, an activation for q / 2048.
struct GruGate {
  const std::int32_t* sum_in;
  const std::int32_t* sum_state;
  const float* bias_in;
  const float* bias_state;
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

// What an integer layer makes of its sums: a scale and a bias per output.
struct OutputScale {
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

  // sums[r] = sum of m.weights[r * cols + i] * q[i].
  void (*product)(const Matrix& m, const std::int16_t* q, std::int32_t* sums);

  // The same with the matrix packed, of at most kMostPackedCols columns. Writes up to kSpareSums
  // more. A variant may take the plain matrix where that is better; the same goes for convolutions.
  PackOrder product_order;
  ShortSums short_sums;
  void (*packed_product)(const PackedMatrix& packed, const Matrix& m, const std::int16_t* q,
                         std::int32_t* sums);

  // y[r] = float(sums[r]) * (scale[r] * unit) + bias[r].
  void (*scale_sums)(const std::int32_t* sums, const OutputScale& out, int n, float* y);

  // For every position p of a convolution y[p * rows + r], made like that of the sum over its
  // windows. The weights of a row run frame after frame; what it holds past frame_count * window
  // weights is not used.
  void (*convolve)(const Matrix& m, const ConvInput& in, const OutputScale& out, float* y);

  // The same with packed weights, every frame's part of a row filled up to whole groups by itself.
  PackOrder convolve_order;
  void (*packed_convolve)(const PackedMatrix& packed, const Matrix& m, const ConvInput& in,
                          const OutputScale& out, float* y);

  // The same for windows of three steps, two positions at a time, with the weights as pack_pairs()
  // (kernels/packing.h) leaves them. Null: the variant has no such way.
  void (*paired_convolve)(const std::int16_t* pairs, const Matrix& m, const ConvInput& in,
                          const OutputScale& out, float* y);

  // y[i] = fused(x[i] * mul[i] + add[i]) clamped to 0..6; NaN gives 0.
  void (*normalise)(const float* x, const float* mul, const float* add, int n, float* y);

  // The argument of a reset or update gate, with in = float(sum_in[j]) * 2^-19 and st likewise:
  // y[j] = ((in + bias_in[j]) + st) + bias_state[j].
  void (*gru_gate)(const GruGate& gate, int n, float* y);

  // The argument of the candidate:
  // y[j] = ((st + bias_state[j]) * reset[j] + in) + bias_in[j].
  void (*gru_candidate)(const GruGate& gate, const float* reset, int n, float* y);

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
