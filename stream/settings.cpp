#include "stream/settings.h"

#include <cstring>

#include "engine/setting_ranges.h"

namespace se::stream {
namespace {

bool shelf_fits(const ShelfBand& shelf, const SettingRange<float>& hz) {
  return shelf.enable == 0 || (hz.holds(shelf.freq_hz) && kShelfRange.holds(shelf.atten_db));
}

bool peak_fits(const PeakBand& peak) {
  return peak.q == 0 || (kPeakHz.holds(peak.center_hz) && kPeakGainRange.holds(peak.gain_db) &&
                         peak.q >= 1 && peak.q <= sharpest_peak(peak.center_hz));
}

bool limiter_fits(const NnProcessConfig& engine) {
  return engine.limiter_enable == 0 || (kCeilingRange.holds(engine.limiter_max_gain) &&
                                        kMakeUpRange.holds(engine.limiter_level_db));
}

}  // namespace
}  // namespace se::stream

using namespace se;
using namespace se::stream;

int32_t se_stream_check_settings(const SEStreamSettings* settings) {
  const NnProcessConfig& engine = settings->engine;
  if (settings->mode < SE_STREAM_DENOISE || settings->mode > SE_STREAM_SUPPRESS) {
    return SE_STREAM_BAD_MODE;
  }
  if (!(settings->amount >= 0.0f && settings->amount <= 1.0f)) return SE_STREAM_BAD_AMOUNT;
  if (!kResidualRange.holds(engine.residual_db) || !kNsResidualRange.holds(engine.ns_residual_db)) {
    return SE_STREAM_BAD_RESIDUAL;
  }
  if (!limiter_fits(engine)) return SE_STREAM_BAD_LIMITER;
  if (!shelf_fits(engine.low_shelf, kLowShelfHz) || !shelf_fits(engine.high_shelf, kHighShelfHz)) {
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
  for (const OldPreset* old = kOldPresets; old->name != nullptr; ++old) {
    if (std::strcmp(old->name, name) == 0) name = old->now;
  }
  for (const Preset* preset = kPresets; preset->name != nullptr; ++preset) {
    if (std::strcmp(preset->name, name) != 0) continue;
    *settings = preset->settings;
    return SE_STREAM_OK;
  }
  return SE_STREAM_NO_PRESET;
}
