// Independent pieces of work, each in a process of its own.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace se_tool {

struct Outcome {
  int code = 0;      // an exit code: 0, or that of an Error
  std::string text;  // what the work returned, or the error's line
};

// Reports the part done, 0 to 1.
using ReportFraction = std::function<void(double)>;

// One piece of work: returns its result or throws an Error.
using Work = std::function<std::string(std::size_t index, const ReportFraction&)>;

// Forks a process for each piece of work, at most `jobs` at a time, and returns their outcomes in
// order. `names` says what each works on, for the errors of processes that say nothing themselves.
// Nothing that a piece of work does to its process reaches another one, so that results depend
// neither on `jobs` nor on the order. Reports the part of all work done from time to time. When a
// signal asks to stop (signals.h), passes it on, starts nothing more and waits.
std::vector<Outcome> run_in_processes(const std::vector<std::string>& names, std::size_t jobs,
                                      const Work& work, const ReportFraction& report);

}  // namespace se_tool
