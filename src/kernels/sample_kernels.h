// Kernels of time-domain samples: conversion, limits, peaks, ramps.
#pragma once

#include <cstdint>

namespace se {

constexpr float kS16Scale = 32768.0f;  // full scale of 16-bit samples

// All arrays may start anywhere; `n` may be 0. `in` and `out` overlap only where said.
struct SampleKernels {
  // 16-bit samples to full scale +-1.0: times 1/32768, exact.
  void (*s16_to_float)(const std::int16_t* in, float* out, int n);

  // Full scale +-1.0 to 16-bit samples: times 32768, clamped to -32768..32767, truncated toward
  // zero. NaN becomes 0.
  void (*float_to_s16)(const float* in, std::int16_t* out, int n);

  // out[i] = in[i] held within +-limit, 0 for NaN. Subnormals may become 0.
  void (*limit)(const float* in, float limit, float* out, int n);

  // The largest magnitude, 0 for none. NaNs do not count.
  float (*peak)(const float* x, int n);

  // out[i] = in[i] * (start + i * step), nothing fused. `in` may be `out`.
  void (*apply_ramp)(const float* in, float start, float step, float* out, int n);
};

extern const SampleKernels kScalarSample;

}  // namespace se
