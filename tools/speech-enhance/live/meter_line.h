// What a live stream does, in one line of a terminal.
#pragma once

#include <chrono>
#include <string>

#include "speechenhance/stream.h"

namespace se_tool {

// The text of the line: levels, and with a reference its delay and how much echo is gone.
std::string format_meters(const SEStreamStatus& status, bool has_reference);

// Drawn on standard error where that is a terminal, nowhere else. Gone with the object.
class MeterLine {
 public:
  MeterLine(const SEStream* stream, bool has_reference, bool quiet);
  ~MeterLine();
  MeterLine(const MeterLine&) = delete;
  MeterLine& operator=(const MeterLine&) = delete;

  // Redraws a few times a second however often it is called.
  void update();

 private:
  using Clock = std::chrono::steady_clock;

  const SEStream* stream_;
  bool has_reference_;
  bool visible_;
  bool drawn_ = false;
  Clock::time_point last_ = {};
};

}  // namespace se_tool
