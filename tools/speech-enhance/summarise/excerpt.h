// What a page lets people hear and see of a recording.
#pragma once

#include <string>

#include "summarise/summary.h"

namespace se_tool {

// The same few seconds before and after.
struct Excerpt {
  double start_s = 0;  // in the part that was cleaned
  double duration_s = 0;
  std::string before;   // FLAC, 16 kHz, mono: the channel that was enhanced
  std::string after;    // the same
  std::string picture;  // PNG: both spectrograms under each other
};

// From the middle of the recording, at most `most_s`. Throws an Error (input) if a file is no
// longer what the record says.
Excerpt make_excerpt(const ResultRecord& record, double most_s);

}  // namespace se_tool
