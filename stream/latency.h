// The one latency of a stream: how the silence at its start is chosen so that every sample is there
// when it is due, whatever the blocks, and belongs to a whole sample of the input.
#pragma once

#include <cstdint>

#include "stream/rate_converter.h"

namespace se::stream {

struct LatencyPlan {
  std::int64_t lead_in;  // silent samples into the converter to the stream's rate before the first
                         // block, after which the blocks' delay is whole at that rate
  std::int64_t silence;  // samples that lie in the output queue when the stream begins
  std::int64_t latency;  // at the stream's rate
};

// For blocks that come out of the engine `engine_delay` samples late. `in` converts the stream's
// rate to the engine's, `out` back.
LatencyPlan plan_latency(int rate, std::int64_t engine_delay, const RateConverter& in,
                         const RateConverter& out);

}  // namespace se::stream
