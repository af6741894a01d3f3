// The log sink that hosts and tools share. Offered to them beside the engine; the library itself
// does not log.
#include "speechenhance/se_log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t kMaxMessage = 1024;  // characters kept of a message, terminator included

int32_t se_log_none(SELogLevel, const char*, ...) {
  return 0;
}

}  // namespace

SELogFunc g_se_log = se_log_default;
int32_t g_se_log_level = SE_LOG_INFO;

int32_t se_log_default(SELogLevel level, const char* format, ...) {
  char text[kMaxMessage + 1];  // room for the newline behind a cut message
  va_list arguments;
  va_start(arguments, format);
  const int formatted = std::vsnprintf(text, kMaxMessage, format, arguments);
  va_end(arguments);
  if (formatted < 0) text[0] = '\0';

  const std::size_t length = std::strlen(text);
  if (length == 0 || text[length - 1] != '\n') {
    text[length] = '\n';
    text[length + 1] = '\0';
  }
  if (level >= SE_LOG_DEBUG && level <= SE_LOG_ERROR) {
    std::fprintf(level == SE_LOG_ERROR ? stderr : stdout, "[%c] %s", "DIWE"[level], text);
  }
  return static_cast<int32_t>(length);
}

void se_set_log_func(SELogFunc func) {
  g_se_log = func != nullptr ? func : se_log_none;
}

void se_set_log_level(int32_t level) {
  g_se_log_level = level;
}
