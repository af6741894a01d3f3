// Convolutions of the denoiser for AVX2.
#include "kernels/convolutions_256.h"
#include "kernels/variants.h"

namespace se {

void use_avx2_convolutions(NnKernels& k) {
  use_convolutions_256(k);
}

}  // namespace se
