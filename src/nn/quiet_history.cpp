// The process-wide history of quiet frames: a ring of 1000 flags and their running sum.
//
// The exported globals are plain 32-bit integers, so that hosts can read them as such; here they
// are accessed with relaxed atomic operations only. A frame claims a position, exchanges the flag
// there and corrects the sum by the difference: whatever the order in which threads do so, every
// flag that enters the ring is added once and every flag that leaves it is subtracted once.
#include "nn/quiet_history.h"

#include <cstdint>

#include "speechenhance/denoiser.h"

namespace {
constexpr std::int32_t kLength = 1000;
}

std::int32_t noise_flag;
std::int32_t noise_buf[kLength];
std::int32_t noise_flag_sum;
std::int32_t noise_flag_index;

namespace se::nn {
namespace {

std::int32_t claim_position() {
  std::int32_t position = __atomic_load_n(&noise_flag_index, __ATOMIC_RELAXED);
  std::int32_t next;
  do {
    next = position + 1 == kLength ? 0 : position + 1;
  } while (!__atomic_compare_exchange_n(&noise_flag_index, &position, next, true, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED));
  return position;
}

}  // namespace

int quiet_history_add(int flag) {
  __atomic_store_n(&noise_flag, flag, __ATOMIC_RELAXED);
  const std::int32_t position = claim_position();
  const std::int32_t old = __atomic_exchange_n(&noise_buf[position], flag, __ATOMIC_RELAXED);
  return __atomic_add_fetch(&noise_flag_sum, flag - old, __ATOMIC_RELAXED);
}

}  // namespace se::nn
