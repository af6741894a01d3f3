// The kernels of each instruction set, where the build has them.
#pragma once

#include "kernels/echo_kernels.h"
#include "kernels/nn_kernels.h"
#include "kernels/noise_kernels.h"
#include "kernels/sample_kernels.h"
#include "kernels/spectral_kernels.h"

namespace se {

#if SE_X86_KERNELS
extern const SpectralKernels kAvx2Spectral;
extern const EchoKernels kAvx2Echo;
extern const NnKernels kAvx2Nn;
extern const NoiseKernels kAvx2Noise;
extern const SampleKernels kAvx2Sample;

extern const NnKernels kAvx512Nn;
#endif

#if SE_NEON_KERNELS
extern const SpectralKernels kNeonSpectral;
extern const EchoKernels kNeonEcho;
extern const NnKernels kNeonNn;
extern const NoiseKernels kNeonNoise;
extern const SampleKernels kNeonSample;
#endif

#if SE_DOTPROD_KERNELS
extern const NnKernels kDotprodNn;
#endif

}  // namespace se
