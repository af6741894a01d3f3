// Settings from presets and from the command line.
#include <gtest/gtest.h>

#include <cmath>

#include "errors.h"
#include "options.h"
#include "preset.h"
#include "test_files.h"

namespace se_tool {
namespace {

std::string preset_error(const std::string& json) {
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
  EXPECT_TRUE(config.residual_db == 21 && config.ns_residual_db == 33);
  EXPECT_NE(config.limiter_enable, 0);
  EXPECT_TRUE(config.limiter_max_gain == 0.5f && config.limiter_level_db == 6.5f);
  EXPECT_NE(config.low_shelf.enable, 0);
  EXPECT_TRUE(config.low_shelf.freq_hz == 300.5f && config.low_shelf.atten_db == 12.0f);
  EXPECT_NE(config.high_shelf.enable, 0);
  EXPECT_TRUE(config.high_shelf.freq_hz == 6000.0f && config.high_shelf.atten_db == 3.0f);
  EXPECT_TRUE(config.peak[1].center_hz == 2000 && config.peak[0].gain_db == -4.5f);
  EXPECT_TRUE(config.peak[0].q == 2 && config.peak[2].q == 0) << "bands not given are off";

  const NnProcessConfig none = engine_config(parse_preset("{}", "p"));
  EXPECT_TRUE(!none.limiter_enable && !none.low_shelf.enable && !none.high_shelf.enable);
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
      {R"({"residual_db": 1e999})", "1e999"},
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
      {peak(R"("center_hz": 3000, "gain_db": 3, "q": 138547333)"), "outside 1 to 96"},
      {peak(R"("center_hz": 1000, "gain_db": 41, "q": 3)"), "outside -60 to 40"},
      {R"({"mode": "mix", "mode": "denoise"})", "the key \"mode\" twice"},
      {peak(R"("q": 1, "q": 2)"), "the key \"q\" twice"},
      {std::string(17, '[') + std::string(17, ']'), "nested deeper than 16 levels"},
      {std::string(16, '[') + std::string(16, ']'), "must be an object"},
      {"{}" + std::string(1 << 20, ' '), "longer than 1 MB"},
  };
  for (const auto& [json, expected] : cases) {
    EXPECT_NE(preset_error(json).find(expected), std::string::npos)
        << json << " -> " << preset_error(json);
  }
  std::string eleven = R"({"center_hz": 1000, "gain_db": 3, "q": 3})";
  for (int i = 0; i < 10; ++i) eleven += R"(, {"center_hz": 1000, "gain_db": 3, "q": 3})";
  EXPECT_NE(preset_error("{\"peaks\": [" + eleven + "]}").find("11 peak bands"), std::string::npos);
  EXPECT_EQ(preset_error(peak(R"("center_hz": 1000, "gain_db": 3, "q": 32)")), "");

