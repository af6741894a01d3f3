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

}  // namespace se::stream
