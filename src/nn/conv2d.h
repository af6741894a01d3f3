// State of a convolution layer. Its record and its scratch areas have byte figures in the headers,
// which count what nothing reads, too: the fields kept as they were given, and the scratch.
#pragma once

#include <cstdint>

#include "common/module_memory.h"
#include "speechenhance/denoiser.h"

struct Conv2D {
  const Conv2DLayer* layer;
  std::int32_t past_frames;
  std::int32_t warmup_left;  // calls left that only store their frame
  std::int32_t time_stride;
  std::int32_t freq_stride;
  std::int32_t kernel_time;
  std::int32_t kernel_freq;
  std::int32_t time_pad;
  std::int32_t freq_pad;
  std::int32_t groups;
  std::int32_t in_channels, in_width;
  std::int32_t out_channels, out_width;
  std::int16_t* ring[5];     // frames in Q10 with zero margins; the first kernel_time are set
  std::int16_t* ordered[5];  // the frames in time order, oldest first
  std::int32_t slot_len;     // values per ring slot
  std::int32_t ring_size;
  std::int32_t ring_pos;    // next slot to write
  std::int32_t kernel_len;  // bytes per kernel row
  std::int16_t* patch;      // scratch, not used: kernel_len values,
  std::int16_t* qinput;     // ... one input frame,
  void* spare;              // ... 2048 bytes per input channel
};

namespace se::nn {
constexpr RecordSlot kConv2DSlot = {131, 124};
}
