#include "audio_output.h"

#include <sndfile.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "errors.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/wav_io.h"

namespace se_tool {
namespace {

constexpr std::uint32_t kHeaderBytes = 44;
constexpr std::size_t kGatheredSamples = 4096;  // writers look for the end of the file every time

// By the library's own writer.
class WavWriter : public SampleWriter {
 public:
  WavWriter(const std::string& path, bool as_float)
      : path_(path), sample_bytes_(as_float ? sizeof(float) : sizeof(std::int16_t)) {
    const int bits = static_cast<int>(8 * sample_bytes_);
    WavFormat format = {as_float ? 1 : 0, SE_SAMPLE_RATE, 1, bits, bits};
    wav_.reset(wav_io_open(path.c_str(), 1, &format));
  }

  bool is_open() const { return wav_ != nullptr; }

  int write(const void* samples, std::size_t count) override {
    const auto bytes = static_cast<std::uint32_t>(count * sample_bytes_);
    errno = 0;
    return wav_io_write(wav_.get(), bytes, samples) == bytes ? 0 : reason();
  }

  int close() override {
    const std::uint32_t data_bytes = wav_io_get_data_size(wav_.get());
    errno = 0;
    wav_.reset();
    // Closing reports nothing: what did not fit the disk is missing from the file.
    const int failure = reason();
    struct stat status = {};
    if (stat(path_.c_str(), &status) != 0) return errno;
    if (status.st_size != off_t{kHeaderBytes} + off_t{data_bytes}) return failure;
    WavFormat format = {};
    const Handle closed(wav_io_open(path_.c_str(), 0, &format));
    return closed && wav_io_get_data_size(closed.get()) == data_bytes ? 0 : failure;
  }

 private:
  struct CloseWav {
    void operator()(WavFile* wav) const { wav_io_close(wav); }
  };
  using Handle = std::unique_ptr<WavFile, CloseWav>;

  static int reason() { return errno != 0 ? errno : -1; }

  std::string path_;
  std::size_t sample_bytes_;
  Handle wav_;
};

class FlacWriter : public SampleWriter {
 public:
  explicit FlacWriter(const std::string& path) : path_(path) {
    SF_INFO info = {};
    info.samplerate = SE_SAMPLE_RATE;
    info.channels = 1;
    info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    file_.reset(sf_open(path.c_str(), SFM_WRITE, &info));
  }

  bool is_open() const { return file_ != nullptr; }

  int write(const void* samples, std::size_t count) override {
    const auto frames = static_cast<sf_count_t>(count);
    errno = 0;
    const sf_count_t written =
        sf_writef_short(file_.get(), static_cast<const short*>(samples), frames);
    written_ += written;
    return written == frames && sf_error(file_.get()) == SF_ERR_NO_ERROR ? 0 : reason();
  }

  int close() override {
    errno = 0;
    SNDFILE* file = file_.release();
    // Closing does not report what the encoder could not write: the file must hold all samples.
    const bool closed = sf_close(file) == 0;
    const int failure = reason();
    SF_INFO info = {};
    const Handle whole(sf_open(path_.c_str(), SFM_READ, &info));
    const bool ends_well = whole && info.frames == written_ && reads_end(whole.get());
    return closed && ends_well ? 0 : failure;
  }

 private:
  struct CloseSndfile {
    void operator()(SNDFILE* file) const { sf_close(file); }
  };
  using Handle = std::unique_ptr<SNDFILE, CloseSndfile>;

  static int reason() { return errno != 0 ? errno : -1; }

  static bool reads_end(SNDFILE* file) {
    short last;
    return sf_seek(file, -1, SEEK_END) >= 0 && sf_readf_short(file, &last, 1) == 1;
  }

  std::string path_;
  Handle file_;
  sf_count_t written_ = 0;
};

template <class Writer>
std::unique_ptr<SampleWriter> if_open(std::unique_ptr<Writer> writer) {
  if (!writer->is_open()) return nullptr;
  return writer;
}

}  // namespace

const char* suffix_of(SoundFormat format) {
  return format == SoundFormat::kFlac ? ".flac" : ".wav";
}

AudioOutput::AudioOutput(const std::string& target, SoundFormat format, std::uint64_t length)
    : file_(target), as_float_(format == SoundFormat::kWavFloat) {
  const std::uint64_t bytes = length * (as_float_ ? sizeof(float) : sizeof(std::int16_t));
  if (format != SoundFormat::kFlac && bytes > UINT32_MAX - kHeaderBytes) {
    throw Error(ExitCode::kOutput, target + ": a WAV file cannot hold a recording this long");
  }
  errno = 0;
  writer_ = format == SoundFormat::kFlac
                ? if_open(std::make_unique<FlacWriter>(file_.path()))
                : if_open(std::make_unique<WavWriter>(file_.path(), as_float_));
  if (!writer_) fail(errno);
}

void AudioOutput::write(const float* samples, std::size_t count) {
  constexpr float kScale = 32768.0f;
  constexpr float kLowest = -32768.0f;
  constexpr float kHighest = 32767.0f;
  if (as_float_) {
    floats_.insert(floats_.end(), samples, samples + count);
  } else {
    const std::size_t start = integers_.size();
    integers_.resize(start + count);
    for (std::size_t i = 0; i < count; ++i) {
      const float value = samples[i] * kScale;
      clipped_ += value < kLowest || value >= kScale;
      integers_[start + i] =
          static_cast<std::int16_t>(std::min(std::max(value, kLowest), kHighest));
    }
  }
  if (floats_.size() + integers_.size() >= kGatheredSamples) flush();
}

void AudioOutput::finish() {
  flush();
  if (const int failure = writer_->close(); failure != 0) fail(failure);
}

void AudioOutput::flush() {
  const int failure = as_float_ ? writer_->write(floats_.data(), floats_.size())
                                : writer_->write(integers_.data(), integers_.size());
  if (failure != 0) fail(failure);
  floats_.clear();
  integers_.clear();
}

void AudioOutput::fail(int error_number) const {
  throw Error(ExitCode::kOutput,
              file_.target() + ": cannot be written: " +
                  (error_number > 0 ? system_message(error_number) : "incomplete on the disk"));
}

}  // namespace se_tool
