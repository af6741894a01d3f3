// State of a GRU layer.
#pragma once

#include <cstdint>

#include "common/module_memory.h"
#include "speechenhance/denoiser.h"

struct Gru {
  const GRULayer* layer;
  std::int16_t* state;  // hidden values in Q11
  std::int32_t hidden_size;
  std::int32_t input_size;
  float* update;         // scratch: gate values
  float* reset;          // scratch: gate values
  float* candidate;      // scratch
  std::int16_t* qinput;  // scratch: the input in Q11
};

namespace se::nn {
constexpr RecordSlot kGruSlot = {35, 32};
}
