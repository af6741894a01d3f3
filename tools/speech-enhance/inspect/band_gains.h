// The network's gains over time, as a table and for pictures.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pending_file.h"
#include "spectrogram.h"

namespace se_tool {

class BandGains {
 public:
  // A table for `length` samples at 16 kHz: a line per 10 ms with the time of its frame's middle,
  // whether the far end was active, and the gain of each of the 128 bands, 0 to 1.
  BandGains(const std::string& file, std::uint64_t length);

  // Each frame of the engine in order; `bands` is null where the network gave none.
  void add(const float* bands, bool far_end_active);

  // Call them once, in this order, after the last frame.
  void finish();
  void commit() { table_.commit(); }

  // The gains in dB over the bins of their bands; finish() has them ready.
  const SpectrumPicture& picture() const { return picture_; }

 private:
  PendingFile table_;
  std::string text_;      // lines not yet written
  std::uint64_t blocks_;  // in the recording
  std::int64_t block_;    // which the next frame belongs to
  std::vector<double> sum_;
  std::vector<int> frames_in_column_;
  SpectrumPicture picture_;
};

}  // namespace se_tool
