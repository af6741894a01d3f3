#include "settings.h"

#include <cstring>

namespace se::stream {
namespace {

// The equaliser counts bins of 31 Hz, truncating, up to bin 256. It skips a low shelf at bin 8 or
// below and a high shelf at bin 249 or above.
constexpr int kHzPerBin = 31;
constexpr int kLastBin = 256;
constexpr float kLowestLowShelf = 9 * kHzPerBin;
constexpr float kHighestHighShelf = 249 * kHzPerBin - 1;

// False for what is not a number.
template <class T>
bool within(T value, T low, T high) {
  return value >= low && value <= high;
}

bool shelf_fits(const ShelfBand& shelf, float lowest_hz, float highest_hz) {
  if (shelf.enable == 0) return true;
  return within(shelf.freq_hz, lowest_hz, highest_hz) && within(shelf.atten_db, 0.0f, 120.0f);
}

bool peak_fits(const PeakBand& peak) {
  if (peak.q == 0) return true;
  return within(peak.center_hz, kHzPerBin, (kLastBin + 1) * kHzPerBin - 1) &&
         within(peak.gain_db, -60.0f, 40.0f) && within(peak.q, 1, peak.center_hz / kHzPerBin);
}

bool limiter_fits(const NnProcessConfig& engine) {
  if (engine.limiter_enable == 0) return true;
  return within(engine.limiter_max_gain, 0.01f, 1.0f) &&
         within(engine.limiter_level_db, 0.0f, 60.0f);
}

}  // namespace
}  // namespace se::stream

using namespace se::stream;

int32_t se_stream_check_settings(const SEStreamSettings* settings) {
  const NnProcessConfig& engine = settings->engine;
  if (!within<int>(settings->mode, SE_STREAM_DENOISE, SE_STREAM_SUPPRESS)) {
    return SE_STREAM_BAD_MODE;
  }
  if (!within(settings->amount, 0.0f, 1.0f)) return SE_STREAM_BAD_AMOUNT;
  if (!within(engine.residual_db, 0, 120) || !within(engine.ns_residual_db, 10, 130)) {
    return SE_STREAM_BAD_RESIDUAL;
  }
  if (!limiter_fits(engine)) return SE_STREAM_BAD_LIMITER;
  if (!shelf_fits(engine.low_shelf, kLowestLowShelf, 8000.0f) ||
      !shelf_fits(engine.high_shelf, 0.0f, kHighestHighShelf)) {
    return SE_STREAM_BAD_SHELF;
  }
  for (const PeakBand& peak : engine.peak) {
    if (!peak_fits(peak)) return SE_STREAM_BAD_PEAK;
  }
  return SE_STREAM_OK;
}

const char* se_stream_preset_name(int32_t index) {
  for (const Preset* preset = kPresets; preset->name != nullptr; ++preset) {
    if (index-- == 0) return preset->name;
  }
  return nullptr;
}

const char* se_stream_preset_description(int32_t index) {
  for (const Preset* preset = kPresets; preset->name != nullptr; ++preset) {
    if (index-- == 0) return preset->description;
  }
  return nullptr;
}

int32_t se_stream_get_preset(const char* name, SEStreamSettings* settings) {
  for (const Preset* preset = kPresets; preset->name != nullptr; ++preset) {
    if (std::strcmp(preset->name, name) != 0) continue;
    *settings = preset->settings;
    return SE_STREAM_OK;
  }
  return SE_STREAM_NO_PRESET;
}
