// Decodes, enhances and encodes recordings one after another in one process, and does nothing else
// with them: what any tool for folders of recordings has to spend. Output is that of the tool, byte
// for byte, which tool_overhead.py checks.
//
//   files_alone OUTPUT_FOLDER wav|flac FILES...
#include <samplerate.h>
#include <sndfile.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "files.h"
#include "nn/quiet_history.h"
#include "settings.h"
#include "speechenhance/speechenhance.h"
#include "speechenhance/wav_io.h"

namespace {

constexpr std::size_t kBlock = SE_BLOCK_LEN;
constexpr std::size_t kChunkFrames = 4096;

template <auto Function>
struct Call {
  template <class T>
  void operator()(T* object) const {
    Function(object);
  }
};
using Wav = std::unique_ptr<WavFile, Call<wav_io_close>>;
using Sndfile = std::unique_ptr<SNDFILE, Call<sf_close>>;
using Resampler = std::unique_ptr<SRC_STATE, Call<src_delete>>;
using Engine = std::unique_ptr<SEInstance, Call<se_destroy>>;

void require(bool condition, const std::string& file) {
  if (condition) return;
  std::fprintf(stderr, "files_alone: %s: not a recording that this can clean\n", file.c_str());
  std::exit(1);
}

// 16-bit WAV files of 16 kHz by the library's own reader, all others by libsndfile and
// libsamplerate.
class Decoder {
 public:
  explicit Decoder(const std::string& path) : chunk_(kChunkFrames * 2) {
    WavFormat format = {};
    wav_.reset(wav_io_open(path.c_str(), 0, &format));
    if (wav_ && format.sample_rate == SE_SAMPLE_RATE && !format.is_float &&
        format.bits_per_sample == 16) {
      channels_ = static_cast<std::size_t>(format.channels);
      integers_.resize(kChunkFrames * channels_);
      length_ = wav_io_get_data_size(wav_.get()) / (sizeof(std::int16_t) * channels_);
      return;
    }
    wav_.reset();
    SF_INFO info = {};
    file_.reset(sf_open(path.c_str(), SFM_READ, &info));
    require(file_ && info.channels <= 2, path);
    channels_ = static_cast<std::size_t>(info.channels);
    ratio_ = double{SE_SAMPLE_RATE} / info.samplerate;
    length_ = static_cast<std::uint64_t>(static_cast<double>(info.frames) * ratio_ + 0.5);
    if (info.samplerate == SE_SAMPLE_RATE) return;
    int error = 0;
    resampler_.reset(
        src_callback_new(read_chunk, SRC_SINC_BEST_QUALITY, info.channels, &error, this));
    require(resampler_ != nullptr, path);
  }

  std::uint64_t length() const { return length_; }
  std::size_t channels() const { return channels_; }

  // Up to kChunkFrames frames, interleaved.
  std::size_t read(float* frames) {
    if (resampler_) {
      return static_cast<std::size_t>(
          src_callback_read(resampler_.get(), ratio_, long{kChunkFrames}, frames));
    }
    if (file_) return static_cast<std::size_t>(sf_readf_float(file_.get(), frames, kChunkFrames));
    const auto bytes =
        wav_io_read(wav_.get(), static_cast<std::uint32_t>(integers_.size() * sizeof(std::int16_t)),
                    integers_.data());
    const std::size_t samples = static_cast<std::size_t>(bytes) / sizeof(std::int16_t);
    for (std::size_t i = 0; i < samples; ++i) {
      frames[i] = static_cast<float>(integers_[i]) * (1.0f / 32768);
    }
    return samples / channels_;
  }

 private:
  static long read_chunk(void* self, float** data) {
    auto& decoder = *static_cast<Decoder*>(self);
    *data = decoder.chunk_.data();
    return static_cast<long>(
        sf_readf_float(decoder.file_.get(), decoder.chunk_.data(), kChunkFrames));
  }

  Wav wav_;
  Sndfile file_;
  Resampler resampler_;
  double ratio_ = 1;
  std::size_t channels_ = 0;
  std::uint64_t length_ = 0;  // frames at 16 kHz
  std::vector<std::int16_t> integers_;
  std::vector<float> chunk_;
};

class Encoder {
 public:
  Encoder(const std::string& path, bool flac) {
    if (flac) {
      SF_INFO info = {};
      info.samplerate = SE_SAMPLE_RATE;
      info.channels = 1;
      info.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
      file_.reset(sf_open(path.c_str(), SFM_WRITE, &info));
    } else {
      WavFormat format = {0, SE_SAMPLE_RATE, 1, 16, 16};
      wav_.reset(wav_io_open(path.c_str(), 1, &format));
    }
    require(file_ || wav_, path);
    samples_.reserve(kChunkFrames);
  }
  ~Encoder() { flush(); }

  void write(const float* samples, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      samples_.push_back(static_cast<std::int16_t>(
          std::min(std::max(samples[i] * 32768.0f, -32768.0f), 32767.0f)));
    }
    if (samples_.size() + kBlock > kChunkFrames) flush();
  }

 private:
  void flush() {
    if (file_)
      sf_writef_short(file_.get(), samples_.data(), static_cast<sf_count_t>(samples_.size()));
    if (wav_) {
      wav_io_write(wav_.get(), static_cast<std::uint32_t>(samples_.size() * sizeof(std::int16_t)),
                   samples_.data());
    }
    samples_.clear();
  }

  Sndfile file_;
  Wav wav_;
  std::vector<std::int16_t> samples_;
};

void clean(const std::string& path, const std::string& target, bool flac) {
  const se_tool::Settings settings;
  Decoder decoder(path);
  Encoder encoder(target, flac);
  Engine engine(se_create());
  require(engine != nullptr, path);
  se::nn::forget_quiet_frames();
  set_nn_process_config(engine.get(), se_tool::engine_config(settings));

  std::vector<float> frames(kChunkFrames * 2);
  std::size_t position = 0, available = 0;
  std::uint64_t left = decoder.length();
  auto to_drop = static_cast<std::size_t>(se_tool::engine_delay(settings));
  while (left > 0) {
    float mics[2 * kBlock] = {};
    const float ref[kBlock] = {};
    for (std::size_t i = 0; i < kBlock; ++i) {
      if (position == available) {
        position = 0;
        available = decoder.read(frames.data());
        if (available == 0) break;
      }
      const float* const frame = frames.data() + decoder.channels() * position++;
      mics[i] = frame[0];
      mics[kBlock + i] = frame[decoder.channels() - 1];
    }
    float out[kBlock];
    se_process(engine.get(), mics, ref, out, true, false);
    const std::size_t dropped = std::min(to_drop, kBlock);
    to_drop -= dropped;
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(left, kBlock - dropped));
    encoder.write(out + dropped, count);
    left -= count;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s OUTPUT_FOLDER wav|flac FILES...\n", argv[0]);
    return 2;
  }
  se_tool::claim_standard_output();  // where the library prints
  const bool flac = argv[2] == std::string("flac");
  for (int i = 3; i < argc; ++i) {
    const std::string name = std::filesystem::path(argv[i]).stem().string();
    clean(argv[i], std::string(argv[1]) + "/" + name + (flac ? ".flac" : ".wav"), flac);
  }
  return 0;
}
