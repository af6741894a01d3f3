#include "settings.h"

#include <cmath>
#include <sstream>

#include "engine/delays.h"
#include "engine/setting_ranges.h"
#include "errors.h"

namespace se_tool {
namespace {

template <class T>
void check_range(const char* what, double value, const se::SettingRange<T>& range,
                 const char* unit) {
  if (range.holds(value)) return;
  std::ostringstream line;
  line << what << " " << value << unit << " is outside " << range.low << " to " << range.high
       << unit;
  throw Error(ExitCode::kUsage, line.str());
}

void check_peak(const Peak& peak) {
  check_range("peak centre", peak.center_hz, se::kPeakHz, " Hz");
  check_range("peak gain", peak.gain_db, se::kPeakGainRange, " dB");
  const int sharpest = se::sharpest_peak(peak.center_hz);
  if (peak.q < 1 || peak.q > sharpest) {
    std::ostringstream line;
    line << "peak q " << peak.q << " at " << peak.center_hz << " Hz is outside 1 to " << sharpest
         << " (a band is " << se::kEqualiserHzPerBin << " Hz wide or wider)";
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
  check_range("residual", settings.residual_db, se::kResidualRange, " dB");
  check_range("residual ahead of the suppressor", settings.ns_residual_db, se::kNsResidualRange,
              " dB");
  if (settings.limiter) {
    check_range("limiter ceiling", settings.limiter->ceiling, se::kCeilingRange, "");
    check_range("limiter gain", settings.limiter->gain_db, se::kMakeUpRange, " dB");
  }
  if (settings.low_shelf) {
    check_range("low shelf", settings.low_shelf->freq_hz, se::kLowShelfHz, " Hz");
    check_range("attenuation of the low shelf", settings.low_shelf->atten_db, se::kShelfRange,
                " dB");
  }
  if (settings.high_shelf) {
    check_range("high shelf", settings.high_shelf->freq_hz, se::kHighShelfHz, " Hz");
    check_range("attenuation of the high shelf", settings.high_shelf->atten_db, se::kShelfRange,
                " dB");
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
  return se::kDenoiserDelay + (settings.limiter ? se::kLimiterDelay : 0);
}

}  // namespace se_tool
