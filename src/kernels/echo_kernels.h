// Kernels of the adaptive filters of the echo canceller.
#pragma once

#include <cstdint>

#include "speechenhance/types.h"

namespace se {

constexpr float kStepSize = 0.5f;       // of the normalised LMS step; 1 would be the fastest
constexpr float kEnergyFloor = 1e-7f;   // keeps the step finite without reference
constexpr float kDiverged = 8.0f;       // about 9 dB louder than the microphone
constexpr float kCancels = 8.0f;        // about 9 dB quieter than the microphone
constexpr float kClearlyBetter = 2.0f;  // about 3 dB quieter than the other filter
constexpr float kBeyondAudio = 1e16f;   // sum of smoothed powers; full scale in a bin is 65536

// A run of neighbouring bins of one microphone whose filters have the same number of taps. Arrays
// named "rows" are bin-major: the taps of a bin are consecutive, tap 0 (the newest frame) first.
// Rows start on 16-byte boundaries at the first bin; `mic` and `mic_power` may start anywhere.
struct EchoBand {
  int bins;
  float smoothing;            // share of the new frame in the smoothed powers
  const zel_lcomplex* ref;    // rows: the last frames of the reference
  const float* ref_energy;    // power of the bin's row
  const std::int32_t* adapt;  // 0 holds the adaptive filter
  zel_lcomplex* adaptive;     // rows: filter that follows the echo path
  zel_lcomplex* stored;       // rows: copy of a filter that worked well
  float* err_adaptive;        // smoothed powers: residual of the adaptive filter,
  float* err_stored;          // ... residual of the stored filter,
  float* mic_smooth;          // ... and of the microphone
  zel_lcomplex* mic;          // in: microphone bins; out: echo-reduced
  float* mic_power;           // their powers
};

// Order of operations that every variant keeps, per bin:
//   product   (re, im) = (r.re * a.re - r.im * a.im, r.re * a.im + r.im * a.re), nothing fused
//   sum       halves added until one value is left: for 8 taps (p0+p4, p1+p5, p2+p6, p3+p7), for 4
//             (p0+p2, p1+p3), for 2 p0+p1; so a vector holds taps and adds its halves
//   step      c = (g * e.re, g * e.im); a.re += c.re * r.re + c.im * r.im,
//             a.im += c.im * r.re - c.re * r.im
struct EchoKernels {
  void (*subtract_8)(const EchoBand& band);
  void (*subtract_4)(const EchoBand& band);
  void (*subtract_2)(const EchoBand& band);
};

extern const EchoKernels kScalarEcho;

}  // namespace se
