#include "stream/reference_alignment.h"

#include <algorithm>
#include <new>

#include "speechenhance/stream.h"

namespace se::stream {
namespace {

constexpr int kBlock = SE_BLOCK_LEN;
// Ahead of the echo: what is aimed at, and what is left alone, which is a little less than what is
// wanted since estimates come a second late.
constexpr float kEarlyMs = 25.0f;
constexpr float kLeastEarlyMs = 12.0f;
constexpr float kMostEarlyMs = 38.0f;

constexpr float kBelieved = 0.5f;  // confidence

// The longest delay and the block that is read there, in whole blocks.
constexpr int kLineLen = (2 * SE_STREAM_MAX_DELAY_MS * kSamplesPerMs / kBlock + 2) * kBlock;

}  // namespace

bool ReferenceAlignment::create(int mic_delay_ms) {
  line_.reset(new (std::nothrow) float[kLineLen]);
  estimator_memory_.reset(new (std::nothrow) unsigned char[delay_estimator_query_mem()]);
  mic_delay_ms_ = mic_delay_ms;
  if (line_ == nullptr || estimator_memory_ == nullptr) return false;
  reset();
  return true;
}

void ReferenceAlignment::reset() {
  std::fill_n(line_.get(), kLineLen, 0.0f);
  std::fill_n(estimator_memory_.get(), delay_estimator_query_mem(), static_cast<unsigned char>(0));
  estimator_ = delay_estimator_init(estimator_memory_.get());
  next_ = 0;
  if (delay_ms_ == SE_STREAM_DELAY_AUTO) wanted_ = 0;
  held_back_ = wanted_;
}

void ReferenceAlignment::set_delay(std::int32_t delay_ms) {
  delay_ms_ = delay_ms;
  if (delay_ms != SE_STREAM_DELAY_AUTO) aim_at(static_cast<float>(delay_ms + mic_delay_ms_));
}

void ReferenceAlignment::aim_at(float behind_ms) {
  const float samples = (behind_ms - kEarlyMs) * kSamplesPerMs;
  wanted_ = samples > 0.0f ? static_cast<int>(samples) : 0;
}

void ReferenceAlignment::keep_ahead_of(float behind_ms) {
  const float early_ms = behind_ms - static_cast<float>(held_back_) / kSamplesPerMs;
  if (early_ms < kLeastEarlyMs || early_ms > kMostEarlyMs) aim_at(behind_ms);
}

void ReferenceAlignment::begin_with(float behind_ms) {
  if (delay_ms_ == SE_STREAM_DELAY_AUTO) keep_ahead_of(behind_ms);
  held_back_ = wanted_;
}

void ReferenceAlignment::process(const float* mic, float* ref) {
  if (delay_ms_ == SE_STREAM_DELAY_AUTO) {
    delay_estimator_process(estimator_, mic, ref);
    const DelayEstimate now = delay_estimator_get(estimator_);
    if (now.found != 0 && now.confidence >= kBelieved) keep_ahead_of(now.delay_ms);
  }
  std::copy_n(ref, kBlock, line_.get() + next_);
  next_ = (next_ + kBlock) % kLineLen;
  read_delayed(held_back_, ref);
  if (wanted_ == held_back_) return;
  float moved[kBlock];
  read_delayed(wanted_, moved);
  for (int i = 0; i < kBlock; ++i) {
    const float part = static_cast<float>(i + 1) * (1.0f / kBlock);
    ref[i] += part * (moved[i] - ref[i]);
  }
  held_back_ = wanted_;
}

DelayEstimate ReferenceAlignment::estimate() const {
  if (delay_ms_ == SE_STREAM_DELAY_AUTO) {
    DelayEstimate now = delay_estimator_get(estimator_);
    if (now.found != 0) now.delay_ms -= static_cast<float>(mic_delay_ms_);
    return now;
  }
  return {1, static_cast<float>(delay_ms_), 1.0f};
}

// The block that came in `delay` samples before the last one.
void ReferenceAlignment::read_delayed(int delay, float* block) const {
  const int start = (next_ + kLineLen - kBlock - delay) % kLineLen;
  const int first = std::min(kBlock, kLineLen - start);
  std::copy_n(line_.get() + start, first, block);
  std::copy_n(line_.get(), kBlock - first, block + first);
}

}  // namespace se::stream
