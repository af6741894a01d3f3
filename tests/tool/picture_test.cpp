// Statistics, spectrogram and plot.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "plot.h"
#include "progress.h"
#include "spectrogram.h"
#include "statistics.h"
#include "test_files.h"

namespace se_tool {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr std::size_t kBlock = 160;

template <class Target>
void add(Target& target, const std::vector<float>& samples) {
  for (std::size_t at = 0; at < samples.size(); at += kBlock) {
    target.add_block(samples.data() + at, std::min(kBlock, samples.size() - at));
  }
}

std::vector<float> sine(std::size_t length, double hz, double amplitude) {
  std::vector<float> samples(length);
  for (std::size_t i = 0; i < length; ++i) {
    samples[i] =
        static_cast<float>(amplitude * std::sin(2 * kPi * hz * static_cast<double>(i) / 16000));
  }
  return samples;
}

TEST(LevelMeter, MeasuresPeakLevelAndBackground) {
  LevelMeter meter;
  std::vector<float> samples(16000, 0.001f);  // -60 dBFS
  std::fill_n(samples.begin(), 12000, 0.1f);  // -20 dBFS, three quarters of the time
  samples[500] = -0.5f;                       // -6.02 dBFS
  add(meter, samples);
  EXPECT_NEAR(meter.peak_db(), -6.02, 0.01);
  EXPECT_NEAR(meter.level_db(), 10 * std::log10(0.01 * 0.75 + 0.24 / 16000), 0.01);
  EXPECT_NEAR(meter.background_db(), -60, 0.1);

  LevelMeter silent;
  add(silent, std::vector<float>(1600));
  EXPECT_EQ(silent.peak_db(), -std::numeric_limits<double>::infinity());
  EXPECT_EQ(silent.background_db(), -std::numeric_limits<double>::infinity());
}

TEST(EchoMeter, ComparesOnlyWhileTheLoudspeakerPlays) {
  const std::vector<float> loud(kBlock, 0.1f);
  const std::vector<float> quiet(kBlock, 0.01f);
  const std::vector<float> silence(kBlock);
  EchoMeter meter;
  const auto play = [&](const std::vector<float>& ref, const std::vector<float>& out, int blocks) {
    for (int i = 0; i < blocks; ++i) meter.add_block(loud.data(), ref.data(), out.data(), kBlock);
  };
  play(silence, loud, 100);
  EXPECT_TRUE(std::isnan(meter.reduction_db()));
  play(loud, quiet, 100);
  play(silence, quiet, 24);  // the echo dies away
  play(silence, loud, 1000);
  EXPECT_NEAR(meter.reduction_db(), 20, 0.1);
}

TEST(Statistics, AreValidJsonAlsoForSilence) {
  Statistics statistics;
  statistics.duration_s = 2;
  statistics.engine_s = 0.5;
  statistics.real_time_factor = 0.25;
  statistics.peak_in_db = -std::numeric_limits<double>::infinity();
  statistics.echo_reduction_db = std::numeric_limits<double>::quiet_NaN();
  const std::string line = format_json("a \"b\".wav", statistics);
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1);
  const auto object = nlohmann::json::parse(line);
  EXPECT_EQ(object["file"], "a \"b\".wav");
  EXPECT_EQ(object["real_time_factor"], 0.25);
  EXPECT_TRUE(object["peak_in_dbfs"].is_null());
  EXPECT_TRUE(object["echo_reduction_db"].is_null());
  EXPECT_NE(format_text("a.wav", statistics).find("4.0 times real time"), std::string::npos);
}

TEST(Spectrogram, PlacesTimeFrequencyAndLevel) {
  // Silence with half a second of a sine of full scale in its middle: more blocks than columns.
  std::vector<float> samples(16000 * 20 + 77);
  const std::vector<float> tone = sine(8000, 1000, 1);
  std::copy(tone.begin(), tone.end(), samples.begin() + 16000 * 10);
  Spectrogram spectrogram(samples.size());
  add(spectrogram, samples);
  const SpectrumPicture picture = spectrogram.finish();
  ASSERT_EQ(picture.columns, Spectrogram::kMostColumns);
  ASSERT_EQ(picture.level_db.size(), picture.columns);

  const auto column_at = [&](double second) {
    return static_cast<std::size_t>(second * 16000 / static_cast<double>(samples.size()) *
                                    static_cast<double>(picture.columns));
  };
  const std::size_t inside = column_at(10.25);
  EXPECT_NEAR(picture.at(inside, 32), 0, 0.1) << "1000 Hz";
  EXPECT_LT(picture.at(inside, 40), -60);
  EXPECT_NEAR(picture.level_db[inside], -3.01, 0.1);
  for (const double second : {0.0, 9.9, 10.6, 19.99}) {
    EXPECT_LT(picture.at(column_at(second), 32), -100) << second;
    EXPECT_LT(picture.level_db[column_at(second)], -100) << second;
  }
}

TEST(Plot, DrawsSoundsOfAnyLengthAndSilence) {
  for (const std::size_t length : {1u, 160u, 161u, 16000u, 16000u * 30}) {
    for (const double amplitude : {0.0, 0.5, 30.0}) {
      Spectrogram spectrogram(length);
      add(spectrogram, sine(length, 440, amplitude));
      const SpectrumPicture picture = spectrogram.finish();
      EXPECT_EQ(picture.columns, std::min((length + 159) / 160, Spectrogram::kMostColumns));
      const double seconds = static_cast<double>(length) / 16000;
      EXPECT_EQ(draw_plot("a.wav", seconds, picture, picture).substr(1, 3), "PNG");
    }
  }
}

TEST(Progress, ShowsTheTimeLeftOnceItCanBeTold) {
  EXPECT_EQ(format_progress("a.wav", 0, 0), "a.wav  [........................]   0 %");
  EXPECT_EQ(format_progress("a.wav", 0.5, 10),
            "a.wav  [############............]  50 %  0:10 left");
  EXPECT_EQ(format_progress("a.wav", 0.25, 50),
            "a.wav  [######..................]  25 %  2:30 left");
  EXPECT_EQ(format_progress("a.wav", 1, 10), "a.wav  [########################] 100 %  0:00 left");
}

}  // namespace
}  // namespace se_tool
