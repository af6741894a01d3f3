#include "scene.h"

#include <algorithm>
#include <cmath>

namespace se_bench {
namespace {

constexpr float kRate = 16000.0f;
constexpr double kPi = 3.14159265358979323846;

// Uniform noise in -1..1 from a linear congruential generator.
class Noise {
 public:
  explicit Noise(std::uint32_t seed) : state_(seed) {}
  float next() { return static_cast<float>(bits() >> 8) / 8388608.0f - 1.0f; }
  std::uint32_t bits() { return state_ = state_ * 1664525u + 1013904223u; }

 private:
  std::uint32_t state_;
};

// A two-pole resonance. Its coefficients are rounded to steps of 2^-10, so that they do not depend
// on the last bits of the C library's functions.
class Resonance {
 public:
  void tune(double hz, double bandwidth_hz) {
    const double radius = std::exp(-kPi * bandwidth_hz / kRate);
    a1_ = step(2.0 * radius * std::cos(2.0 * kPi * hz / kRate));
    a2_ = step(-radius * radius);
    gain_ = 1.0f - step(radius);
  }
  float next(float x) {
    const float y = gain_ * x + a1_ * y1_ + a2_ * y2_;
    y2_ = y1_;
    y1_ = y;
    return y;
  }

 private:
  static float step(double value) {
    return static_cast<float>(std::round(value * 1024.0) / 1024.0);
  }

  float a1_ = 0.0f, a2_ = 0.0f, gain_ = 1.0f, y1_ = 0.0f, y2_ = 0.0f;
};

// Syllables of 120..250 ms: mostly vowels (glottal pulses through three formants), some fricatives
// (noise through one high resonance), and a pause after every few.
class Talker {
 public:
  Talker(std::uint32_t seed, int pitch_period) : noise_(seed), pitch_period_(pitch_period) {}

  float next() {
    if (left_ == 0) start_syllable();
    const int done = length_ - left_--;
    // A trapezium over the syllable, so that it begins and ends without a click.
    const float edge = static_cast<float>(std::min({done, left_, 480})) / 480.0f;
    if (kind_ == Kind::pause) return 0.0f;
    if (kind_ == Kind::fricative) return 0.25f * edge * formants_[0].next(noise_.next());
    if (--until_pulse_ <= 0) {
      until_pulse_ = pitch_period_ + done / 160 + static_cast<int>(noise_.bits() >> 30);
      glottis_ = 1.0f;
    }
    glottis_ *= 0.9f;
    const float source = glottis_ + 0.02f * noise_.next();
    return edge * (formants_[0].next(source) + 0.7f * formants_[1].next(source) +
                   0.35f * formants_[2].next(source));
  }

 private:
  enum class Kind { vowel, fricative, pause };

  void start_syllable() {
    static constexpr double kVowels[][3] = {{730, 1090, 2440},
                                            {270, 2290, 3010},
                                            {300, 870, 2240},
                                            {530, 1840, 2480},
                                            {570, 840, 2410}};
    const std::uint32_t draw = noise_.bits() >> 24;
    kind_ = draw < 150 ? Kind::vowel : draw < 205 ? Kind::fricative : Kind::pause;
    length_ = left_ = 1920 + static_cast<int>(noise_.bits() >> 21);
    if (kind_ == Kind::pause) return;
    const double* vowel = kVowels[(noise_.bits() >> 16) % 5];
    for (int i = 0; i < 3; ++i) formants_[i].tune(vowel[i], 60.0 + 30.0 * i);
    if (kind_ == Kind::fricative) formants_[0].tune(4500.0, 1500.0);
  }

  Noise noise_;
  int pitch_period_;
  int left_ = 0, length_ = 0, until_pulse_ = 0;
  Kind kind_ = Kind::pause;
  float glottis_ = 0.0f;
  Resonance formants_[3];
};

// A room between a source and a microphone: a few dozen reflections that decay over 60 ms.
class Room {
 public:
  Room(std::uint32_t seed, int direct_delay) : history_(kLength, 0.0f) {
    Noise noise(seed);
    float level = 0.6f;
    for (Reflection& r : reflections_) {
      r = {direct_delay, level * noise.next()};
      direct_delay += 1 + static_cast<int>(noise.bits() >> 27);
      level *= 0.9f;
    }
    reflections_[0].gain = 0.6f;
  }
  float next(float x) {
    at_ = (at_ + kLength - 1) % kLength;
    history_[at_] = x;
    float y = 0.0f;
    for (const Reflection& r : reflections_) {
      y += r.gain * history_[(at_ + static_cast<std::size_t>(r.delay)) % kLength];
    }
    return y;
  }

 private:
  static constexpr std::size_t kLength = 2048;
  struct Reflection {
    int delay;  // samples
    float gain;
  };

  Reflection reflections_[40];
  std::vector<float> history_;
  std::size_t at_ = 0;
};

std::int16_t to_pcm(float x) {
  return static_cast<std::int16_t>(std::max(-32768.0f, std::min(32767.0f, 32768.0f * x)));
}

}  // namespace

Scene::Scene(int frames, std::uint32_t seed) : frames_(frames) {
  const auto samples = static_cast<std::size_t>(frames) * kBlock;
  mics_.resize(2 * samples);
  ref_.resize(samples);
  mic1_.resize(samples + kTransformLen);
  mic_pcm_.resize(samples);
  ref_pcm_.resize(samples);

  Talker near(seed, 110), far(seed + 1, 70);
  Room near_room[2] = {Room(seed + 2, 20), Room(seed + 3, 22)};
  Room far_room[2] = {Room(seed + 4, 9), Room(seed + 5, 5)};
  Noise noise(seed + 6);
  float rumble = 0.0f;
  for (std::size_t i = 0; i < samples; ++i) {
    // The far end talks for three seconds of every five.
    const float played = i % 80000 < 48000 ? far.next() : 0.0f;
    const float voice = near.next();
    rumble = 0.98f * rumble + 0.01f * noise.next();
    ref_[i] = played;
    float* const block = mics_.data() + i / kBlock * 2 * kBlock + i % kBlock;
    for (int c = 0; c < 2; ++c) {
      block[c * kBlock] = near_room[c].next(voice) + 0.7f * far_room[c].next(played) + rumble +
                          0.008f * noise.next();
    }
    mic1_[kTransformLen + i] = block[kBlock];
    mic_pcm_[i] = to_pcm(block[kBlock]);
    ref_pcm_[i] = to_pcm(played);
  }
}

Frame Scene::frame(std::size_t i) const {
  const std::size_t first = i % static_cast<std::size_t>(frames_) * kBlock;
  return {mics_.data() + 2 * first, ref_.data() + first, mic_pcm_.data() + first,
          ref_pcm_.data() + first, mic1_.data() + first};
}

}  // namespace se_bench
