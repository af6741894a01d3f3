// What the engine is told to do with a recording: the settings of its configuration record in the
// terms of a preset file and of the command line.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "speechenhance/speechenhance.h"

namespace se_tool {

enum class Mode {
  kDenoise,   // the denoised signal alone
  kMix,       // with some of the unprocessed signal mixed in
  kSuppress,  // mixed, then through the classical noise suppressor
};

// The names by which people call them: denoise, mix, suppress.
const char* mode_name(Mode mode);
std::optional<Mode> find_mode(const std::string& name);

struct Limiter {
  double ceiling = 0.9;  // linear, full scale 1
  double gain_db = 0;    // make-up gain ahead of it
};

struct Shelf {
  double freq_hz = 0;
  double atten_db = 0;
};

struct Peak {
  int center_hz = 0;
  double gain_db = 0;
  int q = 0;
};

// Attenuations of the unprocessed signal in the mix are the engine's: its make-up factor of 3 adds
// 9.5 dB to both, and ns_residual_db counts from 10 dB.
struct Settings {
  Mode mode = Mode::kDenoise;
  int residual_db = 30;
  int ns_residual_db = 40;
  std::optional<Limiter> limiter;
  std::optional<Shelf> low_shelf;
  std::optional<Shelf> high_shelf;
  std::vector<Peak> peaks;
};

inline constexpr std::size_t kMostPeaks = 10;

// Throws an Error (usage) that names the first setting outside its range, or one that the engine
// would skip without a word, such as a shelf too close to the end of the spectrum.
void check_settings(const Settings& settings);

NnProcessConfig engine_config(const Settings& settings);

// By how many samples the engine's output lags its input with these settings.
int engine_delay(const Settings& settings);

}  // namespace se_tool
