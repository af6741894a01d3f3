// Numbers in texts.
#pragma once

#include <string>

namespace se_tool {

// What printf() would print.
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace se_tool
