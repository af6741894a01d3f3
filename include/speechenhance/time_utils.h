/* Readings of the monotonic clock, for hosts that time their audio path. The library never calls
 * them. Any thread; successive readings never decrease. */
#ifndef SPEECHENHANCE_TIME_UTILS_H
#define SPEECHENHANCE_TIME_UTILS_H

#include <stdint.h>

#include "export.h"

SE_BEGIN_C

SE_API int64_t get_time_in_ns(void);  /* nanoseconds */
SE_API int64_t get_time_in_hns(void); /* units of 100 ns, truncated */
SE_API int64_t get_time_in_us(void);  /* microseconds, truncated */
SE_API int64_t get_time_in_ms(void);  /* milliseconds, truncated */

SE_END_C

#endif
