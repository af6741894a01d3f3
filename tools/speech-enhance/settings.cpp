#include "settings.h"

#include <cmath>
#include <sstream>

#include "errors.h"

namespace se_tool {
namespace {

// The engine's equaliser counts bins of 31 Hz, truncating, up to bin 256. It skips a low shelf at
// bin 8 or below and a high shelf at bin 249 or above.
constexpr int kHzPerBin = 31;
constexpr int kLastBin = 256;
constexpr double kLowestLowShelf = 9 * kHzPerBin;
constexpr double kHighestHighShelf = 249 * kHzPerBin - 1;

// Analysis and synthesis, then five blocks of the denoiser's look-ahead.
constexpr int kTransformDelay = 352;
constexpr int kLookAhead = 5 * SE_BLOCK_LEN;
constexpr int kLimiterDelay = 16;

void check_range(const char* what, double value, double low, double high, const char* unit) {
  if (value >= low && value <= high) return;  // also false for NaN
  std::ostringstream line;
  line << what << " " << value << unit << " is outside " << low << " to " << high << unit;
  throw Error(ExitCode::kUsage, line.str());
}

void check_peak(const Peak& peak) {
  check_range("peak centre", peak.center_hz, kHzPerBin, kLastBin * kHzPerBin + kHzPerBin - 1,
              " Hz");
  check_range("peak gain", peak.gain_db, -60, 40, " dB");
  const int sharpest = peak.center_hz / kHzPerBin;
  if (peak.q < 1 || peak.q > sharpest) {
    std::ostringstream line;
    line << "peak q " << peak.q << " at " << peak.center_hz << " Hz is outside 1 to " << sharpest
         << " (a band is " << kHzPerBin << " Hz wide or wider)";
    throw Error(ExitCode::kUsage, line.str());
  }
}

ShelfBand engine_shelf(const std::optional<Shelf>& shelf) {
  if (!shelf) return {};
  return {1, static_cast<float>(shelf->freq_hz), static_cast<float>(shelf->atten_db)};
}

constexpr Mode kModes[] = {Mode::kDenoise, Mode::kMix, Mode::kSuppress};

}  // namespace

const char* mode_name(Mode mode) {
  switch (mode) {
    case Mode::kMix:
      return "mix";
    case Mode::kSuppress:
      return "suppress";
    case Mode::kDenoise:
      break;
  }
  return "denoise";
}

std::optional<Mode> find_mode(const std::string& name) {
  for (const Mode mode : kModes) {
    if (name == mode_name(mode)) return mode;
  }
  return std::nullopt;
}

void check_settings(const Settings& settings) {
  check_range("residual", settings.residual_db, 0, 120, " dB");
  check_range("residual ahead of the suppressor", settings.ns_residual_db, 10, 130, " dB");
  if (settings.limiter) {
    check_range("limiter ceiling", settings.limiter->ceiling, 0.01, 1, "");
    check_range("limiter gain", settings.limiter->gain_db, 0, 60, " dB");
  }
  if (settings.low_shelf) {
    check_range("low shelf", settings.low_shelf->freq_hz, kLowestLowShelf, 8000, " Hz");
    check_range("attenuation of the low shelf", settings.low_shelf->atten_db, 0, 120, " dB");
  }
  if (settings.high_shelf) {
    check_range("high shelf", settings.high_shelf->freq_hz, 0, kHighestHighShelf, " Hz");
    check_range("attenuation of the high shelf", settings.high_shelf->atten_db, 0, 120, " dB");
  }
  if (settings.peaks.size() > kMostPeaks) {
    throw Error(ExitCode::kUsage, std::to_string(settings.peaks.size()) +
                                      " peak bands given, the equaliser has " +
                                      std::to_string(kMostPeaks));
  }
  for (const Peak& peak : settings.peaks) check_peak(peak);
}

NnProcessConfig engine_config(const Settings& settings) {
  NnProcessConfig config = {};
  config.residual_db = settings.residual_db;
  config.ns_residual_db = settings.ns_residual_db;
  if (settings.limiter) {
    config.limiter_enable = 1;
    config.limiter_max_gain = static_cast<float>(settings.limiter->ceiling);
    config.limiter_level_db = static_cast<float>(settings.limiter->gain_db);
  }
  config.low_shelf = engine_shelf(settings.low_shelf);
  config.high_shelf = engine_shelf(settings.high_shelf);
  for (std::size_t i = 0; i < settings.peaks.size(); ++i) {
    const Peak& peak = settings.peaks[i];
    config.peak[i] = {peak.center_hz, static_cast<float>(peak.gain_db), peak.q};
  }
  return config;
}

int engine_delay(const Settings& settings) {
  return kTransformDelay + kLookAhead + (settings.limiter ? kLimiterDelay : 0);
}

}  // namespace se_tool
