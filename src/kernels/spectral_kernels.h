// Kernels of transforms, windows, power spectra and gains.
#pragma once

namespace se {

struct SpectralKernels {
  char unused;
};

extern const SpectralKernels kScalarSpectral;

}  // namespace se
