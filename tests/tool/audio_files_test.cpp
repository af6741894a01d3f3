// Audio files: what the tool reads and writes.
#include <gtest/gtest.h>

#include <cmath>

#include "audio_input.h"
#include "audio_output.h"
#include "errors.h"
#include "test_files.h"

namespace se_tool {
namespace {

constexpr double kPi = 3.14159265358979323846;

std::vector<float> read_all(const std::string& path) {
  AudioInput input(path);
  std::vector<float> samples(input.length() * static_cast<std::size_t>(input.channels()));
  input.read(samples.data(), input.length());
  return samples;
}

std::string error_of(const std::string& path) {
  try {
    read_all(path);
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), 3);
    return error.what();
  }
  return "";
}

TEST(AudioInput, GivesTheSamplesOfEveryFormatThatHoldsThem) {
  const TestFolder folder;
  const std::vector<float> samples = exact_noise(3000, 1);
  for (const int format :
       {kWav16, kWavFloat, SF_FORMAT_WAV | SF_FORMAT_PCM_24, SF_FORMAT_WAV | SF_FORMAT_PCM_32,
        SF_FORMAT_WAVEX | SF_FORMAT_PCM_32, SF_FORMAT_FLAC | SF_FORMAT_PCM_16,
        SF_FORMAT_AIFF | SF_FORMAT_PCM_16, SF_FORMAT_CAF | SF_FORMAT_DOUBLE}) {
    for (const int channels : {1, 2}) {
      write_sound(folder / "sound", format, 16000, channels, samples);
      EXPECT_TRUE(read_all(folder / "sound") == samples) << std::hex << format;
    }
  }
}

TEST(AudioInput, ResamplesWithoutMovingAnything) {
  const TestFolder folder;
  for (const int rate : {8000, 11025, 44100, 48000, 96000}) {
    // A burst of 1 kHz, half a second long with soft ends, that begins at 0.25 s.
    const auto sound_at = [](double t) {
      if (t < 0.25 || t > 0.75) return 0.0;
      return 0.5 * std::pow(std::sin(kPi * (t - 0.25) / 0.5), 2) * std::sin(2 * kPi * 1000 * t);
    };
    std::vector<float> samples(static_cast<std::size_t>(rate) + 7);
    for (std::size_t i = 0; i < samples.size(); ++i) {
      samples[i] = static_cast<float>(sound_at(static_cast<double>(i) / rate));
    }
    write_sound(folder / "sound.wav", kWavFloat, rate, 1, samples);
    const std::vector<float> resampled = read_all(folder / "sound.wav");
    EXPECT_EQ(static_cast<long>(resampled.size()),
              std::lround(static_cast<double>(samples.size()) * 16000 / rate));
    for (std::size_t i = 0; i < resampled.size(); ++i) {
      ASSERT_NEAR(resampled[i], sound_at(static_cast<double>(i) / 16000), 2e-4)
          << rate << " Hz, sample " << i;
    }
  }
}

// More in the tests of the program.
TEST(AudioInput, ExplainsWhatItCannotUse) {
  const TestFolder folder;
  EXPECT_NE(error_of(folder / "").find("is a folder"), std::string::npos);
  std::vector<float> samples(48000);
  samples[24000] = NAN;
  write_sound(folder / "bad.wav", kWavFloat, 48000, 1, samples);
  EXPECT_NE(error_of(folder / "bad.wav").find("NaN or infinite"), std::string::npos);
  write_sound(folder / "cut.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16000, 1,
              noise(100000, 0.5f, 2));
  std::filesystem::resize_file(folder / "cut.flac", 100000);
  EXPECT_NE(error_of(folder / "cut.flac").find("damaged"), std::string::npos);
}

TEST(AudioOutput, TruncatesClipsAndCounts) {
  const TestFolder folder;
  const std::vector<float> samples = {0.0f, 0.99999f, -0.00001f, -1.0f, 1.0f, 1.5f, -1.5f};
  for (const bool as_float : {true, false}) {
    AudioOutput output(folder / "out.wav", as_float ? SoundFormat::kWavFloat : SoundFormat::kWav16,
                       samples.size());
    output.write(samples.data(), samples.size());
    output.finish();
    output.commit();
    const Sound sound = read_sound(folder / "out.wav");
    EXPECT_EQ(sound.rate, 16000);
    EXPECT_EQ(sound.format & SF_FORMAT_SUBMASK, as_float ? SF_FORMAT_FLOAT : SF_FORMAT_PCM_16);
    if (as_float) {
      EXPECT_EQ(sound.samples, samples);
      continue;
    }
    EXPECT_EQ(output.clipped(), 3u);
    std::vector<int> integers;
    for (const float sample : sound.samples) integers.push_back(static_cast<int>(sample * 32768));
    EXPECT_EQ(integers, (std::vector<int>{0, 32767, 0, -32768, 32767, 32767, -32768}));
  }
  EXPECT_THROW(AudioOutput(folder / "long.wav", SoundFormat::kWavFloat, std::uint64_t{1} << 31),
               Error);
}

}  // namespace
}  // namespace se_tool
