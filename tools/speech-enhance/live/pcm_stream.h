// Sound as arecord and aplay pass it through pipes: WAV or raw samples, little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace se_tool {

enum class SampleType { kInt16, kInt24, kInt32, kFloat };  // 24 bits in 3 bytes

// By ALSA's names, S16_LE, S24_3LE, S32_LE and FLOAT_LE; those are what arecord -f takes.
std::optional<SampleType> find_sample_type(const std::string& name);

struct PcmFormat {
  SampleType type = SampleType::kInt16;
  int rate = 16000;
  int channels = 1;
};

// Reads what there is, as soon as it is there.
class PcmReader {
 public:
  // Raw samples of a known format; otherwise a WAV header is read first. Throws an Error (input) if
  // there is none or its samples are of another kind.
  PcmReader(int descriptor, const std::optional<PcmFormat>& raw);

  const PcmFormat& format() const { return format_; }

  // Waits until there are frames and gets those that are there, at most `most`: interleaved, full
  // scale +-1. None: the sound has ended, or a signal asks to stop. Throws an Error (input).
  std::vector<float> read(std::size_t most);

 private:
  bool fill(std::size_t bytes);
  std::string take(std::size_t bytes);
  void read_header();
  void read_format(const std::string& chunk);

  int descriptor_;
  PcmFormat format_;
  std::uint64_t left_ = UINT64_MAX;  // bytes of samples that are still to come
  std::string bytes_;                // read, but not used yet
};

// Writes at once, one channel.
class PcmWriter {
 public:
  // Throws an Error (output).
  PcmWriter(int descriptor, const PcmFormat& format, bool as_wav);

  // Full scale +-1, clipped and truncated toward zero where the format is not float. False if the
  // reader has left or a signal asks to stop meanwhile. Throws an Error (output).
  bool write(const std::vector<float>& samples);

  // Enters the length into the header if the output is a file. Throws an Error (output).
  void finish();

 private:
  bool write_bytes(std::string_view bytes);
  std::string header(std::uint32_t data_bytes) const;

  int descriptor_;
  PcmFormat format_;
  bool as_wav_;
  std::int64_t start_;  // where in the file the header is; negative: not in a file
  std::uint64_t data_bytes_ = 0;
};

}  // namespace se_tool
