// The NEON kernels of the denoiser, which the variant with dot products falls back on.
#pragma once

#include "kernels/nn_kernels.h"

namespace se::neon {

void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride);
void expand(const BinShares& shares, const float* x, float* y);
void compress(const float* x, int n, float* y);
void quantise(const float* x, int n, float scale, std::int16_t* q);
void affine(const IntegerLayer& layer, const std::int16_t* q, float* y);
void convolve(const IntegerLayer& layer, const ConvInput& in, float* y);
void normalise(const float* x, const float* mul, const float* add, int n, float* y);
void gru_gate(const GruGate& gate, const GruStep& step, float* y);
void gru_candidate(const GruGate& gate, const GruStep& step, const float* reset, float* y);
void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y);
void tanh_in_place(float* x, int n);
void sigmoid_in_place(float* x, int n);

}  // namespace se::neon
