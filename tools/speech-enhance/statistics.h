// Figures about an enhanced recording.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace se_tool {

// Levels of one signal, taken block by block. Levels are in dB relative to full scale (dBFS), of a
// constant 1 rather than of a sine; minus infinity for silence.
class LevelMeter {
 public:
  void add_block(const float* samples, std::size_t count);

  double peak_db() const;
  double level_db() const;  // of the whole signal, root mean square
  // The level that a tenth of the blocks stays below: the background, unless speech never pauses.
  double background_db() const;

 private:
  static constexpr double kLowestDb = -150;
  static constexpr double kStepsPerDb = 10;

  float peak_ = 0;
  double energy_ = 0;
  std::uint64_t samples_ = 0;
  std::uint64_t blocks_ = 0;
  std::array<std::uint64_t, 2000> blocks_at_level_ = {};
};

// How much less energy the output has than the microphone while the loudspeaker plays and until its
// echo has died away. A talker in those moments counts against it.
class EchoMeter {
 public:
  void add_block(const float* mic, const float* ref, const float* out, std::size_t count);

  // NaN if the loudspeaker never plays.
  double reduction_db() const;

 private:
  int blocks_left_ = 0;  // until the echo has died away
  double mic_energy_ = 0;
  double out_energy_ = 0;
};

// Plain values, so that they can be handed from process to process.
struct Statistics {
  double duration_s = 0;
  double engine_s = 0;          // time spent in the engine
  double real_time_factor = 0;  // that time against the duration: below 1 is faster than real time
  double peak_in_db = 0;
  double peak_out_db = 0;
  double level_in_db = 0;
  double level_out_db = 0;
  double background_in_db = 0;
  double background_out_db = 0;
  double attenuation_db = 0;     // level in - level out
  double echo_reduction_db = 0;  // NaN without a reference or if it never plays
  double delay_ms = 0;           // of the echo behind the reference; NaN if none was found or set
  std::uint64_t clipped_samples = 0;
  std::uint64_t missing_bytes = 0;          // that the input announces but lacks
  std::uint64_t excessive_mic_samples = 0;  // beyond what the engine takes
  std::uint64_t excessive_ref_samples = 0;
};

// Several lines for people. Levels of silence read "silence", figures that do not exist "-".
std::string format_text(const std::string& file, const Statistics& statistics);

// The figures as an object; levels of silence and figures that do not exist are null.
nlohmann::ordered_json figures(const Statistics& statistics);

// One line with the file's name and that object.
std::string format_json(const std::string& file, const Statistics& statistics);

}  // namespace se_tool
