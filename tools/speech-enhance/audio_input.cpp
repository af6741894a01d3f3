#include "audio_input.h"

#include <fcntl.h>
#include <samplerate.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sndfile.hh>
#include <vector>

#include "errors.h"
#include "formatted.h"
#include "signals.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/wav_io.h"

namespace se_tool {
namespace {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "samples of WAV files are used as they are");

constexpr std::size_t kChunkFrames = 4096;

struct CloseWav {
  void operator()(WavFile* file) const { wav_io_close(file); }
};
using WavHandle = std::unique_ptr<WavFile, CloseWav>;

// The library's own reader.
class WavSource : public FrameSource {
 public:
  WavSource(WavHandle file, const WavFormat& wav)
      : FrameSource({wav.sample_rate, wav.channels,
                     wav_io_get_data_size(file.get()) / bytes_per_frame(wav)}),
        file_(std::move(file)),
        wav_(wav) {}

  std::size_t read(float* frames, std::size_t count) override {
    std::size_t done = 0;
    while (done < count) {
      if (position_ == available_ && !refill()) break;
      const std::size_t step = std::min(count - done, available_ - position_);
      convert(frames + done * channels(), step * channels());
      position_ += step;
      done += step;
    }
    return done;
  }

 private:
  std::size_t channels() const { return static_cast<std::size_t>(wav_.channels); }

  bool refill() {
    bytes_.resize(kChunkFrames * bytes_per_frame(wav_));
    const auto bytes =
        wav_io_read(file_.get(), static_cast<std::uint32_t>(bytes_.size()), bytes_.data());
    position_ = 0;
    available_ = static_cast<std::size_t>(std::max<std::int64_t>(0, bytes)) / bytes_per_frame(wav_);
    return available_ > 0;
  }

  static std::uint32_t bytes_per_frame(const WavFormat& wav) {
    return static_cast<std::uint32_t>(wav.channels * (wav.bits_per_sample / 8));
  }

  // The next `count` samples of the chunk.
  void convert(float* samples, std::size_t count) const {
    const unsigned char* const bytes = bytes_.data() + position_ * bytes_per_frame(wav_);
    if (wav_.is_float != 0) {
      std::memcpy(samples, bytes, count * sizeof(float));
    } else if (wav_.bits_per_sample == 16) {
      scale<std::int16_t>(bytes, samples, count);
    } else {
      scale<std::int32_t>(bytes, samples, count);
    }
  }

  template <class Integer>
  static void scale(const unsigned char* bytes, float* samples, std::size_t count) {
    constexpr float kScale = 1.0f / static_cast<float>(1u << (8 * sizeof(Integer) - 1));
    for (std::size_t i = 0; i < count; ++i) {
      Integer value;
      std::memcpy(&value, bytes + i * sizeof value, sizeof value);
      samples[i] = static_cast<float>(value) * kScale;
    }
  }

  WavHandle file_;
  WavFormat wav_;
  std::vector<unsigned char> bytes_;  // a chunk
  std::size_t position_ = 0;          // frames of it used
  std::size_t available_ = 0;         // frames of it in all
};

class SndfileSource : public FrameSource {
 public:
  explicit SndfileSource(const SndfileHandle& file)
      : FrameSource(
            {file.samplerate(), file.channels(), static_cast<std::uint64_t>(file.frames())}),
        file_(file) {}

  std::size_t read(float* frames, std::size_t count) override {
    return static_cast<std::size_t>(file_.readf(frames, static_cast<sf_count_t>(count)));
  }

  bool skip(std::uint64_t count) override {
    return file_.seek(static_cast<sf_count_t>(count), SEEK_CUR) >= 0;
  }

 private:
  SndfileHandle file_;
};

// The next frames of another source, no more than its length.
class PartOfSource : public FrameSource {
 public:
  PartOfSource(std::unique_ptr<FrameSource> source, std::uint64_t length)
      : FrameSource({source->format().rate, source->format().channels, length}),
        source_(std::move(source)),
        left_(length) {}

  std::size_t read(float* frames, std::size_t count) override {
    const std::size_t read =
        source_->read(frames, static_cast<std::size_t>(std::min<std::uint64_t>(count, left_)));
    left_ -= read;
    return read;
  }

