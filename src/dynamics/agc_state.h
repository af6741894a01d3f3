// States of the automatic gain control. Levels are powers unless said to be amplitudes.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/dynamics.h"

struct AgcState {
  float target_amp;    // amplitude to which the tracked level is brought
  float active_level;  // smoothed level above which an active frame counts
  float max_gain;      // limits of the gain that is steered to
  float min_gain;
  int32_t active_run;               // consecutive frames that counted as active
  float* level_hist;                // ring of recent levels
  int32_t hist_len;                 // its size
  int32_t hist_pos;                 // next slot
  int32_t hist_fill;                // valid entries
  float smooth_coef;                // smoothing factor of smooth_level
  float smooth_level;               // smoothed level, of every frame
  int32_t update_count;             // frames that updated the ring
  float peak_level;                 // tracked peak of the ring's mean
  float candidate_peak;             // peak of the second half of the tracking window
  float peak_age;                   // updates since peak_level last rose
  float peak_window;                // tracking window in updates
  float gain;                       // current gain
  float level_sum;                  // running sum of the ring
  alignas(8) uint64_t frame_count;  // calls so far
};

struct AgcCore {
  AgcState* agc;
  float active_threshold;  // level above which a frame is active
  float prev_power;        // mean bin power of the frame before
};

namespace se {
constexpr RecordSlot kAgcSlot = {87, 80};
constexpr RecordSlot kAgcCoreSlot = {19, 12};
}  // namespace se
