// What a live stream does, in one line of a terminal.
#pragma once

#include <string>

#include "console.h"
#include "speechenhance/stream.h"

namespace se_tool {

// The text of the line: levels, and with a reference its delay and how much echo is gone.
std::string format_meters(const SEStreamStatus& status, bool has_reference);

class MeterLine {
 public:
  MeterLine(const SEStream* stream, bool has_reference, bool quiet)
      : stream_(stream), has_reference_(has_reference), line_(quiet) {}

  // Call it as often as you like.
  void update();

 private:
  const SEStream* stream_;
  bool has_reference_;
  TerminalLine line_;
};

}  // namespace se_tool
