// Kernels of time-domain samples: conversion, peaks, ramps.
#pragma once

namespace se {

struct SampleKernels {
  char unused;
};

extern const SampleKernels kScalarSample;

}  // namespace se
