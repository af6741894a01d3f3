// The short-time spectrum of a recording of known length, gathered while it streams past into a
// picture of bounded width.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "speechenhance/zel_stft.h"

namespace se_tool {

// Power in dB of each frequency bin and column of time; 0 dB is a sine of full scale. A column that
// covers several frames holds their mean power.
struct SpectrumPicture {
  static constexpr std::size_t kBins = 257;  // 0 to 8 kHz

  std::size_t columns = 0;
  std::vector<float> power_db;  // column after column, bin 0 first
  std::vector<float> level_db;  // mean square of each column's samples, 0 dB for a constant 1

  float at(std::size_t column, std::size_t bin) const { return power_db[column * kBins + bin]; }
};

class Spectrogram {
 public:
  static constexpr std::size_t kMostColumns = 1200;

  // For `length` samples at 16 kHz.
  explicit Spectrogram(std::uint64_t length);

  // All samples in order, in blocks of SE_BLOCK_LEN; the last one may be shorter.
  void add_block(const float* samples, std::size_t count);

  // Call it once, after the last block.
  SpectrumPicture finish();

 private:
  void analyse(const float* block);
  std::size_t column_of(std::uint64_t block) const;

  std::vector<float> window_;
  std::vector<char> memory_;   // of the transform
  std::vector<char> scratch_;  // of its calls
  stft_state* stft_;
  std::uint64_t blocks_;      // in the recording
  std::uint64_t frames_ = 0;  // analysed
  std::size_t columns_;
  std::vector<double> power_;  // sums, laid out as in the picture
  std::vector<int> frames_in_column_;
  std::vector<double> energy_;  // of each column's samples
  std::vector<std::uint64_t> samples_in_column_;
};

}  // namespace se_tool
