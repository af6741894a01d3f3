// A deterministic two-microphone scene in blocks, made with integer and single-rounding arithmetic
// only, so that it is the same on every machine: bursts of a coloured voice-like source, a steady
// noise, and a far end that comes and goes and reaches the microphones as an echo.
#pragma once

#include <cstdint>
#include <cstring>

class TestSignal {
 public:
  static constexpr int kBlock = 160;

  explicit TestSignal(std::uint32_t seed) : seed_(seed) {}

  // Fills microphone 0 and 1 (320 floats) and the reference (160 floats) of the next 10 ms.
  void next(float* mic, float* ref) {
    for (int i = 0; i < kBlock; ++i, ++time_) {
      const bool talking = time_ / 6400 % 3 != 1;  // 400 ms stretches
      const bool far_end = time_ / 9600 % 2 == 0;  // 600 ms stretches
      // A pulse train whose period glides, through a two-pole resonance.
      if (--until_pulse_ <= 0) {
        until_pulse_ = 90 + static_cast<int>(time_ / 800 % 60);
        pulse_ = talking ? 0.5f : 0.0f;
      }
      const float voice = pulse_ + 1.6f * voice_[0] - 0.81f * voice_[1];
      pulse_ = 0.0f;
      voice_[1] = voice_[0];
      voice_[0] = voice;
      const float far = far_end ? 0.3f * uniform() + 0.8f * far_last_ : 0.0f;
      far_last_ = far;
      ref[i] = far;
      std::memmove(echo_ + 1, echo_, sizeof echo_ - sizeof echo_[0]);
      echo_[0] = far;
      const float echo = 0.4f * echo_[13] - 0.2f * echo_[57];
      mic[i] = 0.05f * voice + echo + 0.01f * uniform();
      mic[kBlock + i] = 0.06f * voice_[1] + 0.8f * echo + 0.01f * uniform();
    }
  }

 private:
  float uniform() {
    seed_ = seed_ * 1664525u + 1013904223u;
    return static_cast<float>(seed_ >> 8) / 8388608.0f - 1.0f;
  }

  std::uint32_t seed_;
  std::int64_t time_ = 0;
  int until_pulse_ = 0;
  float pulse_ = 0.0f, far_last_ = 0.0f;
  float voice_[2] = {};
  float echo_[64] = {};
};
