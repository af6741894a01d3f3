// AVX2 kernels of the denoiser that the AVX-512 variant uses as they are.
#pragma once

#include "kernels/nn_kernels.h"

namespace se::avx2 {

void pool(const BinShares& shares, const float* x, int x_stride, float* y, int y_stride);
void expand(const BinShares& shares, const float* x, float* y);
void compress(const float* x, int n, float* y);
void quantise(const float* x, int n, float scale, std::int16_t* q);
void convolve(const IntegerLayer& layer, const ConvInput& in, float* y);
void normalise(const float* x, const float* mul, const float* add, int n, float* y);
void gru_blend(const float* update, const float* candidate, const std::int16_t* state, int n,
               float* y);

}  // namespace se::avx2
