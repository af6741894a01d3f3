// How far a batch is: a line that a terminal redraws, elsewhere a line from time to time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "batch/batch_job.h"
#include "console.h"

namespace se_tool {

struct BatchCounts {
  std::uint64_t done = 0;     // cleaned in this run
  std::uint64_t skipped = 0;  // finished or found unusable by an earlier one
  std::uint64_t failed = 0;
  double audio_s = 0;   // cleaned in this run
  double weight_s = 0;  // of all lines dealt with, as the manifest states their durations
  double worked_s = 0;  // of those that were not skipped

  std::uint64_t lines() const { return done + skipped + failed; }
};

// "1,234 of 9,000 files  2.5 of 20.1 h  412 x real time  3 failed  1:02:03 left"
std::string format_batch_progress(const BatchCounts& counts, std::uint64_t lines, double total_s,
                                  double elapsed_s);

// "7 h 2 min", "12.5 s"
std::string format_duration(double seconds);

class BatchProgress {
 public:
  // Of a shard of `lines` lines and `total_s` seconds.
  BatchProgress(std::uint64_t lines, double total_s, double report_s, bool quiet)
      : lines_(lines), total_s_(total_s), report_s_(report_s), quiet_(quiet), line_(quiet) {}

  // Shows the counts if it is time.
  void update(const BatchCounts& counts);

  double elapsed_s() const;

  // Makes room for a line of text.
  void clear() { line_.clear(); }

 private:
  using Clock = std::chrono::steady_clock;

  std::uint64_t lines_;
  double total_s_;
  double report_s_;  // between lines where there is no terminal
  bool quiet_;
  TerminalLine line_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_ = start_;
};

}  // namespace se_tool
