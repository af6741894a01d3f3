// The line that shows how far the work is.
#pragma once

#include <chrono>
#include <string>

namespace se_tool {

// Drawn on standard error where that is a terminal, nowhere else. Gone with the object.
class ProgressLine {
 public:
  // `what` is being done; quiet draws nothing.
  ProgressLine(std::string what, bool quiet);
  ~ProgressLine() { clear(); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // The part done, 0 to 1. Redraws a few times a second however often it is called.
  void update(double fraction);

  // Makes room for a line of text.
  void clear();

 private:
  using Clock = std::chrono::steady_clock;

  std::string what_;
  bool visible_;
  bool drawn_ = false;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_ = start_;
};

// The text of the line.
std::string format_progress(const std::string& what, double fraction, double elapsed_s);

}  // namespace se_tool
