// Records of the transforms. Hosts hold pointers to them and never look inside.
#pragma once

#include <cstdint>

#include "common/module_memory.h"
#include "speechenhance/zel_fft.h"

// A complex transform. Read-only once made, but for `buffer`.
struct c2c_plan {
  std::int32_t nfft;
  std::int32_t* factors;
  zel_lcomplex* twiddles;
  zel_lcomplex* buffer;  // nfft values, in scratch memory
  std::int32_t is_forward_scaled;
  std::int32_t is_backward_scaled;
};

// A real transform of a power of two.
struct r2c_plan {
  zel_lcomplex* buffer;  // 2 * ncfft values, in scratch memory
  std::int32_t ncfft;    // complex length: half the number of samples
  std::int32_t* factors;
  zel_lcomplex* twiddles;        // of the complex transform of ncfft values
  zel_lcomplex* super_twiddles;  // ncfft / 2, of the pass between it and the real spectrum
};

// A real transform of another length.
struct real_plan {
  c2c_plan* plan;  // of half the length, M; null when there is nothing to transform
  zel_lcomplex* coef_a;
  zel_lcomplex* coef_b;    // M values each, b directly behind a
  zel_lcomplex* work_in;   // M values, in scratch memory
  zel_lcomplex* work_out;  // M + 1 values directly behind it
};

struct r2c_handle {
  r2c_plan* pow2_plan;
  real_plan* general_plan;
  std::int32_t is_pow2;
};

namespace se {

inline constexpr RecordSlot kC2cPlanSlot = {31, 24};
inline constexpr RecordSlot kR2cPlanSlot = {23, 20};
inline constexpr RecordSlot kRealPlanSlot = {23, 20};
inline constexpr RecordSlot kR2cHandleSlot = {15, 12};

}  // namespace se
