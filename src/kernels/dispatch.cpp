// Chooses the kernel variant.
#include "kernels/kernels.h"

namespace se {

const Kernels kScalarKernels = {"scalar", &kScalarSpectral, &kScalarEcho, &kScalarNn,
                                &kScalarSample};

namespace {
const Kernels* g_active = &kScalarKernels;
}

const Kernels& kernels() {
  return *g_active;
}

}  // namespace se
