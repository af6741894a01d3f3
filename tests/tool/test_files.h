// Sounds and folders that the tool's tests make for themselves.
#pragma once

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "random_signal.h"

namespace se_tool {

// A folder that vanishes with the object.
class TestFolder {
 public:
  TestFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "se_tool_XXXXXX").string();
    path_ = mkdtemp(name.data());
  }
  ~TestFolder() { std::filesystem::remove_all(path_); }

  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::vector<float> noise(std::size_t samples, float amplitude, unsigned seed) {
  return RandomSignal(seed).reals(samples, amplitude);
}

// Multiples of 2^-15, which every format holds exactly.
inline std::vector<float> exact_noise(std::size_t samples, unsigned seed) {
  std::vector<float> result = noise(samples, 1.0f, seed);
  for (float& sample : result) {
    sample = static_cast<float>(static_cast<int>(sample * 32768)) / 32768;
  }
  return result;
}

// Written by libsndfile: interleaved samples within -1 to just below 1.
inline void write_sound(const std::string& path, int format, int rate, int channels,
                        const std::vector<float>& samples) {
  SF_INFO info = {};
  info.samplerate = rate;
  info.channels = channels;
  info.format = format;
  SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
  ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
  const auto count = static_cast<sf_count_t>(samples.size());
  const int subtype = format & SF_FORMAT_SUBMASK;
  if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE) {
    ASSERT_EQ(sf_write_float(file, samples.data(), count), count);
  } else {
    // As integers, since libsndfile scales floats by one less than a power of two.
    std::vector<int> integers;
    for (const float sample : samples) {
      integers.push_back(static_cast<int>(static_cast<double>(sample) * 2147483648.0));
    }
    ASSERT_EQ(sf_write_int(file, integers.data(), count), count);
  }
  sf_close(file);
}

struct Sound {
  int rate = 0;
  int channels = 0;
  int format = 0;
  std::vector<float> samples;
};

// Read by libsndfile.
inline Sound read_sound(const std::string& path) {
  SF_INFO info = {};
  SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
  EXPECT_NE(file, nullptr) << path << ": " << sf_strerror(nullptr);
  if (file == nullptr) return {};
  Sound sound = {info.samplerate, info.channels, info.format, {}};
  sound.samples.resize(static_cast<std::size_t>(info.frames * info.channels));
  sf_read_float(file, sound.samples.data(), static_cast<sf_count_t>(sound.samples.size()));
  sf_close(file);
  return sound;
}

constexpr int kWav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
constexpr int kWavFloat = SF_FORMAT_WAV | SF_FORMAT_FLOAT;

}  // namespace se_tool
