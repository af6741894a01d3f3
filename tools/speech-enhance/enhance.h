// One recording through the engine.
#pragma once

#include <cstdint>
#include <functional>

#include "statistics.h"
#include "task.h"

namespace se_tool {

// Called now and then with the samples done and the samples in all.
using ProgressFunction = std::function<void(std::uint64_t done, std::uint64_t total)>;

// Enhances task.mic (and its echo of task.ref) into task.output, aligned with it to the sample and
// of its length. Mono recordings feed both microphones of the engine; of stereo ones the first
// channel feeds microphone 0 and the second microphone 1, which is the one that is enhanced. On any
// Error no file is written or changed. Reads and writes as it goes: memory does not grow with the
// recording, and results do not depend on what the process enhanced before; one
// recording at a time in a process.
Statistics enhance(const Task& task, const ProgressFunction& progress);

}  // namespace se_tool
