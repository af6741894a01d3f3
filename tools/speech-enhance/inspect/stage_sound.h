// The sound of one stage: written to a file and gathered for the picture.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "audio_output.h"
#include "spectrogram.h"
#include "speechenhance/zel_stft.h"
#include "statistics.h"

namespace se_tool {

class StageSound {
 public:
  // `file` gets `length` samples, from the one on that comes `delay` samples after the first.
  StageSound(const std::string& file, std::string title, std::uint64_t length, int delay);

  void add(const float* block);            // SE_BLOCK_LEN samples
  void add(const zel_lcomplex* spectrum);  // a frame's 257 bins: adds 352 samples of delay

  // Call them once, in this order, after the last block.
  void finish();
  void commit() { output_.commit(); }

  // Its title and level, and its spectrum; finish() has them ready.
  const std::string& heading() const { return heading_; }
  const SpectrumPicture& picture() const { return picture_; }

 private:
  // Overlap-add of the stage's spectra.
  class Synthesis {
   public:
    Synthesis();
    void run(const zel_lcomplex* spectrum, float* block);

   private:
    std::vector<char> memory_, scratch_;
    stft_state* stft_;
  };

  void emit(std::size_t count);

  AudioOutput output_;
  Spectrogram spectrum_;
  LevelMeter level_;
  Synthesis synthesis_;
  std::vector<float> waiting_;  // less than a block, between calls
  std::size_t to_drop_;
  std::uint64_t left_;  // samples still to write
  std::string heading_;
  SpectrumPicture picture_;
};

}  // namespace se_tool
