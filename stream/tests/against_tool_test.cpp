// Streams give what the tool makes of the same recording.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "audio_input.h"
#include "enhance.h"
#include "errors.h"
#include "preset.h"
#include "stream/tests/by_tool.h"
#include "stream/tests/stream_support.h"
#include "tool/test_files.h"

namespace se_tool {
namespace {

// The same by a stream, at its rate, without its latency.
std::vector<float> by_stream(const Scene& scene, int rate, const char* preset_name) {
  StreamHandle stream = make_stream(rate, 2, 1, 0);
  const SEStreamSettings settings = preset(preset_name);
  EXPECT_EQ(se_stream_set_settings(stream.get(), &settings), SE_STREAM_OK);
  const auto latency = static_cast<std::size_t>(se_stream_latency(stream.get()));
  std::vector<std::vector<float>> mics = scene.mics, refs = {scene.refs[0]};
  for (auto* signals : {&mics, &refs}) {
    for (auto& signal : *signals) signal.resize(signal.size() + latency);
  }
  std::vector<float> out = run(stream.get(), mics, refs, 480);
  out.erase(out.begin(), out.begin() + static_cast<std::ptrdiff_t>(latency));
  return out;
}

std::vector<float> at_16k(const std::vector<float>& signal, int rate) {
  const TestFolder folder;
  write_sound(folder / "sound.wav", kWavFloat, rate, 1, signal);
  AudioInput input(folder / "sound.wav");
  std::vector<float> result(input.length());
  input.read(result.data(), result.size());
  return result;
}

TEST(StreamAgainstTool, HasItsPresets) {
  int index = 0;
  for (const BuiltInPreset& built_in : built_in_presets()) {
    ASSERT_STREQ(se_stream_preset_name(index), built_in.name);
    EXPECT_EQ(se_stream_preset_description(index++), preset_description(built_in));
  }
  EXPECT_EQ(se_stream_preset_name(index), nullptr);
  EXPECT_EQ(se_stream_preset_description(index), nullptr);
}

TEST(StreamAgainstTool, GivesTheSameBitsAt16k) {
  const Scene scene(16000, 2.0);
  for (int i = 0; const char* name = se_stream_preset_name(i); ++i) {
    const std::vector<float> tools = by_tool(scene, 16000, name);
    EXPECT_GT(energy_of(tools), 0.01) << name;
    EXPECT_EQ(by_stream(scene, 16000, name), tools) << name;
  }
}

// The tool has another resampler, the difference of which stays 60 dB below the sound. With a far
// end, the echo canceller's filters are kept or dropped by comparisons that the last bits can turn,
// in some bin at some time.
TEST(StreamAgainstTool, GivesTheSameSoundAtOtherRates) {
  for (const int rate : {8000, 44100, 48000}) {
    for (const bool far_end : {false, true}) {
      Scene scene(rate, 3.0);
      if (!far_end) scene.refs[0].assign(scene.refs[0].size(), 0.0f);
      const std::vector<float> tools = by_tool(scene, rate, "voice");
      const std::vector<float> streams = at_16k(by_stream(scene, rate, "voice"), rate);
      ASSERT_EQ(streams.size(), tools.size());
      std::vector<float> difference(tools.size());
      for (std::size_t i = 0; i < tools.size(); ++i) difference[i] = streams[i] - tools[i];
      const double db = 10 * std::log10(energy_of(difference) / energy_of(tools));
      EXPECT_LT(db, far_end ? -40.0 : -60.0) << rate;
    }
  }
}

}  // namespace
}  // namespace se_tool
