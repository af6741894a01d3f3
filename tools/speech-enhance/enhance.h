// One recording through the engine.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "audio_input.h"
#include "audio_output.h"
#include "settings.h"
#include "statistics.h"

namespace se_tool {

struct Task {
  std::string mic;
  std::string ref;              // empty: silence
  std::optional<int> delay_ms;  // of the echo behind ref, -500 to 500; none: find and follow it
  std::string output;
  std::string plot;  // empty: none
  SoundFormat format = SoundFormat::kWav16;
  Segment segment;                            // of the recording and of the reference
  std::uint64_t max_input = kMostInputBytes;  // of what is no regular file
  bool to_disk = true;                        // do not return before the disk has it
  Settings settings;
};

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
