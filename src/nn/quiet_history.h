// The process-wide history of quiet frames.
#pragma once

#include <algorithm>
#include <iterator>

#include "speechenhance/denoiser.h"

namespace se::nn {

// Enters one frame's flag (0 or 1) and returns the number of ones among the last 1000 flags. Safe
// from any number of threads.
int quiet_history_add(int flag);

// The history outlives engines: makes it that of the start of the process again, while no engine
// runs.
inline void forget_quiet_frames() {
  noise_flag = noise_flag_sum = noise_flag_index = 0;
  std::fill(std::begin(noise_buf), std::end(noise_buf), 0);
}

}  // namespace se::nn
