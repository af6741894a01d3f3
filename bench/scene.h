// The sound that every contender of the benchmark hears: a talker with formants, syllables and
// pauses in coloured noise, at two microphones, while a second talker comes and goes on the
// loudspeaker and reaches the microphones through a room. All of it is synthesised, with
// arithmetic that gives the same samples on every machine.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace se_bench {

constexpr int kBlock = 160;         // samples per frame of 10 ms at 16 kHz
constexpr int kTransformLen = 512;  // samples of one transform

// 10 ms of sound; the pointers stay valid as long as the scene.
struct Frame {
  const float* mics;               // 320 samples of full scale +-1: microphone 0, microphone 1
  const float* ref;                // 160 samples: the loudspeaker
  const std::int16_t* mic_pcm;     // microphone 1 in 16 bits, for contenders with one microphone
  const std::int16_t* ref_pcm;     // the loudspeaker in 16 bits
  const float* transform_samples;  // 512 consecutive samples of microphone 1
};

class Scene {
 public:
  explicit Scene(int frames, std::uint32_t seed = 1);

  int frames() const { return frames_; }

  // Frame i, counted round and round.
  Frame frame(std::size_t i) const;

 private:
  int frames_;
  std::vector<float> mics_, ref_, mic1_;
  std::vector<std::int16_t> mic_pcm_, ref_pcm_;
};

}  // namespace se_bench
