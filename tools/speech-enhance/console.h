// What the tool tells people.
#pragma once

#include <chrono>
#include <string>

namespace se_tool {

// On standard error: one line behind the tool's name, whatever the names of files in it hold.
void print_line(std::string line);

// On standard output: a text that was asked for, as by --help. Returns the exit code 0, or throws
// an Error (output).
int print_text(const std::string& text);

// A line that is redrawn in place where standard error is a terminal, and nothing elsewhere. Gone
// with the object.
class TerminalLine {
 public:
  explicit TerminalLine(bool quiet);  // quiet: nothing on terminals either
  ~TerminalLine() { clear(); }
  TerminalLine(const TerminalLine&) = delete;
  TerminalLine& operator=(const TerminalLine&) = delete;

  bool is_shown() const { return shown_; }

  // Whether it is time to draw it anew: a few times a second, where there is a terminal.
  bool is_due() const;
  void draw(const std::string& text);

  // Makes room for a line of text.
  void clear();

 private:
  bool shown_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_ = {};
};

}  // namespace se_tool
