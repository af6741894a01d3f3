#include "audio_output.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "errors.h"
#include "speechenhance/speechenhance.h"

namespace se_tool {
namespace {

constexpr std::uint32_t kHeaderBytes = 44;

}  // namespace

AudioOutput::AudioOutput(const std::string& target, bool as_float, std::uint64_t length)
    : file_(target), as_float_(as_float) {
  const std::uint64_t bytes = length * (as_float ? sizeof(float) : sizeof(std::int16_t));
  if (bytes > UINT32_MAX - kHeaderBytes) {
    throw Error(ExitCode::kOutput, target + ": a WAV file cannot hold a recording this long");
  }
  const int bits = as_float ? 32 : 16;
  WavFormat format = {as_float ? 1 : 0, SE_SAMPLE_RATE, 1, bits, bits};
  errno = 0;
  wav_.reset(wav_io_open(file_.path().c_str(), 1, &format));
  if (!wav_) fail(errno);
}

void AudioOutput::write(const float* samples, std::size_t count) {
  constexpr float kScale = 32768.0f;
  constexpr float kLowest = -32768.0f;
  constexpr float kHighest = 32767.0f;
  if (as_float_) {
    append(samples, count * sizeof *samples);
    return;
  }
  integers_.resize(count);
  for (std::size_t i = 0; i < count; ++i) {
    const float value = samples[i] * kScale;
    clipped_ += value < kLowest || value >= kScale;
    integers_[i] = static_cast<std::int16_t>(std::min(std::max(value, kLowest), kHighest));
  }
  append(integers_.data(), count * sizeof integers_[0]);
}

void AudioOutput::finish() {
  const std::uint64_t expected = kHeaderBytes + std::uint64_t{wav_io_get_data_size(wav_.get())};
  errno = 0;
  wav_.reset();
  // Closing reports nothing: what did not fit the disk is missing from the file.
  const int error = errno;
  struct stat status = {};
  if (stat(file_.path().c_str(), &status) != 0) fail(errno);
  if (static_cast<std::uint64_t>(status.st_size) != expected) fail(error);
  WavFormat format = {};
  const std::unique_ptr<WavFile, CloseWav> closed(wav_io_open(file_.path().c_str(), 0, &format));
  if (!closed || wav_io_get_data_size(closed.get()) != expected - kHeaderBytes) fail(error);
  file_.sync();
}

void AudioOutput::append(const void* bytes, std::size_t count) {
  errno = 0;
  const std::int64_t written = wav_io_write(wav_.get(), static_cast<std::uint32_t>(count), bytes);
  if (written != static_cast<std::int64_t>(count)) fail(errno);
}

void AudioOutput::fail(int error_number) const {
  throw Error(ExitCode::kOutput,
              file_.target() + ": cannot be written: " +
                  (error_number != 0 ? system_message(error_number) : "incomplete on the disk"));
}

}  // namespace se_tool
