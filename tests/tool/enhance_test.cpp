#include "enhance.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "errors.h"
#include "files.h"
#include "preset.h"
#include "process_pool.h"
#include "speechenhance/speechenhance.h"
#include "test_files.h"

namespace se_tool {
namespace {

const ProgressFunction kNoProgress = [](std::uint64_t, std::uint64_t) {};

// Enhances one recording into floats, in a process of its own like the tool does.
std::vector<float> enhanced(const std::vector<float>& mic, int channels, const Settings& settings,
                            const std::vector<float>& ref = {}) {
  const TestFolder folder;
  Task task;
  task.mic = folder / "mic.wav";
  task.output = folder / "out.wav";
  task.as_float = true;
  task.settings = settings;
  write_sound(task.mic, kWavFloat, 16000, channels, mic);
  if (!ref.empty()) {
    task.ref = folder / "ref.wav";
    write_sound(task.ref, kWavFloat, 16000, 1, ref);
  }
  const Work work = [&](std::size_t, const ReportFraction&) {
    claim_standard_output();
    enhance(task, kNoProgress);
    return std::string();
  };
  const Outcome outcome = run_in_processes(1, 1, work, [](double) {}).front();
  EXPECT_EQ(outcome.code, 0) << outcome.text;
  return read_sound(task.output).samples;
}

double correlation(const std::vector<float>& left, const std::vector<float>& right, int lag) {
  double sum = 0;
  for (int i = 4000; i < 12000; ++i) {
    sum += static_cast<double>(left[static_cast<std::size_t>(i)]) *
           right[static_cast<std::size_t>(i + lag)];
  }
  return sum;
}

Settings mix_in_full() {
  Settings settings;
  settings.mode = Mode::kMix;
  settings.residual_db = 0;
  return settings;
}

// Whatever the denoiser does, the mix in full passes the microphone, three times as loud or more.
TEST(Enhance, AlignsTheOutputToTheSample) {
  const std::vector<float> mic = noise(16123, 0.05f, 11);
  Settings suppressed = mix_in_full();
  suppressed.mode = Mode::kSuppress;
  suppressed.ns_residual_db = 10;
  Settings limited = mix_in_full();
  limited.limiter = Limiter{0.9, 0};
  for (const Settings& settings : {mix_in_full(), suppressed, limited}) {
    const std::vector<float> out = enhanced(mic, 1, settings);
    ASSERT_EQ(out.size(), mic.size());
    const double at_zero = correlation(mic, out, 0);
    EXPECT_GT(at_zero, 2 * correlation(mic, mic, 0));
    for (int lag = -200; lag <= 200; ++lag) {
      if (lag == 0) continue;
      EXPECT_LT(std::abs(correlation(mic, out, lag)), 0.25 * at_zero) << "lag " << lag;
    }
  }
}

TEST(Enhance, KeepsTheLengthOfTheShortestRecordings) {
  for (const std::size_t length : {1u, 159u, 160u, 161u, 1151u, 1153u, 1169u}) {
    const std::vector<float> out = enhanced(noise(length, 0.05f, 12), 1, mix_in_full());
    EXPECT_EQ(out.size(), length);
  }
}

TEST(Enhance, TakesTheSecondChannelAndFeedsMonoToBoth) {
  const std::vector<float> first = noise(16000, 0.05f, 13);
  const std::vector<float> second = noise(16000, 0.05f, 14);
  std::vector<float> stereo;
  std::vector<float> doubled;
  for (std::size_t i = 0; i < second.size(); ++i) {
    stereo.insert(stereo.end(), {first[i], second[i]});
    doubled.insert(doubled.end(), {second[i], second[i]});
  }
  const std::vector<float> out = enhanced(stereo, 2, mix_in_full());
  EXPECT_GT(correlation(second, out, 0), 2 * correlation(second, second, 0));
  EXPECT_LT(std::abs(correlation(first, out, 0)), 0.2 * correlation(first, first, 0));
  EXPECT_EQ(enhanced(doubled, 2, {}), enhanced(second, 1, {}));
}

// The same frames through the engine's own interface give the same samples.
TEST(Enhance, GivesWhatTheEngineGives) {
  const std::vector<float> mic = noise(16000, 0.3f, 15);
  const std::vector<float> ref = noise(16000, 0.3f, 16);
  for (const char* preset : {"plain", "voice", "call", "natural", "steady"}) {
    const Settings settings = load_preset(preset);
    const std::vector<float> out = enhanced(mic, 1, settings, ref);
    const Work work = [&](std::size_t, const ReportFraction&) {
      claim_standard_output();
      SEInstance* engine = se_create();
      set_nn_process_config(engine, engine_config(settings));
      std::vector<float> stream;
      for (std::size_t at = 0; at < mic.size(); at += 160) {
        float mics[320];
        float block[160];
        std::copy_n(mic.data() + at, 160, mics);
        std::copy_n(mic.data() + at, 160, mics + 160);
        se_process(engine, mics, ref.data() + at, block, settings.mode == Mode::kDenoise,
                   settings.mode == Mode::kSuppress);
        stream.insert(stream.end(), block, block + 160);
      }
      se_destroy(engine);
      return std::string(reinterpret_cast<const char*>(stream.data()), stream.size() * 4);
    };
    const std::string bytes = run_in_processes(1, 1, work, [](double) {}).front().text;
    std::vector<float> stream(bytes.size() / 4);
    std::copy_n(bytes.data(), bytes.size(), reinterpret_cast<char*>(stream.data()));
    ASSERT_EQ(stream.size(), mic.size());
    const auto delay = static_cast<std::size_t>(settings.limiter ? 1168 : 1152);
    EXPECT_TRUE(
        std::equal(stream.begin() + static_cast<std::ptrdiff_t>(delay), stream.end(), out.begin()))
        << preset;
  }
}

TEST(Enhance, RefusesReferencesOfAnotherRateLengthOrShape) {
  const TestFolder folder;
  Task task;
  task.mic = folder / "mic.wav";
  task.ref = folder / "ref.wav";
  task.output = folder / "out.wav";
  write_sound(task.mic, kWav16, 16000, 1, noise(16000, 0.1f, 17));
  const auto error_of = [&](int rate, int channels, std::size_t samples) {
    write_sound(task.ref, kWav16, rate, channels, noise(samples, 0.1f, 18));
    try {
      enhance(task, kNoProgress);
    } catch (const Error& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_NE(error_of(48000, 1, 48000).find("same rate"), std::string::npos);
  EXPECT_NE(error_of(16000, 1, 15999).find("as long"), std::string::npos);
  EXPECT_NE(error_of(16000, 2, 32000).find("mono"), std::string::npos);
  write_sound(task.mic, kWav16, 16000, 3, noise(48000, 0.1f, 17));
  EXPECT_NE(error_of(16000, 1, 16000).find("3 channels"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(task.output));
}

TEST(ProcessPool, KeepsOrderAndSeparatesFailuresAndState) {
  static int state = 0;
  const Work work = [](std::size_t index, const ReportFraction& report) -> std::string {
    report(0.5);
    usleep(static_cast<useconds_t>((7 - index) * 3000));
    if (index == 2) throw Error(ExitCode::kInput, "no good");
    if (index == 3) abort();
    if (index == 4) return std::string(300000, 'x');  // more than a pipe holds
    return std::to_string(index) + ":" + std::to_string(state++);
  };
  for (const std::size_t jobs : {1u, 2u, 20u}) {
    double last = 0;
    const std::vector<Outcome> outcomes =
        run_in_processes(7, jobs, work, [&](double part) { last = part; });
    ASSERT_EQ(outcomes.size(), 7u);
    EXPECT_EQ(outcomes[0].text, "0:0");
    EXPECT_EQ(outcomes[6].text, "6:0");
    EXPECT_EQ(outcomes[2].code, 3);
    EXPECT_EQ(outcomes[2].text, "no good");
    EXPECT_EQ(outcomes[3].code, 5);
    EXPECT_EQ(outcomes[4].text.size(), 300000u);
    EXPECT_EQ(last, 1);
  }
}

}  // namespace
}  // namespace se_tool
