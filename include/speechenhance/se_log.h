/* A process-wide, replaceable log sink for hosts and tools. The library itself does not log through
 * it. */
#ifndef SPEECHENHANCE_SE_LOG_H
#define SPEECHENHANCE_SE_LOG_H

#include <stdint.h>

#include "export.h"

SE_BEGIN_C

#ifdef __cplusplus
enum SELogLevel : int32_t
#else
typedef enum SELogLevel
#endif
{
  SE_LOG_DEBUG = 0,
  SE_LOG_INFO = 1,
  SE_LOG_WARN = 2,
  SE_LOG_ERROR = 3
}
#ifdef __cplusplus
;
#else
SELogLevel;
#endif

/* A sink: takes a level and a printf-style message, returns a count of characters. */
typedef int32_t (*SELogFunc)(SELogLevel level, const char* format, ...);

/* The current sink (at load: se_log_default) and the level set by the host (at load: SE_LOG_INFO).
 * Callers log through the sink and do their own filtering against the level. Plain words: a host
 * that changes them while other threads log orders those calls itself. */
SE_API extern SELogFunc g_se_log;
SE_API extern int32_t g_se_log_level;

/* The default sink: writes "[D] ", "[I] " or "[W] " and the message to standard output, "[E] " and
 * the message to standard error, with a newline added where the message does not end in one.
 * Messages are cut to 1023 characters. Other levels write nothing. Returns the length of the
 * message without the added newline, also where nothing was written. Any thread; lines of several
 * threads may interleave. */
SE_API int32_t se_log_default(SELogLevel level, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* Replaces the sink. Null silences logging; it does not restore the default sink. */
SE_API void se_set_log_func(SELogFunc func);

/* Stores the level as given, unchecked. */
SE_API void se_set_log_level(int32_t level);

SE_END_C

#endif
