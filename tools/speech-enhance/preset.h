// Presets: settings under a name, built in or in a JSON file.
//
//   {
//     "description": "What it is for",
//     "mode": "denoise" | "mix" | "suppress",
//     "residual_db": 30,
//     "ns_residual_db": 40,
//     "limiter": {"ceiling": 0.9, "gain_db": 0},
//     "low_shelf": {"freq_hz": 300, "atten_db": 12},
//     "high_shelf": {"freq_hz": 6000, "atten_db": 6},
//     "peaks": [{"center_hz": 3000, "gain_db": 3, "q": 2}]
//   }
//
// Every key may be left out; what is left out is off or as in Settings. Unknown keys, keys that
// stand twice in one object, values of another type, values out of range, more than 16 levels of
// nesting and texts longer than 1 MB are errors (usage) of one line.
#pragma once

#include <string>
#include <vector>

#include "settings.h"

namespace se_tool {

struct BuiltInPreset {
  const char* name;
  const char* json;
};

// In the order in which they are listed.
const std::vector<BuiltInPreset>& built_in_presets();

// The one that holds where none is asked for.
extern const char* const kDefaultPreset;

// The name that a preset has today, where `name` is what it was called before; else `name`.
std::string current_preset_name(const std::string& name);

// Settings of the built-in preset, under its name or an older one, or, if the argument contains a
// '/' or a '.', of the file.
Settings load_preset(const std::string& name_or_path);

// `source` names the text in errors.
Settings parse_preset(const std::string& json, const std::string& source);

std::string preset_description(const BuiltInPreset& preset);

// Settings as the text of a preset file.
std::string format_preset(const Settings& settings);

}  // namespace se_tool
