// Kernels of the denoiser: integer products, quantisation, activations.
#pragma once

namespace se {

struct NnKernels {
  char unused;
};

extern const NnKernels kScalarNn;

}  // namespace se
