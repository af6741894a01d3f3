// State of the limiter.
#pragma once

#include "common/module_memory.h"
#include "speechenhance/dynamics.h"

struct LimiterStruct {
  int32_t block_len;  // samples per block
  float max_gain;     // ceiling: output level of a full-scale envelope
  float knee;         // output level above which compression starts
  float gain;         // reached at the end of the last block
  float envelope;     // peak envelope of the input
  float release;      // share of the distance to a lower peak that the envelope falls per block
  float* conv_buf;    // one block, for 16-bit samples
  float* delay_buf;   // the previous input block, waiting to be output
  float* next_buf;    // takes the current one; the two swap after every block
};

namespace se {
constexpr RecordSlot kLimiterSlot = {39, 36};
}
