#include "enhance.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "errors.h"
#include "files.h"
#include "preset.h"
#include "process_pool.h"
#include "speechenhance/speechenhance.h"
#include "test_files.h"

namespace se_tool {
namespace {

// What `work` writes to its string, in a process of its own like the tool's recordings.
std::string run_alone(const std::function<std::string()>& work) {
  const Work job = [&](std::size_t, const ReportFraction&) {
    claim_standard_output();
    return work();
  };
  const Outcome outcome = run_in_processes({"recording"}, 1, job, [](double) {}).front();
  EXPECT_EQ(outcome.code, 0) << outcome.text;
  return outcome.text;
}

std::vector<float> enhanced(const std::vector<float>& mic, int channels, const Settings& settings,
                            const std::vector<float>& ref = {}) {
  const TestFolder folder;
  Task task;
  task.mic = folder / "mic.wav";
  task.output = folder / "out.wav";
  task.format = SoundFormat::kWavFloat;
  task.settings = settings;
  write_sound(task.mic, kWavFloat, 16000, channels, mic);
  if (!ref.empty()) {
    task.ref = folder / "ref.wav";
    write_sound(task.ref, kWavFloat, 16000, 1, ref);
  }
  run_alone([&] {
    enhance(task, [](std::uint64_t, std::uint64_t) {});
    return std::string();
  });
  return read_sound(task.output).samples;
}

// The engine on both microphones, delay included.
std::vector<float> streamed(const std::vector<float>& mic0, const std::vector<float>& mic1,
                            const Settings& settings, const std::vector<float>& ref) {
  const std::string bytes = run_alone([&] {
    SEInstance* engine = se_create();
    set_nn_process_config(engine, engine_config(settings));
    std::vector<float> stream(mic0.size());
    for (std::size_t at = 0; at < stream.size(); at += 160) {
      float mics[320];
      std::copy_n(&mic0[at], 160, mics);
      std::copy_n(&mic1[at], 160, mics + 160);
      se_process(engine, mics, &ref[at], &stream[at], settings.mode == Mode::kDenoise,
                 settings.mode == Mode::kSuppress);
    }
    se_destroy(engine);
    return std::string(reinterpret_cast<const char*>(stream.data()), stream.size() * 4);
  });
  std::vector<float> stream(bytes.size() / 4);
  std::copy_n(bytes.data(), bytes.size(), reinterpret_cast<char*>(stream.data()));
  return stream;
}

// The same frames through the engine's own interface give the same samples, less the delay; the
// mono recording feeds both microphones.
TEST(Enhance, GivesWhatTheEngineGives) {
  const std::vector<float> first = noise(16000, 0.3f, 15), second = noise(16000, 0.3f, 14),
                           ref = noise(16000, 0.3f, 16);
  std::vector<float> stereo;
  for (std::size_t i = 0; i < first.size(); ++i) {
    stereo.insert(stereo.end(), {first[i], second[i]});
  }
  for (const char* preset : {"plain", "recording", "call", "natural", "steady", "recognition"}) {
    SCOPED_TRACE(preset);
    const Settings settings = load_preset(preset);
    for (const int channels : {1, 2}) {
      const auto stream = streamed(first, channels == 1 ? first : second, settings, ref);
      const auto out = enhanced(channels == 1 ? first : stereo, channels, settings, ref);
      ASSERT_TRUE(stream.size() == first.size() && out.size() == first.size());
      const std::ptrdiff_t delay = settings.limiter ? 1168 : 1152;
      EXPECT_TRUE(std::equal(stream.begin() + delay, stream.end(), out.begin()));
    }
  }
}

TEST(Enhance, KeepsTheLengthOfTheShortestRecordings) {
  for (const std::size_t length : {1u, 159u, 160u, 161u, 1151u, 1153u, 1169u}) {
    EXPECT_EQ(enhanced(noise(length, 0.05f, 12), 1, {}).size(), length);
  }
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
  const std::vector<std::string> names = {"0.wav", "1.wav", "2.wav", "3.wav",
                                          "4.wav", "5.wav", "6.wav"};
  for (const std::size_t jobs : {1u, 2u, 20u}) {
    double last = 0;
    const std::vector<Outcome> outcomes =
        run_in_processes(names, jobs, work, [&](double part) { last = part; });
    ASSERT_EQ(outcomes.size(), 7u);
    EXPECT_EQ(outcomes[0].text, "0:0");
    EXPECT_EQ(outcomes[6].text, "6:0");
    EXPECT_TRUE(outcomes[2].code == 3 && outcomes[2].text == "no good");
    EXPECT_EQ(outcomes[3].code, 5);
    EXPECT_EQ(outcomes[3].text.find("3.wav: "), 0u);
    EXPECT_EQ(outcomes[4].text.size(), 300000u);
    EXPECT_EQ(last, 1);
  }
}

}  // namespace
}  // namespace se_tool
