#include "formatted.h"

#include <cstdarg>
#include <cstdio>

namespace se_tool {

std::string formatted(const char* format, ...) {
  char text[256];
  va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  return text;
}

}  // namespace se_tool
