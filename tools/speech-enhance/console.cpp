#include "console.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "files.h"

namespace se_tool {

void print_line(std::string line) {
  const auto breaks_line = [](unsigned char c) { return c < ' ' || c == 0x7F; };
  std::replace_if(line.begin(), line.end(), breaks_line, '?');
  std::fputs(("speech-enhance: " + line + "\n").c_str(), stderr);
}

int print_text(const std::string& text) {
  write_all(STDOUT_FILENO, text, "standard output");
  return 0;
}

TerminalLine::TerminalLine(bool quiet) : shown_(!quiet && isatty(STDERR_FILENO) == 1) {}

bool TerminalLine::is_due() const {
  return shown_ && std::chrono::steady_clock::now() - last_ >= std::chrono::milliseconds(100);
}

void TerminalLine::draw(const std::string& text) {
  last_ = std::chrono::steady_clock::now();
  drawn_ = true;
  // Back to the start of the line, and clear what is longer from before.
  std::fprintf(stderr, "\r%s\033[K", text.c_str());
  std::fflush(stderr);
}

void TerminalLine::clear() {
  if (!drawn_) return;
  drawn_ = false;
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

}  // namespace se_tool
