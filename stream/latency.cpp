#include "stream/latency.h"

#include <algorithm>
#include <numeric>

#include "speechenhance/speechenhance.h"

namespace se::stream {

LatencyPlan plan_latency(int rate, std::int64_t engine_delay, const RateConverter& in,
                         const RateConverter& out) {
  constexpr std::int64_t kBlock = SE_BLOCK_LEN, kEngineRate = SE_SAMPLE_RATE;
  // Counts repeat every second, whatever the rate; the filters are through within another.
  constexpr std::int64_t kBlocks = 2 * kEngineRate / kBlock;

  const std::int64_t period = kEngineRate / std::gcd<std::int64_t>(rate, kEngineRate);
  LatencyPlan plan;
  plan.lead_in = (period - engine_delay % period) % period;

  // With `done` blocks out of the engine, what the stream has given must not exceed what they have
  // turned into, up to the very last sample before the next block is complete.
  std::int64_t missing = 0;
  for (std::int64_t done = 0; done < kBlocks; ++done) {
    const std::int64_t due = in.inputs_for((done + 1) * kBlock) - 1;
    const std::int64_t there = out.outputs_after(plan.lead_in + done * kBlock);
    missing = done == 0 ? due - there : std::max(missing, due - there);
  }
  // More than there is to miss goes with the lead-in's output: all of that is silence.
  plan.silence = missing + out.outputs_after(plan.lead_in);
  plan.latency = missing + (engine_delay + plan.lead_in) * rate / kEngineRate;
  return plan;
}

}  // namespace se::stream
