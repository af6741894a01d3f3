// What happens when the library is loaded: the floating-point mode is set and the kernel variant
// chosen.
#include "common/float_mode.h"
#include "kernels/kernels.h"

namespace se {

const Kernels kScalarKernels = {"scalar", &kScalarSpectral, &kScalarEcho, &kScalarNn,
                                &kScalarSample};

namespace {

const Kernels* g_active = &kScalarKernels;

__attribute__((constructor)) void on_load() {
  flush_subnormals_to_zero();
}

}  // namespace

const Kernels& kernels() {
  return *g_active;
}

}  // namespace se
