#include "console.h"

#include <algorithm>
#include <cstdio>

namespace se_tool {

void print_line(std::string line) {
  const auto breaks_line = [](unsigned char c) { return c < ' ' || c == 0x7F; };
  std::replace_if(line.begin(), line.end(), breaks_line, '?');
  std::fputs(("speech-enhance: " + line + "\n").c_str(), stderr);
}

}  // namespace se_tool
