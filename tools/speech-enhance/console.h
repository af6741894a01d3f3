// What the tool tells on standard error.
#pragma once

#include <string>

namespace se_tool {

// One line behind the tool's name, whatever the names of files in it hold.
void print_line(std::string line);

}  // namespace se_tool
