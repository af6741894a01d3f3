// State of the noise estimator. Arrays without another size hold one value per bin.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/noise_reduction.h"

struct NoiseEstimator {
  int32_t frame_ms;
  int32_t num_bins;
  int32_t frames_per_sec;
  float silence_level;    // mean bin power below which a frame is silent
  float noise_floor;      // bin power: smallest estimate, and mean below which minima hold
  float* avg_power;       // scratch: mean power over the short span
  int32_t history_len;    // frames in the short span
  float* power_history;   // ring of history_len spectra
  int32_t history_pos;    // next slot
  float* min_power;       // tracked minimum of avg_power
  float* candidate_min;   // minimum gathered in the second half of the window
  float* min_age;         // frames since min_power last fell
  float* smooth_noise;    // smoothed minimum
  int32_t window_frames;  // length of the tracking window
  float overestimate;     // factor from the smoothed minimum to the estimate
  alignas(8) uint64_t frame_count;  // calls so far
};

namespace se {
constexpr RecordSlot kNoiseEstimatorSlot = {87, 72};
}
