#include "live/pcm_stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>

#include "errors.h"
#include "signals.h"

namespace se_tool {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "samples are used as they are");

constexpr std::uint32_t kUnknownBytes = 0x7FFFF000;  // announced by writers to a pipe, or more
constexpr std::size_t kMostHeaderBytes = 1 << 16;
constexpr std::size_t kHeaderBytes = 44;
constexpr int kTagInteger = 1;
constexpr int kTagFloat = 3;
constexpr int kTagExtensible = 0xFFFE;

std::size_t sample_bytes(SampleType type) {
  switch (type) {
    case SampleType::kInt16:
      return 2;
    case SampleType::kInt24:
      return 3;
    case SampleType::kInt32:
    case SampleType::kFloat:
      break;
  }
  return 4;
}

float decode(const char* bytes, SampleType type) {
  if (type == SampleType::kFloat) {
    float value;
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }
  const std::size_t size = sample_bytes(type);
  std::int32_t value = 0;  // its highest bytes are the sample's
  std::memcpy(reinterpret_cast<char*>(&value) + sizeof value - size, bytes, size);
  return static_cast<float>(value) * 0x1p-31f;
}

void encode(float sample, SampleType type, std::string& bytes) {
  char buffer[4];
  const std::size_t size = sample_bytes(type);
  if (type == SampleType::kFloat) {
    std::memcpy(buffer, &sample, size);
  } else {
    const double scale = std::ldexp(1.0, static_cast<int>(8 * size) - 1);
    const auto value =
        static_cast<std::int32_t>(std::clamp(double{sample} * scale, -scale, scale - 1));
    std::memcpy(buffer, &value, size);
  }
  bytes.append(buffer, size);
}

template <class Integer>
Integer integer_at(const std::string& bytes, std::size_t position) {
  Integer value;
  std::memcpy(&value, bytes.data() + position, sizeof value);
  return value;
}

template <class Integer>
void append(std::string& bytes, Integer value) {
  bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

[[noreturn]] void refuse(const std::string& reason) {
  throw Error(ExitCode::kInput, "standard input: " + reason);
}

}  // namespace

std::optional<SampleType> find_sample_type(const std::string& name) {
  if (name == "S16_LE") return SampleType::kInt16;
  if (name == "S24_3LE") return SampleType::kInt24;
  if (name == "S32_LE") return SampleType::kInt32;
  if (name == "FLOAT_LE") return SampleType::kFloat;
  return std::nullopt;
}

PcmReader::PcmReader(int descriptor, const std::optional<PcmFormat>& raw)
    : descriptor_(descriptor) {
  if (raw) {
    format_ = *raw;
  } else {
    read_header();
  }
}

std::vector<float> PcmReader::read(std::size_t most) {
  const std::size_t size = sample_bytes(format_.type);
  const std::size_t frame = size * static_cast<std::size_t>(format_.channels);
  while (bytes_.size() < frame && left_ >= frame && fill(most * frame)) {
  }
  const std::uint64_t usable = std::min<std::uint64_t>({bytes_.size(), left_, most * frame});
  const std::string taken = take(static_cast<std::size_t>(usable) / frame * frame);
  left_ -= left_ == UINT64_MAX ? 0 : taken.size();
  std::vector<float> samples(taken.size() / size);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = decode(taken.data() + i * size, format_.type);
  }
  return samples;
}

