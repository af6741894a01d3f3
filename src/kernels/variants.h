// What each instruction set contributes: every function replaces, in the table of its base, the
// kernels that its instruction set does better. A source kernels/*_NAME.cpp defines the functions
// use_NAME; dispatch.cpp lists the variants of this build.
#pragma once

#include "kernels/echo_kernels.h"
#include "kernels/nn_kernels.h"
#include "kernels/noise_kernels.h"
#include "kernels/sample_kernels.h"
#include "kernels/spectral_kernels.h"

namespace se {

void use_avx2(SpectralKernels& k);
void use_avx2(EchoKernels& k);
void use_avx2(NnKernels& k);
void use_avx2(NoiseKernels& k);
void use_avx2(SampleKernels& k);
void use_avx2_products(NnKernels& k);  // parts of that room,
void use_avx2_packed(NnKernels& k);    // which it calls itself
void use_avx2_convolutions(NnKernels& k);

void use_avxvnni(NnKernels& k);

void use_avx512(NnKernels& k);

void use_neon(SpectralKernels& k);
void use_neon(EchoKernels& k);
void use_neon(NnKernels& k);
void use_neon_packed(NnKernels& k);  // a part of that room, which it calls itself
void use_neon(NoiseKernels& k);
void use_neon(SampleKernels& k);

void use_dotprod(NnKernels& k);

void use_i8mm(NnKernels& k);

void use_wasm128(SpectralKernels& k);
void use_wasm128(NnKernels& k);

}  // namespace se
