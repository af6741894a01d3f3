// The monotonic clock, offered to hosts beside the engine; the library never looks at it.
#include "speechenhance/time_utils.h"

#include <ctime>

int64_t get_time_in_ns(void) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000000 + int64_t{now.tv_nsec};
}

int64_t get_time_in_hns(void) {
  return get_time_in_ns() / 100;
}

int64_t get_time_in_us(void) {
  return get_time_in_ns() / 1000;
}

int64_t get_time_in_ms(void) {
  return get_time_in_ns() / 1000000;
}
