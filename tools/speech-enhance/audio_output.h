// The enhanced recording as a 16 kHz mono sound file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pending_file.h"

namespace se_tool {

enum class SoundFormat {
  kWav16,     // WAV, 16-bit samples
  kWavFloat,  // WAV, 32-bit floats
  kFlac,      // FLAC, 16-bit samples
};

// The file name's suffix with its dot.
const char* suffix_of(SoundFormat format);

// Takes the samples as the file stores them.
class SampleWriter {
 public:
  virtual ~SampleWriter() = default;

  // Both return 0, an errno, or -1 if the system does not say why it failed.
  virtual int write(const void* samples, std::size_t count) = 0;
  virtual int close() = 0;  // all of it is in the file
};

class AudioOutput {
 public:
  // Throws an Error (output) if the target cannot be written or a WAV file cannot hold `length`
  // samples.
  AudioOutput(const std::string& target, SoundFormat format, std::uint64_t length);

  // Full scale +-1; clipped to it and truncated toward zero unless stored as float, just as the
  // engine's own 16-bit entry does. Some samples gather before they go to the file. Throws an Error
  // (output).
  void write(const float* samples, std::size_t count);

  // How many samples were clipped.
  std::uint64_t clipped() const { return clipped_; }

  // Completes the file. Throws an Error (output).
  void finish();

  // Makes sure that all of the finished file is on the disk. Throws an Error (output).
  void sync() { file_.sync(); }

  // Where the finished file waits for commit().
  const std::string& path() const { return file_.path(); }

  // Puts the finished file in place. Throws an Error (output).
  void commit() { file_.commit(); }

 private:
  void flush();
  [[noreturn]] void fail(int error_number) const;

  PendingFile file_;
  std::unique_ptr<SampleWriter> writer_;  // closed before the pending file goes away
  bool as_float_;
  std::uint64_t clipped_ = 0;
  std::vector<float> floats_;           // gathered, if stored as float
  std::vector<std::int16_t> integers_;  // gathered otherwise
};

}  // namespace se_tool
