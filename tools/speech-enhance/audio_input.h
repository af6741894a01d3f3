// Recordings as the engine takes them: 16 kHz floats, full scale +-1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "files.h"

namespace se_tool {

// A stream of frames (one sample of each channel) from a file.
class FrameSource {
 public:
  struct Format {
    int rate = 0;
    int channels = 0;
    std::uint64_t length = 0;  // frames
  };

  explicit FrameSource(const Format& format) : format_(format) {}
  virtual ~FrameSource() = default;

  const Format& format() const { return format_; }

  // Reads up to `count` frames, interleaved; fewer only at the end of the file.
  virtual std::size_t read(float* frames, std::size_t count) = 0;

  // Goes forward by `count` frames; false if that fails.
  virtual bool skip(std::uint64_t count);

 private:
  Format format_;
};

// A part of a recording: frames are counted from its start, rounded to the nearest.
struct Segment {
  double offset_s = 0;
  std::optional<double> duration_s;  // none: to the end
};

// A recording of any format and rate that libsndfile reads, resampled to 16 kHz. WAV files of 16
// kHz in the formats of wav_io.h pass through the library's own reader untouched.
class AudioInput {
 public:
  // `path` may be "-" for standard input. What is no regular file (standard input, pipes, devices)
  // is read to its end first, `most` bytes at most. Throws an Error (input) for what cannot be read
  // or holds no samples, and for a segment that the recording does not reach: one that ends up to
  // 10 ms behind the end was rounded and ends with it.
  explicit AudioInput(const std::string& path, std::uint64_t most = kMostInputBytes,
                      const Segment& segment = {});

  const std::string& name() const { return name_; }
  const FrameSource::Format& original() const { return original_; }
  int channels() const { return original_.channels; }
  std::uint64_t length() const { return source_->format().length; }  // frames at 16 kHz

  // How many bytes of samples a WAV file announces but lacks, which is then as long as what there
  // is. Sizes of 0 or close to 2 or 4 GiB announce nothing: writers to a pipe leave them.
  std::uint64_t missing_bytes() const { return missing_bytes_; }

  // Of the samples read so far at 16 kHz, those beyond SE_MAX_SAMPLE, which the engine takes as
  // that.
  std::uint64_t excessive_samples() const { return excessive_samples_; }

  // Reads exactly `count` frames, interleaved. Throws an Error (input) if the file cannot deliver
  // its length() or holds NaN or infinite samples.
  void read(float* frames, std::size_t count);

 private:
  // The path of a regular file with the content of `file`, which is then that one.
  std::string make_seekable(const std::string& path, Descriptor& file, std::uint64_t most);
  [[noreturn]] void fail_at(std::uint64_t frame, const char* what) const;

  std::string name_;
  std::optional<TemporaryFile> copy_;
  std::unique_ptr<FrameSource> source_;
  FrameSource::Format original_;
  std::uint64_t missing_bytes_ = 0;
  std::uint64_t excessive_samples_ = 0;
  std::uint64_t position_ = 0;  // frames read
};

}  // namespace se_tool
