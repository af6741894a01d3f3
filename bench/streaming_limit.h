// The least time in which this CPU could touch the denoiser's weights once: a pass over every
// integer table of the model that does nothing but multiply and add.
#pragma once

#include <cstdint>
#include <vector>

namespace se_bench {

// The integer tables that one frame reads, as the library holds them.
struct WeightTable {
  const std::int8_t* data;
  int bytes;
};
std::vector<WeightTable> weight_tables();

struct StreamingPass {
  const char* name;
  // Sum of products of the table with a cyclic pattern that stays in registers.
  std::int32_t (*run)(const WeightTable& table);
};

// The passes that this CPU can run, the widest multiply-add first:
//   bytes      8-bit by 8-bit products, whole vectors of weights (VNNI, else maddubs)
//   int16      weights widened to 16 bits, times 16-bit values, the denoiser's arithmetic
std::vector<StreamingPass> streaming_passes();

}  // namespace se_bench
