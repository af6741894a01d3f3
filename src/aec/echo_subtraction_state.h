// State of the echo subtraction of one microphone.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/aec.h"

// Filter rows are bin-major, tap 0 (the current frame) first; smoothed powers are per bin 3..256.
struct echo_subtraction_state {
  zel_lcomplex* adaptive_low;  // 29 x 8
  zel_lcomplex* stored_low;
  zel_lcomplex* adaptive_mid;  // 96 x 4
  zel_lcomplex* stored_mid;
  zel_lcomplex* adaptive_high;  // 129 x 2
  zel_lcomplex* stored_high;
  float* err_adaptive_smooth;  // residual of the adaptive filter
  float* err_stored_smooth;    // residual of the stored filter
  float* mic_smooth;           // microphone
};

namespace se {
constexpr RecordSlot kEchoSubtractionSlot = {43, 36, 8};
}
