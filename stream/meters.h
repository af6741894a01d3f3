// Levels for people to look at, kept by the audio thread and read by any.
#pragma once

#include <algorithm>
#include <cmath>

#include "stream/published.h"

namespace se::stream {

constexpr float kSilenceDb = -150.0f;

inline float power_db(float power) {
  return power > 1e-15f ? 10.0f * std::log10(power) : kSilenceDb;
}

inline float mean_square(const float* samples, int count) {
  float sum = 0.0f;
  for (int i = 0; i < count; ++i) sum += samples[i] * samples[i];
  return sum / static_cast<float>(count);
}

// A mean square over the last ten blocks or so.
class LevelMeter {
 public:
  void add(float block_power) {
    power_ += 0.1f * (block_power - power_);
    published_.set(power_);
  }
  void reset() {
    power_ = 0.0f;
    published_.set(0.0f);
  }
  float level_db() const { return power_db(published_.get()); }

 private:
  float power_ = 0.0f;
  Latest<float> published_{0.0f};
};

// The level of the microphone over that of the output while the loudspeaker plays and until its
// echo has died away, over the last 3 s of such time.
class EchoMeter {
 public:
  void add(float mic_power, float ref_power, float out_power) {
    constexpr float kPlays = 1e-6f;  // mean square
    constexpr int kTailBlocks = 25;  // 250 ms
    constexpr float kStep = 1.0f / 300.0f;
    if (ref_power > kPlays) blocks_left_ = kTailBlocks;
    if (blocks_left_ == 0) return;
    --blocks_left_;
    mic_ += kStep * (mic_power - mic_);
    out_ += kStep * (out_power - out_);
    constexpr float kFloor = 1e-12f;
    ratio_.set((mic_ + kFloor) / (out_ + kFloor));
  }
  void reset() {
    blocks_left_ = 0;
    mic_ = out_ = 0.0f;
    ratio_.set(1.0f);
  }
  float reduction_db() const { return power_db(ratio_.get()); }

 private:
  int blocks_left_ = 0;
  float mic_ = 0.0f;
  float out_ = 0.0f;
  Latest<float> ratio_{1.0f};
};

}  // namespace se::stream
