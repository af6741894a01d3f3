// State of the echo canceller.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/aec.h"

// History rows are bin-major, the newest frame first.
struct aec_state {
  echo_subtraction_state* subtraction[2];  // microphone 0, microphone 1
  zel_lcomplex* ref_history_low;           // 29 x 8: the reference's last spectra
  zel_lcomplex* ref_history_mid;           // 96 x 4
  zel_lcomplex* ref_history_high;          // 129 x 2
  float* power_history_low;                // the powers of the same entries
  float* power_history_mid;
  float* power_history_high;
  float* ref_energy;     // per bin 3..256: running sum of the bin's power history
  float* ref_power;      // scratch, 257: powers of this frame's reference
  int32_t* adapt_flags;  // scratch, per bin 3..256: 1 = adapt, 0 = hold
};

namespace se {
constexpr RecordSlot kAecSlot = {51, 44, 8};
}
