// The enhanced recording as a 16 kHz mono WAV file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pending_file.h"
#include "speechenhance/wav_io.h"

namespace se_tool {

class AudioOutput {
 public:
  // Throws an Error (output) if the target cannot be written or a WAV file cannot hold `length`
  // samples.
  AudioOutput(const std::string& target, bool as_float, std::uint64_t length);

  // Full scale +-1; clipped to it and truncated toward zero unless stored as float, just as the
  // engine's own 16-bit entry does. Throws an Error (output).
  void write(const float* samples, std::size_t count);

  // How many samples were clipped.
  std::uint64_t clipped() const { return clipped_; }

  // Completes the file and makes sure that all of it is on the disk. Throws an Error (output).
  void finish();

  // Puts the finished file in place. Throws an Error (output).
  void commit() { file_.commit(); }

 private:
  struct CloseWav {
    void operator()(WavFile* wav) const { wav_io_close(wav); }
  };

  void append(const void* bytes, std::size_t count);
  [[noreturn]] void fail(int error_number) const;

  PendingFile file_;
  std::unique_ptr<WavFile, CloseWav> wav_;  // closed before the pending file goes away
  bool as_float_;
  std::uint64_t clipped_ = 0;
  std::vector<std::int16_t> integers_;
};

}  // namespace se_tool
