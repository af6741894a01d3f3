// Scalar kernels of transforms, windows, power spectra and gains: the definition of every variant.
#include "kernels/spectral_kernels.h"

namespace se {

const SpectralKernels kScalarSpectral = {0};

}  // namespace se
