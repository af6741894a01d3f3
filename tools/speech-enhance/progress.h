// The line that shows how far the work is.
#pragma once

#include <chrono>
#include <string>

#include "console.h"

namespace se_tool {

class ProgressLine {
 public:
  // `what` is being done; quiet draws nothing.
  ProgressLine(std::string what, bool quiet) : what_(std::move(what)), line_(quiet) {}

  // The part done, 0 to 1. Call it as often as you like.
  void update(double fraction);

 private:
  using Clock = std::chrono::steady_clock;

  std::string what_;
  TerminalLine line_;
  Clock::time_point start_ = Clock::now();
};

// The text of the line.
std::string format_progress(const std::string& what, double fraction, double elapsed_s);

}  // namespace se_tool