 private:
  std::unique_ptr<FrameSource> source_;
  std::uint64_t left_;
};

std::unique_ptr<FrameSource> cut(std::unique_ptr<FrameSource> source, const Segment& segment) {
  const FrameSource::Format& format = source->format();
  const auto frames = [&](double seconds) {
    return static_cast<std::uint64_t>(std::llround(seconds * format.rate));
  };
  const auto refuse = [&](const char* what, double seconds) {
    throw Error(ExitCode::kInput, formatted("%s at %.3f s, the recording at %.3f s", what, seconds,
                                            static_cast<double>(format.length) / format.rate));
  };
  const std::uint64_t start = frames(segment.offset_s);
  if (start >= format.length) refuse("the segment begins", segment.offset_s);
  std::uint64_t length = format.length - start;
  if (segment.duration_s) {
    constexpr double kRounding = 0.01;
    const std::uint64_t wanted = std::max<std::uint64_t>(1, frames(*segment.duration_s));
    if (wanted > length + frames(kRounding)) {
      refuse("the segment ends", segment.offset_s + *segment.duration_s);
    }
    length = std::min(length, wanted);
  }
  if (length == format.length) return source;
  if (start > 0 && !source->skip(start)) {
    throw Error(ExitCode::kInput, "cannot be entered at an offset");
  }
  return std::make_unique<PartOfSource>(std::move(source), length);
}

// Another source at another rate, by libsamplerate's best windowed sinc (linear phase, so that
// nothing moves in time).
class ResampledSource : public FrameSource {
 public:
  ResampledSource(std::unique_ptr<FrameSource> source, int rate)
      : FrameSource({rate, source->format().channels, resampled_length(source->format(), rate)}),
        source_(std::move(source)),
        ratio_(static_cast<double>(rate) / source_->format().rate),
        input_(kChunkFrames * static_cast<std::size_t>(format().channels)) {
    int error = 0;
    state_.reset(src_new(SRC_SINC_BEST_QUALITY, format().channels, &error));
    if (!state_ || src_is_valid_ratio(ratio_) == 0) {
      throw Error(ExitCode::kInput, "a rate of " + std::to_string(source_->format().rate) +
                                        " Hz cannot be resampled");
    }
  }

  std::size_t read(float* frames, std::size_t count) override {
    const auto channels = static_cast<std::size_t>(format().channels);
    std::size_t done = 0;
    while (done < count) {
      if (available_ == 0 && !at_end_) refill();
      SRC_DATA step = {};
      step.data_in = input_.data() + position_ * channels;
      step.input_frames = static_cast<long>(available_);
      step.data_out = frames + done * channels;
      step.output_frames = static_cast<long>(count - done);
      step.end_of_input = at_end_ ? 1 : 0;
      step.src_ratio = ratio_;
      if (src_process(state_.get(), &step) != 0) break;
      position_ += static_cast<std::size_t>(step.input_frames_used);
      available_ -= static_cast<std::size_t>(step.input_frames_used);
      done += static_cast<std::size_t>(step.output_frames_gen);
      if (at_end_ && step.output_frames_gen == 0) {
        done += pad_end(frames + done * channels, count - done, produced_ + done);
        break;
      }
    }
    produced_ += done;
    return done;
  }

 private:
  struct DeleteState {
    void operator()(SRC_STATE* state) const { src_delete(state); }
  };

  static std::uint64_t resampled_length(const Format& format, int rate) {
    const double frames = static_cast<double>(format.length) * rate / format.rate;
    return format.length == 0
               ? 0
               : std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::llround(frames)));
  }

  void refill() {
    position_ = 0;
    available_ = source_->read(input_.data(), kChunkFrames);
    consumed_ += available_;
    at_end_ = available_ < kChunkFrames;
  }

  // The resampler may stop a sample short of the rounded length: silence fills it up, but not the
  // place of what the source failed to deliver.
  std::size_t pad_end(float* frames, std::size_t count, std::uint64_t produced) const {
    if (consumed_ < source_->format().length || produced >= format().length) return 0;
    const std::uint64_t padded = std::min<std::uint64_t>(count, format().length - produced);
    std::fill_n(frames, padded * static_cast<std::size_t>(format().channels), 0.0f);
    return padded;
  }

  std::unique_ptr<FrameSource> source_;
  double ratio_;
  std::unique_ptr<SRC_STATE, DeleteState> state_;
  std::vector<float> input_;    // one chunk of the source
  std::size_t position_ = 0;    // frames of it used
  std::size_t available_ = 0;   // frames of it left
  std::uint64_t consumed_ = 0;  // frames read from the source
  std::uint64_t produced_ = 0;  // frames given out
  bool at_end_ = false;
};

// The library's reader where it can read the file and the rate is the engine's.
std::unique_ptr<FrameSource> open_wav(const std::string& path) {
  WavFormat wav = {};
  WavHandle file(wav_io_open(path.c_str(), 0, &wav));
  if (!file || wav.sample_rate != SE_SAMPLE_RATE) return nullptr;
  return std::make_unique<WavSource>(std::move(file), wav);
}

