// The inspector against the tool's ordinary path and against what its stages must hold.
#include "inspect/inspect.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "errors.h"
#include "nn/quiet_history.h"
#include "test_files.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLength = 2 * 16000 + 37;  // not a whole number of blocks

void no_progress(std::uint64_t, std::uint64_t) {}

// Two microphones that hear a loudspeaker which plays from 0.5 to 1.25 s, and noise.
struct Scene {
  Scene() {
    const std::vector<float> far = noise(12000, 0.3f, 1);
    ref.resize(kLength);
    std::copy(far.begin(), far.end(), ref.begin() + 8000);
    std::vector<float> mics = noise(2 * kLength, 0.02f, 2);
    for (std::size_t i = 300; i < kLength; ++i) {
      mics[2 * i] += 0.4f * ref[i - 290];
      mics[2 * i + 1] += 0.5f * ref[i - 300];
    }
    write_sound(folder / "mic.wav", kWavFloat, 16000, 2, mics);
    write_sound(folder / "ref.wav", kWavFloat, 16000, 1, ref);
    task.mic = folder / "mic.wav";
    task.ref = folder / "ref.wav";
    task.output = folder / "stages/of/it";
    for (std::size_t i = 0; i < kLength; ++i) mic.push_back(mics[2 * i + 1]);
  }

  std::vector<float> stage(const std::string& name) const {
    const Sound sound = read_sound(task.output + "/" + name);
    EXPECT_EQ(sound.samples.size(), kLength) << name;
    return sound.samples;
  }

  void inspect() const {
    se::nn::forget_quiet_frames();
    se_tool::inspect(task, no_progress);
  }

  TestFolder folder;
  std::vector<float> mic, ref;
  Task task;
};

double level_db(const std::vector<float>& samples, std::size_t from, std::size_t to) {
  double energy = 0;
  for (std::size_t i = from; i < to; ++i) energy += static_cast<double>(samples[i]) * samples[i];
  return 10 * std::log10(energy / static_cast<double>(to - from) + 1e-20);
}

TEST(Inspect, TheLastStageIsTheOutputOfTheToolInEveryMode) {
  Scene scene;
  scene.task.settings.limiter = Limiter{0.5, 12};
  scene.task.settings.peaks = {{1000, 6, 2}};
  scene.task.settings.ns_residual_db = 20;
  for (const Mode mode : {Mode::kDenoise, Mode::kMix, Mode::kSuppress}) {
    scene.task.settings.mode = mode;
    if (mode == Mode::kMix) scene.task.delay_ms = 120;  // the reference moves
    scene.inspect();
    Task plain = scene.task;
    plain.output = scene.folder / "plain.wav";
    plain.format = SoundFormat::kWavFloat;
    se::nn::forget_quiet_frames();
    enhance(plain, no_progress);
    const std::vector<float> expected = read_sound(plain.output).samples;
    EXPECT_EQ(scene.stage("9-limited.wav"), expected) << mode_name(mode);
    EXPECT_GT(level_db(expected, 0, kLength), -100) << mode_name(mode);
    EXPECT_NE(scene.stage("8-equalised.wav"), expected) << "limited at once";
  }
}

TEST(Inspect, StagesAreAlignedAndSayWhatTheyAreSaidTo) {
  Scene scene;
  scene.task.settings.ns_residual_db = 10;  // the suppressor gets the unprocessed sound in full
  scene.inspect();
  EXPECT_EQ(scene.stage("1-microphone.wav"), scene.mic);
  const std::vector<float> reference = scene.stage("2-reference.wav");
  for (std::size_t i = 512; i < kLength; ++i) ASSERT_NEAR(reference[i], scene.ref[i], 1e-5f) << i;

  const std::vector<float> reduced = scene.stage("3-echo-reduced.wav");
  for (std::size_t i = 512; i < 7000; ++i) ASSERT_NEAR(reduced[i], scene.mic[i], 1e-5f) << i;
  EXPECT_LT(level_db(reduced, 16000, 19000), level_db(scene.mic, 16000, 19000) - 6);

  // The noise is steady, at the make-up gain of 9.5 dB. Its estimate follows the minimum and lies
  // below it.
  const double noise_db = level_db(scene.mic, 0, 8000) + 9.5;
  const double estimate_db = level_db(scene.stage("6-noise-estimate.wav"), 28000, 32000);
  EXPECT_LT(estimate_db, noise_db);
  EXPECT_GT(estimate_db, noise_db - 15);
  EXPECT_LT(level_db(scene.stage("7-suppressed.wav"), 28000, 32000), noise_db);
  for (const char* picture : {"stages.png", "4-band-gains.png"}) {
    EXPECT_GT(fs::file_size(scene.task.output + "/" + picture), 10000u);
  }
}

TEST(Inspect, GainsComeAsATableOfTheRecordingsBlocks) {
  const Scene scene;
  scene.inspect();
  std::ifstream table(scene.task.output + "/4-band-gains.csv");
  std::string line;
  std::getline(table, line);
  EXPECT_EQ(line.substr(0, 37), "time_s,far_end,0 Hz,93.75 Hz,125 Hz,1");
  const auto commas = std::count(line.begin(), line.end(), ',');
  EXPECT_EQ(commas, 129);
  int rows = 0;
  for (; std::getline(table, line); ++rows) {
    ASSERT_EQ(std::count(line.begin(), line.end(), ','), commas);
    std::istringstream fields(line);
    double time, far_end, gain;
    char comma;
    fields >> time >> comma >> far_end;
    ASSERT_NEAR(time, 0.01 * rows + 0.004, 1e-9);
    // The rule looks at the reference five frames after the frame that it shapes.
    const bool surely_on = time > 0.46 && time < 1.2, surely_off = time < 0.42 || time > 1.24;
    ASSERT_TRUE(far_end == 1 ? !surely_off : !surely_on) << time;
    while (fields >> comma >> gain) ASSERT_TRUE(gain >= 0 && gain <= 1) << line;
  }
  EXPECT_EQ(rows, 201);  // 2 s and the block of the rest
}

TEST(Inspect, RefusesToReplaceAnInputAndLeavesNothingBehind) {
  Scene scene;
  scene.task.output = scene.folder / "stages";
  fs::create_directory(scene.task.output);
  scene.task.mic = scene.task.output + "/1-microphone.wav";
  write_sound(scene.task.mic, kWavFloat, 16000, 1, scene.mic);
  EXPECT_THROW(scene.inspect(), Error);
  EXPECT_EQ(scene.stage("1-microphone.wav"), scene.mic);
  const auto entries = [](const std::string& folder) {
    return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
  };
  EXPECT_EQ(entries(scene.task.output), 1);

  scene.task.mic = scene.folder / "mic.wav";
  scene.task.output = scene.folder / "file";
  write_file(scene.task.output, "in the way");
  EXPECT_THROW(scene.inspect(), Error);
}

}  // namespace
}  // namespace se_tool