// Reads once, up to so many bytes. False at the end and when a signal asks to stop.
bool PcmReader::fill(std::size_t bytes) {
  if (!wait_for(descriptor_, POLLIN)) return false;
  const std::size_t filled = bytes_.size();
  bytes_.resize(filled + bytes);
  const ssize_t got = ::read(descriptor_, bytes_.data() + filled, bytes);
  const int error = errno;
  bytes_.resize(filled + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
  if (got < 0) refuse("cannot be read: " + system_message(error));
  return got > 0;
}

std::string PcmReader::take(std::size_t bytes) {
  std::string taken = bytes_.substr(0, bytes);
  bytes_.erase(0, bytes);
  return taken;
}

void PcmReader::read_header() {
  const auto next = [&](std::size_t bytes) {
    while (bytes_.size() < bytes && fill(bytes - bytes_.size())) {
    }
    throw_if_interrupted();
    if (bytes_.size() < bytes) refuse("ends before its first sample");
    return take(bytes);
  };
  const char* const no_header = "holds no WAV header; of raw sound say the --format";
  const std::string riff = next(4);
  if (riff != "RIFF") refuse(no_header);
  if (next(8).substr(4) != "WAVE") refuse(no_header);
  bool has_format = false;
  for (;;) {
    const std::string chunk = next(8);
    const auto size = integer_at<std::uint32_t>(chunk, 4);
    const std::string name = chunk.substr(0, 4);
    if (name == "data") {
      if (!has_format) refuse("has a WAV header without a format");
      if (size > 0 && size < kUnknownBytes) left_ = size;
      return;
    }
    if (size > kMostHeaderBytes) refuse("has a damaged WAV header");
    const std::string content = next(size + size % 2);
    if (name != "fmt ") continue;
    read_format(content);
    has_format = true;
  }
}

void PcmReader::read_format(const std::string& chunk) {
  if (chunk.size() < 16) refuse("has a damaged WAV header");
  int tag = integer_at<std::uint16_t>(chunk, 0);
  const auto rate = integer_at<std::uint32_t>(chunk, 4);
  const int bits = integer_at<std::uint16_t>(chunk, 14);
  format_.channels = integer_at<std::uint16_t>(chunk, 2);
  format_.rate = static_cast<int>(std::min<std::uint32_t>(rate, INT_MAX));
  if (tag == kTagExtensible && chunk.size() >= 26) tag = integer_at<std::uint16_t>(chunk, 24);
  if (tag == kTagInteger && bits == 16) {
    format_.type = SampleType::kInt16;
  } else if (tag == kTagInteger && bits == 24) {
    format_.type = SampleType::kInt24;
  } else if (tag == kTagInteger && bits == 32) {
    format_.type = SampleType::kInt32;
  } else if (tag == kTagFloat && bits == 32) {
    format_.type = SampleType::kFloat;
  } else {
    refuse("WAV samples of " + std::to_string(bits) +
           " bits of this kind are not taken; record with arecord -f S16_LE");
  }
}

PcmWriter::PcmWriter(int descriptor, const PcmFormat& format, bool as_wav)
    : descriptor_(descriptor),
      format_(format),
      as_wav_(as_wav),
      start_(lseek(descriptor, 0, SEEK_CUR)) {
  if (as_wav_) write_bytes(header(kUnknownBytes));
}

bool PcmWriter::write(const std::vector<float>& samples) {
  std::string bytes;
  for (const float sample : samples) encode(sample, format_.type, bytes);
  data_bytes_ += bytes.size();
  return write_bytes(bytes);
}

void PcmWriter::finish() {
  if (!as_wav_ || start_ < 0 || data_bytes_ >= kUnknownBytes) return;
  const std::string bytes = header(static_cast<std::uint32_t>(data_bytes_));
  // Fails on what only seems to be a file (/dev/null); then the length stays unknown.
  if (pwrite(descriptor_, bytes.data(), bytes.size(), start_) < 0) return;
}

// In pieces that a pipe takes whole once it takes anything, so that only wait_for() waits.
bool PcmWriter::write_bytes(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!wait_for(descriptor_, POLLOUT)) return false;
    const ssize_t written =
        ::write(descriptor_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
    if (written < 0 && errno == EPIPE) return false;
    if (written < 0) {
      throw Error(ExitCode::kOutput,
                  "standard output: cannot be written: " + system_message(errno));
    }
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

std::string PcmWriter::header(std::uint32_t data_bytes) const {
  const std::size_t size = sample_bytes(format_.type);
  const auto rate = static_cast<std::uint32_t>(format_.rate);
  std::string bytes = "RIFF";
  append<std::uint32_t>(bytes, data_bytes + kHeaderBytes - 8);
  bytes += "WAVEfmt ";
  append<std::uint32_t>(bytes, 16);
  append<std::uint16_t>(bytes, format_.type == SampleType::kFloat ? kTagFloat : kTagInteger);
  append<std::uint16_t>(bytes, 1);
  append<std::uint32_t>(bytes, rate);
  append<std::uint32_t>(bytes, static_cast<std::uint32_t>(rate * size));
  append<std::uint16_t>(bytes, static_cast<std::uint16_t>(size));
  append<std::uint16_t>(bytes, static_cast<std::uint16_t>(8 * size));
  bytes += "data";
  append<std::uint32_t>(bytes, data_bytes);
  return bytes;
}

}  // namespace se_tool
