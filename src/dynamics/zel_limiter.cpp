// Peak limiter with one block of look-ahead.
//
// Method: feed-forward dynamic range control (U. Zoelzer, DAFX, 2nd ed., section 4.2; D. Giannoulis
// et al., "Digital dynamic range compressor design", J. AES 60, 2012) block by block: a peak
// envelope with instant attack and slow release, a static curve with a knee, and a gain that moves
// linearly across each block. The signal is one block late, so that the gain reaches the value that
// a peak needs before the peak leaves.
//
// Why no sample passes the ceiling: the ramp over a block lies between two gains, each computed for
// an envelope that is at least the peak of that block.
//
// Cost: three passes over each sample; one exponential per call.
#include <cstring>

#include "common/decibel.h"
#include "dynamics/limiter_struct.h"
#include "kernels/kernels.h"

namespace {

constexpr int kBlock = 16;  // samples: 1 ms at 16 kHz
constexpr float kCeiling = 0.9f;
constexpr float kKneeShare = 0.9f;        // of the ceiling
constexpr float kCeilingShare = 0.9999f;  // of the ceiling: what no output exceeds
constexpr float kRelease = 0.01f;
constexpr float kMinLevel = 1e-5f;  // keeps the gain finite in silence

struct Layout {
  LimiterStruct* state;
  float* blocks;  // three of them, back to back
};

Layout lay_out(se::MemoryWalk& mem) {
  return {mem.record<LimiterStruct>(se::kLimiterSlot), mem.buffer<float>(3 * kBlock)};
}

// Lets the envelope follow the peak of the new block. Returns the level that governs the ramp into
// this block: the larger of the two.
float follow_envelope(LimiterStruct& state, float peak) {
  float level;
  if (state.envelope > peak) {
    level = state.envelope;
    state.envelope += state.release * (peak - state.envelope);
  } else {
    level = state.envelope = peak;
  }
  return level < kMinLevel ? kMinLevel : level;
}

// The static curve: the gain for an input level.
float target_gain(const LimiterStruct& state, float level, float make_up) {
  const float made_up = level * make_up;
  if (!(made_up > state.knee)) return make_up;
  const float highest = state.max_gain * kCeilingShare;
  const float compressed = make_up > state.knee
                               ? state.knee + (made_up - state.knee) / (make_up - state.knee) *
                                                  (state.max_gain - state.knee)
                               : made_up;
  return (compressed > highest ? highest : compressed) / level;
}

void limiter_process_float_one_frame(LimiterStruct& state, float* block, float make_up) {
  const se::SampleKernels& kernels = *se::kernels().sample;
  const float level = follow_envelope(state, kernels.peak(block, kBlock));
  const float gain = target_gain(state, level, make_up);
  const float step = (gain - state.gain) * (1.0f / kBlock);

  std::memcpy(state.next_buf, block, kBlock * sizeof(float));
  kernels.apply_ramp(state.delay_buf, state.gain, step, block, kBlock);
  state.gain = gain;

  float* const played = state.delay_buf;
  state.delay_buf = state.next_buf;
  state.next_buf = played;
}

}  // namespace

size_t limiter_query_mem() {
  return se::measured(lay_out);
}

LimiterStruct* limiter_init(void* mem) {
  se::MemoryWalk walk(mem);
  const Layout layout = lay_out(walk);
  *layout.state = {kBlock,
                   kCeiling,
                   kCeiling * kKneeShare,
                   1.0f,
                   0.0f,
                   kRelease,
                   layout.blocks,
                   layout.blocks + kBlock,
                   layout.blocks + 2 * kBlock};
  return layout.state;
}

void limiter_set_max_gain(LimiterStruct* state, float max_gain) {
  state->max_gain = max_gain;
  state->knee = kKneeShare * max_gain;
}

void limiter_process_float(LimiterStruct* state, float* samples, int32_t num_samples, bool /*flag*/,
                           float level_db) {
  const float make_up = se::amplitude_from_db(level_db);
  for (int32_t block = 0; block < num_samples / kBlock; ++block) {
    limiter_process_float_one_frame(*state, samples + block * kBlock, make_up);
  }
}

void limiter_process(LimiterStruct* state, int16_t* samples, int32_t num_samples, float level_db) {
  const se::SampleKernels& kernels = *se::kernels().sample;
  const float make_up = se::amplitude_from_db(level_db);
  for (int32_t block = 0; block < num_samples / kBlock; ++block) {
    int16_t* const x = samples + block * kBlock;
    kernels.s16_to_float(x, state->conv_buf, kBlock);
    limiter_process_float_one_frame(*state, state->conv_buf, make_up);
    kernels.float_to_s16(state->conv_buf, x, kBlock);
  }
}
