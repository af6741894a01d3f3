// One recording through the engine.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "settings.h"
#include "statistics.h"

namespace se_tool {

struct Task {
  std::string mic;
  std::string ref;  // empty: silence
  std::string output;
  std::string plot;  // empty: none
  bool as_float = false;
  Settings settings;
};

// Called now and then with the samples done and the samples in all.
using ProgressFunction = std::function<void(std::uint64_t done, std::uint64_t total)>;

// Enhances task.mic (and its echo of task.ref) into task.output, aligned with it to the sample and
// of its length. Mono recordings feed both microphones of the engine; of stereo ones the first
// channel feeds microphone 0 and the second microphone 1, which is the one that is enhanced. On any
// Error no file is written or changed. Reads and writes as it goes: memory does not grow with the
// recording. The engine's history of quiet frames belongs to the process: for results that depend
// on nothing else, enhance one recording per process.
Statistics enhance(const Task& task, const ProgressFunction& progress);

}  // namespace se_tool
