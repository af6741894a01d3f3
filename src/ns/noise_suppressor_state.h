// State of the noise suppressor. Arrays hold one value per bin.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/noise_reduction.h"

struct NoiseSuppressor {
  int32_t frame_ms;
  int32_t num_bins;
  float alpha_min;                  // smoothing constant of the a-priori ratio in loud frames
  float alpha_max;                  // ... and in frames without speech
  float gain_floor;                 // smallest gain, linear
  float* power;                     // scratch: input bin powers
  float* post_snr;                  // scratch: a-posteriori ratio minus one, at least 0
  float* gain;                      // scratch: Wiener gains
  float* prev_speech;               // power that the previous output kept
  alignas(8) uint64_t frame_count;  // calls so far
};

namespace se {
constexpr RecordSlot kNoiseSuppressorSlot = {55, 48};
}
