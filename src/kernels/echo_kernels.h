// Kernels of the adaptive filters of the echo canceller.
#pragma once

namespace se {

struct EchoKernels {
  char unused;
};

extern const EchoKernels kScalarEcho;

}  // namespace se
