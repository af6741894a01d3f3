// The ranges in which settings do what their names say. The engine takes any value; the tool and
// the streaming library refuse what lies outside.
#pragma once

#include "common/geometry.h"

namespace se {

template <class T>
struct SettingRange {
  T low, high;

  // False for what is not a number.
  template <class Value>
  constexpr bool holds(Value value) const {
    return value >= low && value <= high;
  }
};

inline constexpr SettingRange<int> kResidualRange = {0, 120};           // dB
inline constexpr SettingRange<int> kNsResidualRange = {10, 130};        // dB
inline constexpr SettingRange<float> kCeilingRange = {0.01f, 1.0f};     // full scale 1
inline constexpr SettingRange<float> kMakeUpRange = {0.0f, 60.0f};      // dB
inline constexpr SettingRange<float> kShelfRange = {0.0f, 120.0f};      // dB of attenuation
inline constexpr SettingRange<float> kPeakGainRange = {-60.0f, 40.0f};  // dB

// The equaliser counts bins of 31 Hz, truncating, up to bin 256. It skips a low shelf at bin 8 or
// below and a high shelf at bin 249 or above.
inline constexpr int kEqualiserHzPerBin = 31;
inline constexpr SettingRange<float> kLowShelfHz = {9 * kEqualiserHzPerBin, 8000.0f};
inline constexpr SettingRange<float> kHighShelfHz = {0.0f, 249 * kEqualiserHzPerBin - 1};
inline constexpr SettingRange<int> kPeakHz = {kEqualiserHzPerBin, kNumBins* kEqualiserHzPerBin - 1};

// A peak is a bin wide or wider.
constexpr int sharpest_peak(int center_hz) {
  return center_hz / kEqualiserHzPerBin;
}

}  // namespace se
