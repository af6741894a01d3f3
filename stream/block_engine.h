// The engine of a stream, 10 ms at 16 kHz at a time, with its latency made constant.
#pragma once

#include "engine/owned_engine.h"
#include "engine/se_instance.h"
#include "stream/process_wide.h"
#include "stream/reference_alignment.h"
#include "stream/settings.h"

namespace se::stream {

class BlockEngine {
 public:
  // Blocks come out this many samples after the microphones' that they belong to: with the
  // limiter's delay, which they have with and without it.
  static constexpr int kDelay = kDenoiserDelay + kLimiterDelay;

  // False where memory is short.
  bool create();
  void reset();

  // From the next block on.
  void configure(const SEStreamSettings& settings);

  // One block of each; `mics` holds both, one after the other. Inside an EngineScope.
  void process(const float* mics, const float* ref, float* out);

 private:
  static constexpr int kBlock = SE_BLOCK_LEN;

  void limit(float* samples);

  OwnedEngine engine_;
  SEStreamSettings settings_ = {};

  // The limiter runs beside the engine and always: it can be switched without a jump, and without a
  // change of the delay.
  std::unique_ptr<unsigned char[]> limiter_memory_;
  LimiterStruct* limiter_ = nullptr;
  bool limited_ = false;            // whether the block before was
  float kept_[kLimiterDelay] = {};  // the end of the block before, which is not limited
};

}  // namespace se::stream
