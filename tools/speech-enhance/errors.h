// How the tool fails: an error carries the one line that the user reads and the exit code.
#pragma once

#include <stdexcept>
#include <string>
#include <system_error>

namespace se_tool {

enum class ExitCode : int {
  kDone = 0,
  kUsage = 2,     // options, presets, combinations of files that cannot work
  kInput = 3,     // an input that cannot be read or used
  kOutput = 4,    // an output that cannot be written
  kInternal = 5,  // the system refused memory or a process
  kSignal = 128,  // plus the signal's number, as shells count
};

class Error : public std::runtime_error {
 public:
  Error(ExitCode code, const std::string& line) : Error(static_cast<int>(code), line) {}
  Error(int code, const std::string& line) : std::runtime_error(line), code_(code) {}

  int code() const { return code_; }

 private:
  int code_;
};

// What the system says about an errno, for the end of an error's line.
inline std::string system_message(int error_number) {
  return std::generic_category().message(error_number);
}

}  // namespace se_tool
