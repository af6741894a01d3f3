// Holds the reference back until it is as far ahead of its echo as the echo canceller wants it.
//
// The canceller's filters begin at the reference's own time: an echo that comes earlier than the
// reference is lost on them, one that comes up to 50 ms later is not. So the reference is kept
// about 25 ms early, and is moved only when it has left the range from 10 to 40 ms: every move
// costs the canceller what it has learnt. A move fades from the old place to the new one over a
// block.
#pragma once

#include <cstdint>
#include <memory>

#include "speechenhance/delay_estimator.h"
#include "speechenhance/speechenhance.h"

namespace se::stream {

constexpr int kSamplesPerMs = SE_SAMPLE_RATE / 1000;

class ReferenceAlignment {
 public:
  // The microphones that it will see are `mic_delay_ms` late. False where memory is short.
  bool create(int mic_delay_ms);
  void reset();

  // SE_STREAM_DELAY_AUTO, or a fixed delay of the echo behind the reference, not below
  // -mic_delay_ms.
  void set_delay(std::int32_t delay_ms);

  // Before the first block: the delay that the signals begin with, where it is known.
  void begin_with(float behind_ms);

  // One block: what the microphone hears, and the reference, which is replaced by what the
  // canceller is to have for it.
  void process(const float* mic, float* ref);

  // Of the echo behind the reference, as they came into the stream.
  DelayEstimate estimate() const;

  // Samples by which the reference is held back.
  int held_back() const { return held_back_; }

 private:
  // So that an echo this far behind comes at its best time.
  void aim_at(float behind_ms);
  // Unless that is as good already.
  void keep_ahead_of(float behind_ms);
  void read_delayed(int delay, float* block) const;

  std::unique_ptr<unsigned char[]> estimator_memory_;
  DelayEstimator* estimator_ = nullptr;
  std::unique_ptr<float[]> line_;  // a ring of the last samples of the reference
  int next_ = 0;                   // where the next block goes
  int held_back_ = 0;              // samples, of the block before
  int wanted_ = 0;                 // samples, of the next one
  int mic_delay_ms_ = 0;
  std::int32_t delay_ms_ = 0;  // as set
};

}  // namespace se::stream