  Settings settings;
  settings.limiter = Limiter{NAN, 0};
  EXPECT_THROW(check_settings(settings), Error);
}

TEST(Preset, BuiltInOnesReadBackFromFilesAsTheSameSettings) {
  const TestFolder folder;
  ASSERT_GE(built_in_presets().size(), 3u);
  for (const BuiltInPreset& preset : built_in_presets()) {
    EXPECT_GT(preset_description(preset).size(), 10u);
    const Settings settings = load_preset(preset.name);
    write_file(folder / "copy.json", format_preset(settings));
    EXPECT_EQ(format_preset(load_preset(folder / "copy.json")), format_preset(settings));
  }
  write_file(folder / "longest.json", "{}" + std::string((1 << 20) - 2, ' '));
  EXPECT_EQ(format_preset(load_preset(folder / "longest.json")), format_preset({}));
  EXPECT_THROW(load_preset("/dev/zero"), Error) << "without an end";
  EXPECT_THROW(load_preset(folder / "missing.json"), Error);
  EXPECT_THROW(load_preset(folder / ""), Error) << "a folder";
  EXPECT_THROW(load_preset("no_such_preset"), Error);
}

// The denoiser's bands above 4.8 kHz are too wide for full gain: a band of w bins tops out at 3/w.
// The bands of `flat` fill that up, over bins as the engine's equaliser counts them.
TEST(Preset, FlatEvensOutTheTreble) {
  constexpr int kStarts[] = {
#include "nn/band_start.def"
  };
  const std::vector<Peak> flat = load_preset("flat").peaks;
  double squares = 0, without = 0;
  int bins = 0;
  for (std::size_t band = 0; band + 1 < std::size(kStarts); ++band) {
    const int width = kStarts[band + 1] - kStarts[band];
    for (int bin = kStarts[band]; bin < kStarts[band + 1] && kStarts[band] >= 8; ++bin, ++bins) {
      const double missing_db = 20 * std::log10(std::max(1.0, width / 3.0));
      double given_db = 0;
      for (const Peak& peak : flat) {
        const int centre = peak.center_hz / 31, across = centre / peak.q, rise = across / 2;
        const int side = bin < centre ? rise : across - rise;
        const double height =
            side > 0 ? std::max(0.0, 1 - std::abs(bin - centre) / double(side)) : 0;
        given_db += 20 * std::log10(1 + (std::pow(10, peak.gain_db / 20) - 1) * height);
      }
      squares += std::pow(missing_db - given_db, 2);
      without += missing_db * missing_db;
    }
  }
  EXPECT_GT(std::sqrt(without / bins), 1.5) << "there is something to even out";
  EXPECT_LT(std::sqrt(squares / bins), 0.35);
  EXPECT_TRUE(load_preset("plain").peaks.empty());
}

// ---- Command line -------------------------------------------------------------------------------

Options parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "speech-enhance");
  return parse_options(static_cast<int>(arguments.size()), arguments.data());
}

std::string options_error(const std::vector<const char*>& arguments) {
  try {
    parse(arguments);
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), 2);
    return error.what();
  }
  return "";
}

TEST(Options, MakeEverySetting) {
  const auto settings = [](std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), {"a", "-o", "b", "-p", "plain"});
    return format_preset(parse(arguments).settings);
  };
  EXPECT_EQ(settings({"--mode", "mix", "--residual", "25", "--limiter-gain", "3",
                      "--limiter-ceiling", "0.5", "--low-shelf", "300:12", "--high-shelf",
                      "7000:6.5", "--peak", "1000:-3.5:2", "--peak", "2000:3:4"}),
            format_preset(parse_preset(R"({
    "mode": "mix", "residual_db": 25, "limiter": {"ceiling": 0.5, "gain_db": 3},
    "low_shelf": {"freq_hz": 300, "atten_db": 12}, "high_shelf": {"freq_hz": 7000, "atten_db": 6.5},
    "peaks": [{"center_hz": 1000, "gain_db": -3.5, "q": 2}, {"center_hz": 2000, "gain_db": 3, "q": 4}]
  })",
                                       "p")));
  EXPECT_EQ(settings({"--mode", "suppress", "--ns-residual", "50"}),
            format_preset(parse_preset(R"({"mode": "suppress", "ns_residual_db": 50})", "p")));
  EXPECT_EQ(settings({}), format_preset({}));
  EXPECT_TRUE(parse({"a", "-o", "b", "--no-limiter", "--limiter"}).settings.limiter);
  for (const Options& options : {parse({"a", "-o", "b"}), parse({"a", "-o", "b", "-p", "voice"})}) {
    EXPECT_EQ(format_preset(options.settings), format_preset(load_preset("recording")))
        << "the default, and the name that it had before";
  }
}

