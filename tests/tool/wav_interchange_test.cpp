// The library's WAV files against libsndfile's, in both directions.
#include <gtest/gtest.h>

#include <cstring>

#include "speechenhance/wav_io.h"
#include "test_files.h"

namespace se_tool {
namespace {

struct Pair {
  WavFormat wav;
  int sndfile;
};

const Pair kPairs[] = {
    {{0, 16000, 1, 16, 16}, SF_FORMAT_WAV | SF_FORMAT_PCM_16},
    {{0, 44100, 2, 32, 32}, SF_FORMAT_WAV | SF_FORMAT_PCM_32},
    {{1, 48000, 3, 32, 32}, SF_FORMAT_WAV | SF_FORMAT_FLOAT},
    {{0, 8000, 16, 16, 16}, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16},
    {{0, 192000, 1, 32, 32}, SF_FORMAT_WAVEX | SF_FORMAT_PCM_32},
    {{1, 16000, 1, 32, 32}, SF_FORMAT_WAVEX | SF_FORMAT_FLOAT},
};

// Samples as the bytes of the data chunk.
std::string bytes_of(const std::vector<float>& samples, const WavFormat& wav) {
  std::string bytes;
  const auto append = [&bytes](auto value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
  };
  for (const float sample : samples) {
    if (wav.is_float != 0) {
      append(sample);
    } else if (wav.bits_per_sample == 16) {
      append(static_cast<std::int16_t>(sample * 32768));
    } else {
      append(static_cast<std::int32_t>(static_cast<double>(sample) * 2147483648.0));
    }
  }
  return bytes;
}

// Multiples of 2^-15, which every one of the formats holds exactly.
std::vector<float> exact_samples(const WavFormat& wav) {
  std::vector<float> samples = noise(static_cast<std::size_t>(wav.channels) * 500, 1.0f, 3);
  for (float& sample : samples) {
    sample = static_cast<float>(static_cast<int>(sample * 32768)) / 32768;
  }
  return samples;
}

TEST(WavInterchange, ReadsWhatLibsndfileWrites) {
  const TestFolder folder;
  for (const auto& [wav, sndfile] : kPairs) {
    const std::string path = folder / "written.wav";
    const std::vector<float> samples = exact_samples(wav);
    write_sound(path, sndfile, wav.sample_rate, wav.channels, samples);

    WavFormat found = {};
    WavFile* file = wav_io_open(path.c_str(), 0, &found);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::memcmp(&found, &wav, sizeof wav), 0);
    std::string bytes(wav_io_get_data_size(file), '\0');
    EXPECT_EQ(wav_io_read(file, static_cast<std::uint32_t>(bytes.size()), bytes.data()),
              static_cast<std::int64_t>(bytes.size()));
    wav_io_close(file);
    EXPECT_TRUE(bytes == bytes_of(samples, wav));
  }
}

TEST(WavInterchange, WritesWhatLibsndfileReads) {
  const TestFolder folder;
  std::vector<WavFormat> formats = {{0, 48000, 2, 32, 24}};
  for (const Pair& pair : kPairs) formats.push_back(pair.wav);
  for (WavFormat wav : formats) {
    const std::string path = folder / "written.wav";
    const std::vector<float> samples = exact_samples(wav);
    const std::string bytes = bytes_of(samples, wav);
    WavFile* file = wav_io_open(path.c_str(), 1, &wav);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(wav_io_write(file, static_cast<std::uint32_t>(bytes.size()), bytes.data()),
              static_cast<std::int64_t>(bytes.size()));
    wav_io_close(file);

    const Sound sound = read_sound(path);
    EXPECT_EQ(sound.rate, wav.sample_rate);
    EXPECT_EQ(sound.channels, wav.channels);
    EXPECT_TRUE(sound.samples == samples);
  }
}

}  // namespace
}  // namespace se_tool
