#include "preset.h"

#include <gtest/gtest.h>

#include <cmath>
#include <iterator>
#include <limits>

#include "errors.h"
#include "test_files.h"

namespace se_tool {
namespace {

std::string error_of(const std::string& json) {
  try {
    parse_preset(json, "p");
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), 2);
    EXPECT_EQ(std::string(error.what()).find('\n'), std::string::npos);
    return error.what();
  }
  return "";
}

TEST(Preset, CarriesEverySettingToTheEngine) {
  const NnProcessConfig config = engine_config(parse_preset(R"({
    "description": "all of it", "mode": "suppress", "residual_db": 21, "ns_residual_db": 33,
    "limiter": {"ceiling": 0.5, "gain_db": 6.5},
    "low_shelf": {"freq_hz": 300.5, "atten_db": 12}, "high_shelf": {"freq_hz": 6000, "atten_db": 3},
    "peaks": [{"center_hz": 1000, "gain_db": -4.5, "q": 2}, {"center_hz": 2000, "gain_db": 1, "q": 3}]
  })",
                                                            "p"));
  EXPECT_EQ(config.residual_db, 21);
  EXPECT_EQ(config.ns_residual_db, 33);
  EXPECT_NE(config.limiter_enable, 0);
  EXPECT_EQ(config.limiter_max_gain, 0.5f);
  EXPECT_EQ(config.limiter_level_db, 6.5f);
  EXPECT_NE(config.low_shelf.enable, 0);
  EXPECT_EQ(config.low_shelf.freq_hz, 300.5f);
  EXPECT_EQ(config.low_shelf.atten_db, 12.0f);
  EXPECT_NE(config.high_shelf.enable, 0);
  EXPECT_EQ(config.high_shelf.freq_hz, 6000.0f);
  EXPECT_EQ(config.peak[1].center_hz, 2000);
  EXPECT_EQ(config.peak[0].gain_db, -4.5f);
  EXPECT_EQ(config.peak[0].q, 2);
  EXPECT_EQ(config.peak[2].q, 0) << "bands not given are off";

  const NnProcessConfig none = engine_config(parse_preset("{}", "p"));
  EXPECT_EQ(none.limiter_enable, 0);
  EXPECT_EQ(none.low_shelf.enable, 0);
  EXPECT_EQ(none.high_shelf.enable, 0);
  EXPECT_EQ(none.peak[0].q, 0);
}

TEST(Preset, RefusesWhatItDoesNotUnderstandInOneLine) {
  const auto peak = [](const std::string& content) { return R"({"peaks": [{)" + content + "}]}"; };
  const std::pair<std::string, std::string> cases[] = {
      {"", "not valid JSON"},
      {"{\"mode\": ", "not valid JSON"},
      {"[]", "must be an object"},
      {R"({"residual": 20})", "unknown key \"residual\""},
      {R"({"limiter": {"ceiling": 0.9, "gain": 3}})", "unknown key \"gain\""},
      {R"({"limiter": {"ceiling": 0.9}})", "lacks \"gain_db\""},
      {R"({"limiter": true})", "must be an object"},
      {R"({"mode": "loud"})", "\"mode\" must be"},
      {R"({"mode": 1})", "\"mode\" must be"},
      {R"({"residual_db": "20"})", "must be a number"},
      {R"({"residual_db": 20.5})", "must be a whole number"},
      {R"({"residual_db": 1e300})", "must be a whole number"},
      {R"({"residual_db": -1})", "outside 0 to 120"},
      {R"({"ns_residual_db": 9})", "outside 10 to 130"},
      {R"({"limiter": {"ceiling": 1.01, "gain_db": 0}})", "outside 0.01 to 1"},
      {R"({"limiter": {"ceiling": 0.9, "gain_db": -1}})", "outside 0 to 60"},
      {R"({"low_shelf": {"freq_hz": 278, "atten_db": 6}})", "outside 279 to 8000"},
      {R"({"high_shelf": {"freq_hz": 7719, "atten_db": 6}})", "outside 0 to 7718"},
      {R"({"high_shelf": {"freq_hz": 5000, "atten_db": -6}})", "outside 0 to 120"},
      {R"({"peaks": {}})", "must be a list"},
      {peak(R"("center_hz": 1000, "gain_db": 3)"), "lacks \"q\""},
      {peak(R"("center_hz": 7967, "gain_db": 3, "q": 2)"), "outside 31 to 7966"},
      {peak(R"("center_hz": 1000, "gain_db": 3, "q": 0)"), "outside 1 to 32"},
      {peak(R"("center_hz": 1000, "gain_db": 3, "q": 33)"), "outside 1 to 32"},
      {peak(R"("center_hz": 1000, "gain_db": 41, "q": 3)"), "outside -60 to 40"},
  };
  for (const auto& [json, expected] : cases) {
    EXPECT_NE(error_of(json).find(expected), std::string::npos) << json << " -> " << error_of(json);
  }
  std::string eleven = R"({"center_hz": 1000, "gain_db": 3, "q": 3})";
  for (int i = 0; i < 10; ++i) eleven += R"(, {"center_hz": 1000, "gain_db": 3, "q": 3})";
  EXPECT_NE(error_of("{\"peaks\": [" + eleven + "]}").find("11 peak bands"), std::string::npos);
  EXPECT_EQ(error_of(peak(R"("center_hz": 1000, "gain_db": 3, "q": 32)")), "");

  Settings settings;
  settings.limiter = Limiter{std::numeric_limits<double>::quiet_NaN(), 0};
  EXPECT_THROW(check_settings(settings), Error);
}

