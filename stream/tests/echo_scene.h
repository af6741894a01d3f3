// A far end that the microphone hears through a room, late by as much as a test wants, and a near
// end: all of it synthesised, the same on every machine.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

#include "random_signal.h"

namespace echo_scene {

constexpr int kRate = 16000;
constexpr float kTurn = 6.28318531f;

inline std::size_t samples(double seconds) {
  return static_cast<std::size_t>(seconds * kRate);
}

// Syllables of 80 to 250 ms: a buzz of gliding pitch or a hiss, through two resonances that are
// drawn anew for each, with pauses now and then. Peak near 0.5.
inline std::vector<float> speech(double seconds, unsigned seed) {
  RandomSignal random(seed);
  const auto draw = [&random](float low, float high) {
    return low + 0.5f * (high - low) * (random.uniform() + 1.0f);
  };
  std::vector<float> signal(samples(seconds));
  float state[2][2] = {};
  float phase = 0.0f;
  for (std::size_t start = 0; start < signal.size();) {
    const auto length = samples(draw(0.08f, 0.25f));
    const bool pause = draw(0.0f, 1.0f) < 0.15f, hiss = draw(0.0f, 1.0f) < 0.25f;
    const float pitch = draw(150.0f, 260.0f), glide = draw(-60.0f, 60.0f);
    const float centre[2] = {draw(300.0f, 900.0f), draw(1000.0f, 2600.0f)};
    for (std::size_t i = start; i < std::min(signal.size(), start + length); ++i) {
      const float part = static_cast<float>(i - start) / static_cast<float>(length);
      phase += (pitch + glide * part) / kRate;
      const bool pulse = phase >= 1.0f;
      phase -= pulse ? 1.0f : 0.0f;
      float x = hiss ? 0.05f * random.uniform() : (pulse ? 0.6f : 0.0f) + 0.01f * random.uniform();
      x *= pause ? 0.0f : std::sin(0.5f * kTurn * part);
      for (int r = 0; r < 2; ++r) {
        const float radius = 0.985f - 0.01f * static_cast<float>(r);
        const float y = x * (1.0f - radius) * 6.0f +
                        2 * radius * std::cos(kTurn * centre[r] / kRate) * state[r][0] -
                        radius * radius * state[r][1];
        state[r][1] = state[r][0];
        state[r][0] = y;
        x = y + 0.3f * x;
      }
      signal[i] = x;
    }
    start += length;
  }
  float peak = 0.0f;
  for (const float x : signal) peak = std::max(peak, std::abs(x));
  for (float& x : signal) x *= 0.5f / peak;
  return signal;
}

// Chords of plucked strings, three new notes every 350 ms, with a drum on every other.
inline std::vector<float> music(double seconds, unsigned seed) {
  RandomSignal random(seed);
  std::vector<float> signal(samples(seconds));
  const int scale[] = {0, 3, 5, 7, 10, 12, 15, 17};
  int beat = 0;
  for (std::size_t start = 0; start < signal.size(); start += samples(0.35), ++beat) {
    const std::size_t end = std::min(signal.size(), start + samples(1.0));
    for (int note = 0; note < 3; ++note) {
      const float pitch = 147.0f * std::exp2(static_cast<float>(scale[random.bits() % 8]) / 12.0f);
      for (int harmonic = 1; harmonic < 8; ++harmonic) {
        const auto h = static_cast<float>(harmonic);
        const float step = kTurn * pitch * h * (1.0f + 0.0003f * h * h) / kRate;
        for (std::size_t i = start; i < end; ++i) {
          const float t = static_cast<float>(i - start) / kRate;
          signal[i] +=
              0.06f / h * std::exp(-3.0f * t) * std::sin(step * static_cast<float>(i - start));
        }
      }
    }
    for (std::size_t i = start; beat % 2 == 0 && i < std::min(end, start + 2000); ++i) {
      signal[i] += 0.1f * random.uniform() * std::exp(-static_cast<float>(i - start) / 400.0f);
    }
  }
  return signal;
}

// Through a small room: the direct sound and eighty reflections that die away within 0.2 s.
inline std::vector<float> in_room(const std::vector<float>& source, unsigned seed) {
  RandomSignal random(seed);
  std::vector<float> heard(source.size());
  for (int path = 0; path <= 80; ++path) {
    const std::size_t delay = path == 0 ? 5 : 10 + random.bits() % 2400;
    const float gain =
        path == 0 ? 0.4f : 0.12f * random.uniform() * std::exp(-static_cast<float>(delay) / 700.0f);
    for (std::size_t i = delay; i < heard.size(); ++i) heard[i] += gain * source[i - delay];
  }
  return heard;
}

inline std::vector<float> later(const std::vector<float>& signal, std::size_t delay) {
  std::vector<float> result(signal.size());
  std::copy(signal.begin(), signal.end() - static_cast<std::ptrdiff_t>(delay),
            result.begin() + static_cast<std::ptrdiff_t>(delay));
  return result;
}

// a += b, as far as b goes.
inline void add(std::vector<float>& a, const std::vector<float>& b) {
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) a[i] += b[i];
}

inline double level_db(const std::vector<float>& signal, std::size_t from, std::size_t to) {
  double energy = 1e-20;
  for (std::size_t i = from; i < to; ++i) energy += static_cast<double>(signal[i]) * signal[i];
  return 10 * std::log10(energy / static_cast<double>(to - from));
}

}  // namespace echo_scene
