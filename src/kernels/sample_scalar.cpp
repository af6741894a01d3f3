// Scalar kernels of time-domain samples: conversion, limits, peaks, ramps: the definition of every
// variant.
#include <cmath>

#include "kernels/sample_kernels.h"

namespace se {
namespace {

constexpr float kS16Min = -32768.0f;
constexpr float kS16Max = 32767.0f;

void s16_to_float(const std::int16_t* in, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = static_cast<float>(in[i]) * (1.0f / kS16Scale);
}

void float_to_s16(const float* in, std::int16_t* out, int n) {
  for (int i = 0; i < n; ++i) {
    const float scaled = in[i] * kS16Scale;
    const float not_above = scaled < kS16Max ? scaled : kS16Max;
    const float clamped = not_above > kS16Min ? not_above : kS16Min;
    out[i] = std::isnan(scaled) ? std::int16_t{0} : static_cast<std::int16_t>(clamped);
  }
}

void limit(const float* in, float limit, float* out, int n) {
  for (int i = 0; i < n; ++i) {
    const float number = std::isnan(in[i]) ? 0.0f : in[i];
    const float not_above = number < limit ? number : limit;
    out[i] = not_above > -limit ? not_above : -limit;
  }
}

float peak(const float* x, int n) {
  float largest = 0.0f;
  for (int i = 0; i < n; ++i) {
    const float magnitude = std::fabs(x[i]);
    largest = magnitude > largest ? magnitude : largest;
  }
  return largest;
}

void apply_ramp(const float* in, float start, float step, float* out, int n) {
  for (int i = 0; i < n; ++i) out[i] = in[i] * (start + static_cast<float>(i) * step);
}

constexpr SampleKernels table() {
  SampleKernels k = {};
  k.s16_to_float = s16_to_float;
  k.float_to_s16 = float_to_s16;
  k.limit = limit;
  k.peak = peak;
  k.apply_ramp = apply_ramp;
  return k;
}

}  // namespace

const SampleKernels kScalarSample = table();

}  // namespace se
