// Loudspeaker signals that wear an echo canceller out, and rooms that return them. Made with
// operations that round the same way on every machine.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "random_signal.h"

// One sample after the other of what a loudspeaker plays, within +-1.
class FarEnd {
 public:
  enum Kind { kSilence, kBeeps, kClippedMusic, kQuietNoise, kSpeech };

  explicit FarEnd(std::uint64_t seed) : random_(seed) {}

  float next(Kind kind) {
    ++time_;
    switch (kind) {
      case kSilence:
        return 0.0f;
      case kBeeps:
        return beep();
      case kClippedMusic:
        return clipped_music();
      case kQuietNoise:
        return 0.01f * coloured();
      case kSpeech:
        return speech();
    }
    return 0.0f;
  }

 private:
  // Full-scale square waves of 300 ms, 200 ms apart, at 1143 and 727 Hz in turn, which do not
  // divide the blocks.
  float beep() const {
    const std::int64_t in_turn = time_ % 8000, half_period = time_ / 8000 % 2 ? 11 : 7;
    if (in_turn >= 4800) return 0.0f;
    return in_turn / half_period % 2 ? -1.0f : 1.0f;
  }

  // Five sawtooth voices, each of which strikes a new note after 100 to 500 ms, far too loud.
  float clipped_music() {
    float sum = 0.0f;
    for (Voice& voice : voices_) {
      if (--voice.left <= 0) {
        voice.left = 1600 + static_cast<int>(random_.bits() % 6400);
        voice.step = 0.005f + 0.06f * (0.5f + 0.5f * random_.uniform());
        voice.level = 1.0f;
      }
      voice.phase += voice.step;
      if (voice.phase > 1.0f) voice.phase -= 2.0f;
      voice.level *= 0.9995f;
      sum += voice.level * voice.phase;
    }
    return std::clamp(4.0f * sum, -1.0f, 1.0f);
  }

  // Uniform noise through one pole at 0.95: 32 dB louder at the low end than at the high one.
  float coloured() {
    pole_ = 0.95f * pole_ + 0.54f * random_.uniform();
    return pole_;
  }

  // Bursts of coloured noise of changing level with pauses between: the envelope of speech.
  float speech() {
    if (--left_ <= 0) {
      left_ = 800 + static_cast<int>(random_.bits() % 6400);
      level_ = random_.bits() % 4 == 0 ? 0.0f : 0.25f * (0.5f + 0.5f * random_.uniform());
    }
    return level_ * coloured();
  }

  struct Voice {
    int left = 0;
    float step = 0.0f, phase = 0.0f, level = 0.0f;
  };

  RandomSignal random_;
  std::int64_t time_ = 0;
  float pole_ = 0.0f, level_ = 0.0f;
  int left_ = 0;
  Voice voices_[5];
};

// A path of three reflections from the loudspeaker to a microphone.
class EchoPath {
 public:
  struct Reflection {
    int delay;  // samples, below 256
    float gain;
  };

  explicit EchoPath(std::array<Reflection, 3> reflections) : reflections_(reflections) {}

  float next(float far_end) {
    past_[time_ % past_.size()] = far_end;
    float sum = 0.0f;
    for (const Reflection& r : reflections_) {
      sum +=
          r.gain * past_[(time_ + past_.size() - static_cast<std::size_t>(r.delay)) % past_.size()];
    }
    ++time_;
    return sum;
  }

 private:
  std::array<Reflection, 3> reflections_;
  std::array<float, 256> past_{};
  std::size_t time_ = 0;
};

const EchoPath kHere({{{16, 0.5f}, {70, 0.3f}, {150, -0.15f}}});
const EchoPath kElsewhere({{{30, 0.4f}, {90, -0.35f}, {200, 0.1f}}});

// A far end in a room with a very quiet noise of its own, in blocks.
class Room {
 public:
  static constexpr int kBlock = 160;

  Room(std::uint64_t seed, EchoPath path) : far_end_(seed), path_(path), noise_(seed + 1) {}

  void change_path(EchoPath path) { path_ = path; }

  // Fills microphone 0 and 1 (320 floats) and the reference (160 floats) of the next 10 ms.
  void next(FarEnd::Kind kind, float* mic, float* ref) {
    for (int i = 0; i < kBlock; ++i) {
      ref[i] = far_end_.next(kind);
      const float echo = path_.next(ref[i]);
      mic[i] = 0.7f * echo + 1e-5f * noise_.uniform();
      mic[kBlock + i] = echo + 1e-5f * noise_.uniform();
    }
  }

 private:
  FarEnd far_end_;
  EchoPath path_;
  RandomSignal noise_;
};
