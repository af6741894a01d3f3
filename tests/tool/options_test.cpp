#include "options.h"

#include <gtest/gtest.h>

#include "errors.h"
#include "preset.h"

namespace se_tool {
namespace {

Options parse(std::vector<const char*> arguments) {
  arguments.insert(arguments.begin(), "speech-enhance");
  return parse_options(static_cast<int>(arguments.size()), arguments.data());
}

std::string error_of(const std::vector<const char*>& arguments) {
  try {
    parse(arguments);
  } catch (const Error& error) {
    EXPECT_EQ(error.code(), 2);
    return error.what();
  }
  return "";
}

TEST(Options, TakesFilesAndStreams) {
  const Options files = parse({"a.wav", "b.wav", "--ref", "refs", "-o", "out/", "-j", "3",
                               "--float", "--stats=json", "--plot", "plots", "-q"});
  EXPECT_EQ(files.inputs, (std::vector<std::string>{"a.wav", "b.wav"}));
  EXPECT_EQ(files.ref, "refs");
  EXPECT_EQ(files.output, "out/");
  EXPECT_EQ(files.plot, "plots");
  EXPECT_EQ(files.jobs, 3u);
  EXPECT_TRUE(files.as_float);
  EXPECT_TRUE(files.quiet);
  EXPECT_EQ(files.statistics, StatisticsFormat::kJson);

  const Options streams = parse({"-o", "-", "--stats", "-"});
  EXPECT_EQ(streams.inputs, std::vector<std::string>{"-"});
  EXPECT_EQ(streams.output, "-");
  EXPECT_EQ(streams.statistics, StatisticsFormat::kText);
  EXPECT_GE(streams.jobs, 1u);
}

TEST(Options, MakeEverySetting) {
  const Settings s =
      parse({"a", "-o", "b", "--mode", "mix", "--residual", "25", "--limiter-gain", "3",
             "--limiter-ceiling", "0.5", "--low-shelf", "300:12", "--high-shelf", "7000:6.5",
             "--peak", "1000:-3.5:2", "--peak", "2000:3:4"})
          .settings;
  EXPECT_EQ(s.mode, Mode::kMix);
  EXPECT_EQ(s.residual_db, 25);
  ASSERT_TRUE(s.limiter);
  EXPECT_EQ(s.limiter->gain_db, 3);
  EXPECT_EQ(s.limiter->ceiling, 0.5);
  ASSERT_TRUE(s.low_shelf && s.high_shelf);
  EXPECT_EQ(s.low_shelf->freq_hz, 300);
  EXPECT_EQ(s.high_shelf->atten_db, 6.5);
  ASSERT_EQ(s.peaks.size(), 2u);
  EXPECT_EQ(s.peaks[0].gain_db, -3.5);
  EXPECT_EQ(s.peaks[1].q, 4);

  EXPECT_EQ(
      parse({"a", "-o", "b", "--mode", "suppress", "--ns-residual", "50"}).settings.ns_residual_db,
      50);
  EXPECT_TRUE(parse({"a", "-o", "b", "--limiter"}).settings.limiter);
  EXPECT_FALSE(parse({"a", "-o", "b"}).settings.limiter);
}

TEST(Options, OverrideThePreset) {
  const Settings preset = load_preset("voice");
  ASSERT_TRUE(preset.limiter);
  ASSERT_FALSE(preset.peaks.empty());

  const Settings tuned = parse({"a", "-o", "b", "-p", "voice", "--limiter-gain", "7"}).settings;
  EXPECT_EQ(tuned.limiter->gain_db, 7);
  EXPECT_EQ(tuned.limiter->ceiling, preset.limiter->ceiling);
  EXPECT_EQ(tuned.peaks.size(), preset.peaks.size());

  const Settings stripped =
      parse({"a", "-o", "b", "-p", "voice", "--no-limiter", "--peak", "off"}).settings;
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
      {{"a.wav", "-o", "b.wav", "--low-shelf", "300:6:1"}, "HZ:DB"},
      {{"a.wav", "-o", "b.wav", "--low-shelf", "low:6"}, "not a number"},
      {{"a.wav", "-o", "b.wav", "--peak", "1000:3:1.5"}, "not a whole number"},
      {{"a.wav", "-o", "b.wav", "--stats=xml"}, "neither text nor json"},
      {{"a.wav", "-o", "b.wav", "--jobs", "0"}, "jobs"},
      {{"a.wav", "-o", "b.wav", "--preset", "nonesuch"}, "--list-presets"},
  };
  for (const auto& [arguments, expected] : cases) {
    const std::string line = error_of(arguments);
    EXPECT_NE(line.find(expected), std::string::npos) << line;
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  }
}

TEST(Options, PrintsHelpAndLists) {
  EXPECT_NE(parse({"--help"}).text_to_print.find("Examples:"), std::string::npos);
  EXPECT_NE(parse({"--version"}).text_to_print.find("speech-enhance 1."), std::string::npos);
  EXPECT_NE(parse({"--list-presets"}).text_to_print.find("\nvoice"), std::string::npos);
  const std::string printed =
      parse({"-p", "call", "--limiter-gain", "9", "--print-preset"}).text_to_print;
  EXPECT_EQ(parse_preset(printed, "printed").limiter->gain_db, 9);
}

}  // namespace
}  // namespace se_tool
