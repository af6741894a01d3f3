// Settings of a stream: their ranges and the presets.
#pragma once

#include "speechenhance/stream.h"

namespace se::stream {

struct Preset {
  const char* name;
  const char* description;
  SEStreamSettings settings;
};

struct OldPreset {
  const char* name;  // what the preset was called before
  const char* now;
};

// Generated from presets/*.json, "plain" first, a record of null pointers last.
extern const Preset kPresets[];
extern const Preset& kDefaultPreset;
extern const OldPreset kOldPresets[];

// By how much the limiter delays what it limits, samples.
constexpr int kLimiterDelay = 16;

}  // namespace se::stream