TEST(Preset, BuiltInOnesLoadAndDescribeThemselves) {
  ASSERT_GE(built_in_presets().size(), 3u);
  for (const BuiltInPreset& preset : built_in_presets()) {
    EXPECT_NO_THROW(load_preset(preset.name)) << preset.name;
    EXPECT_GT(preset_description(preset).size(), 10u);
  }
}

TEST(Preset, WritesFilesThatReadBackAsTheSameSettings) {
  const TestFolder folder;
  for (const BuiltInPreset& preset : built_in_presets()) {
    const Settings settings = load_preset(preset.name);
    write_file(folder / "copy.json", format_preset(settings));
    EXPECT_EQ(format_preset(load_preset(folder / "copy.json")), format_preset(settings));
  }
  EXPECT_THROW(load_preset(folder / "missing.json"), Error);
  EXPECT_THROW(load_preset(folder / ""), Error) << "a folder";
  EXPECT_THROW(load_preset("no_such_preset"), Error);
}

// The highest gain that the denoiser can apply to a bin is 3 over the width of its band, at most 1.
TEST(Preset, FlatUndoesTheLossOfWideBands) {
  constexpr int kStarts[] = {
#include "nn/band_start.def"
  };
  const auto gain_of = [](const Peak& peak, int bin) {
    const int center = peak.center_hz / 31;
    const int width = peak.center_hz / (31 * peak.q);
    const int rise = width / 2;
    const int fall = width - rise;
    const int distance = bin < center ? center - bin : bin - center;
    const int reach = bin < center ? rise : fall;
    const double top = std::pow(10, peak.gain_db / 20);
    return distance < reach || distance == 0 ? top - distance * (top - 1) / std::max(reach, 1) : 1;
  };
  const Settings flat = load_preset("flat");
  double squares = 0;
  int bins = 0;
  for (std::size_t band = 0; band + 1 < std::size(kStarts); ++band) {
    const int width = kStarts[band + 1] - kStarts[band];
    for (int bin = std::max(8, kStarts[band]); bin < kStarts[band + 1]; ++bin) {
      double gain = std::min(1.0, 3.0 / width);
      for (const Peak& peak : flat.peaks) gain *= gain_of(peak, bin);
      const double error = 20 * std::log10(gain);
      EXPECT_LT(std::abs(error), 1.5) << "bin " << bin;
      squares += error * error;
      ++bins;
    }
  }
  EXPECT_LT(std::sqrt(squares / bins), 0.4);
}

}  // namespace
}  // namespace se_tool