TEST(Options, OverrideThePreset) {
  const Settings preset = load_preset("recording");
  ASSERT_TRUE(preset.limiter);
  ASSERT_FALSE(preset.peaks.empty());

  const Settings tuned = parse({"a", "-o", "b", "-p", "recording", "--limiter-gain", "7"}).settings;
  EXPECT_EQ(tuned.limiter->gain_db, 7);
  EXPECT_EQ(tuned.limiter->ceiling, preset.limiter->ceiling);
  EXPECT_EQ(tuned.peaks.size(), preset.peaks.size());

  const Settings stripped =
      parse({"a", "-o", "b", "-p", "recording", "--limiter", "--no-limiter", "--peak", "off"})
          .settings;
  EXPECT_FALSE(stripped.limiter);
  EXPECT_TRUE(stripped.peaks.empty());
  EXPECT_FALSE(parse({"a", "-o", "b", "-p", "call", "--low-shelf", "off"}).settings.low_shelf);
}

TEST(Options, RefusesNonsenseInOneLine) {
  const std::pair<std::vector<const char*>, const char*> cases[] = {
      {{}, "no recording"},
      {{"a.wav"}, "no output"},
      {{"a.wav", "-o", "b.wav", "--frobnicate"}, "--frobnicate"},
      {{"a.wav", "-o", "b.wav", "--mode", "loud"}, "denoise, mix or suppress"},
      {{"a.wav", "-o", "b.wav", "--residual", "20"}, "--mode mix"},
      {{"a.wav", "-o", "b.wav", "--ns-residual", "20"}, "--mode suppress"},
      {{"a.wav", "-o", "b.wav", "--mode", "mix", "--residual", "many"}, "residual"},
      {{"a.wav", "-o", "b.wav", "--no-limiter", "--limiter-gain", "3"}, "--no-limiter"},
      {{"a.wav", "-o", "b.wav", "--limiter-ceiling", "nan"}, "outside"},
      {{"a.wav", "-o", "b.wav", "--low-shelf", "300"}, "HZ:DB"},
      {{"a.wav", "-o", "b.wav", "--low-shelf", "300:6:"}, "HZ:DB"},
      {{"a.wav", "-o", "b.wav", "--low-shelf", "low:6"}, "not a number"},
      {{"a.wav", "-o", "b.wav", "--peak", "1000:3:1.5"}, "not a whole number"},
      {{"a.wav", "-o", "b.wav", "--peak", "3000:3:138547333"}, "outside 1 to 96"},
      {{"a.wav", "-o", "b.wav", "--stats=xml"}, "neither text nor json"},
      {{"a.wav", "-o", "b.wav", "--max-input", "0"}, "not a size"},
      {{"a.wav", "-o", "b.wav", "--max-input", "-1"}, "not a size"},
      {{"a.wav", "-o", "b.wav", "--max-input", "5Q"}, "not a size"},
      {{"a.wav", "-o", "b.wav", "--max-input", "16777216T"}, "not a size"},
      {{"a.wav", "-o", "b.wav", "--jobs", "0"}, "jobs"},
      {{"a.wav", "-o", "b.wav", "--preset", "nonesuch"}, "plain, recording"},
      {{""}, "MIC: empty"},
      {{"a.wav", "-o", ""}, "--output: empty"},
      {{"a.wav", "-o", "b.wav", "--ref", ""}, "--ref: empty"},
      {{"a.wav", "-o", "b.wav", "--preset", ""}, "--preset: empty"},
      {{"a.wav", "-o", "b.wav", "--mode="}, "--mode"},
  };
  for (const auto& [arguments, expected] : cases) {
    const std::string line = options_error(arguments);
    EXPECT_NE(line.find(expected), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
}

TEST(Options, PrintsVersionAndPreset) {
  EXPECT_EQ(parse({"--version"}).text_to_print, "speech-enhance 1.0.0\n");
  const std::string printed =
      parse({"-p", "call", "--limiter-gain", "9", "--print-preset"}).text_to_print;
  EXPECT_EQ(parse_preset(printed, "printed").limiter->gain_db, 9);
}

}  // namespace
}  // namespace se_tool