std::unique_ptr<FrameSource> open_sndfile(const std::string& path) {
  SndfileHandle file(path);
  if (file.rawHandle() == nullptr) {
    std::string reason = file.strError();
    while (!reason.empty() && (reason.back() == '.' || reason.back() == '\n')) reason.pop_back();
    throw Error(ExitCode::kInput, "not readable as audio: " + reason);
  }
  return std::make_unique<SndfileSource>(file);
}

// Of the data chunk of a WAV file; 0 for every other file.
std::uint64_t count_missing_bytes(const Descriptor& file) {
  constexpr std::uint64_t kUnknown = 0x7FFFF000;  // what writers to a pipe announce, or more
  const auto read_at = [&file](off_t position, auto& bytes) {
    return pread(file.get(), bytes, sizeof bytes, position) == ssize_t{sizeof bytes};
  };
  char riff[12];
  if (!read_at(0, riff) || std::memcmp(riff, "RIFF", 4) != 0) return 0;
  off_t position = sizeof riff;
  for (char chunk[8]; read_at(position, chunk);) {
    position += off_t{sizeof chunk};
    std::uint32_t size = 0;
    std::memcpy(&size, chunk + 4, sizeof size);
    if (std::memcmp(chunk, "data", 4) != 0) {
      position += off_t{size} + size % 2;
      continue;
    }
    struct stat status = {};
    if (size >= kUnknown || fstat(file.get(), &status) != 0) return 0;
    return std::max<off_t>(0, position + off_t{size} - status.st_size);
  }
  return 0;
}

Descriptor open_to_read(const std::string& path) {
  Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  const int error = errno;
  throw_if_interrupted();  // while it waited for the writer of a named pipe
  if (!file.is_open()) throw Error(ExitCode::kInput, "cannot be opened: " + system_message(error));
  return file;
}

mode_t type_of(const Descriptor& file) {
  struct stat status = {};
  return fstat(file.get(), &status) == 0 ? status.st_mode & S_IFMT : 0;
}

}  // namespace

bool FrameSource::skip(std::uint64_t count) {
  std::vector<float> frames(kChunkFrames * static_cast<std::size_t>(format_.channels));
  while (count > 0) {
    const auto step = static_cast<std::size_t>(std::min<std::uint64_t>(count, kChunkFrames));
    if (read(frames.data(), step) != step) return false;
    count -= step;
  }
  return true;
}

AudioInput::AudioInput(const std::string& path, std::uint64_t most, const Segment& segment)
    : name_(path == kStream ? "standard input" : path) {
  try {
    Descriptor file = path == kStream ? Descriptor(dup(STDIN_FILENO)) : open_to_read(path);
    const std::string readable_path = make_seekable(path, file, most);
    if (segment.offset_s == 0) source_ = open_wav(readable_path);  // which cannot seek
    if (!source_) source_ = open_sndfile(readable_path);
    original_ = source_->format();
    missing_bytes_ = count_missing_bytes(file);
    if (original_.length == 0) throw Error(ExitCode::kInput, "holds no samples");
    source_ = cut(std::move(source_), segment);
    original_ = source_->format();
    if (original_.rate != SE_SAMPLE_RATE) {
      source_ = std::make_unique<ResampledSource>(std::move(source_), SE_SAMPLE_RATE);
    }
  } catch (const Error& error) {
    throw Error(error.code(), name_ + ": " + error.what());
  }
}

std::string AudioInput::make_seekable(const std::string& path, Descriptor& file,
                                      std::uint64_t most) {
  const mode_t type = type_of(file);
  if (path != kStream && type == S_IFDIR) {
    throw Error(ExitCode::kInput, "is a folder, not a recording");
  }
  if (path != kStream && type == S_IFREG) return path;
  copy_.emplace();
  copy_->fill_from(file.get(), most);
  file = open_to_read(copy_->path());
  return copy_->path();
}

void AudioInput::read(float* frames, std::size_t count) {
  const std::size_t read = source_->read(frames, count);
  const std::size_t channels = static_cast<std::size_t>(original_.channels);
  for (std::size_t i = 0; i < read * channels; ++i) {
    if (!std::isfinite(frames[i]))
      fail_at(position_ + i / channels, "holds NaN or infinite samples");
    if (std::fabs(frames[i]) > SE_MAX_SAMPLE) ++excessive_samples_;
  }
  position_ += read;
  if (read < count) fail_at(position_, "is damaged: it ends before its stated length,");
}

void AudioInput::fail_at(std::uint64_t frame, const char* what) const {
  throw Error(
      ExitCode::kInput,
      name_ + ": " + what + formatted(" at %.3f s", static_cast<double>(frame) / SE_SAMPLE_RATE));
}

}  // namespace se_tool
