// What is to become of one recording.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "audio_input.h"
#include "audio_output.h"
#include "settings.h"

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

}  // namespace se_tool
