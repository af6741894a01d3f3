// What the tool makes of a scene, for comparison.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "enhance.h"
#include "preset.h"
#include "stream/tests/stream_support.h"
#include "tool/test_files.h"

namespace se_tool {

inline std::vector<float> interleaved(const std::vector<std::vector<float>>& channels) {
  std::vector<float> samples;
  for (std::size_t i = 0; i < channels[0].size(); ++i) {
    for (const auto& channel : channels) samples.push_back(channel[i]);
  }
  return samples;
}

// What the tool makes of the scene, at 16 kHz, with the first channel of the reference.
inline std::vector<float> by_tool(const Scene& scene, int rate, const char* preset_name,
                                  std::optional<int> delay_ms = {}) {
  const TestFolder folder;
  Task task;
  task.mic = folder / "mic.wav";
  task.ref = folder / "ref.wav";
  task.output = folder / "out.wav";
  task.format = SoundFormat::kWavFloat;
  task.delay_ms = delay_ms;
  task.settings = load_preset(preset_name);
  write_sound(task.mic, kWavFloat, rate, 2, interleaved(scene.mics));
  write_sound(task.ref, kWavFloat, rate, 1, scene.refs[0]);
  enhance(task, [](std::uint64_t, std::uint64_t) {});
  return read_sound(task.output).samples;
}

}  // namespace se_tool
