// The process-wide history of quiet frames.
#pragma once

namespace se::nn {

// Enters one frame's flag (0 or 1) and returns the number of ones among the last 1000 flags. Safe
// from any number of threads.
int quiet_history_add(int flag);

}  // namespace se::nn
