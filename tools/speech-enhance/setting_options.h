// The options that set what to do with the sound.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "settings.h"

namespace se_tool {

// What the command line says about settings; what it does not say is the preset's.
struct SettingOptions {
  std::string preset;
  std::string mode;
  std::optional<int> residual_db;
  std::optional<int> ns_residual_db;
  int limiter = 0;  // 1 on, -1 off, 0 not given
  std::optional<double> limiter_ceiling;
  std::optional<double> limiter_gain_db;
  std::optional<std::string> low_shelf;
  std::optional<std::string> high_shelf;
  std::vector<std::string> peaks;
};

// `given` must outlive the parsing.
void add_setting_options(CLI::App& app, SettingOptions& given);

// The preset's settings with the other options over them. Throws an Error (usage).
Settings resolve_settings(const SettingOptions& given);

}  // namespace se_tool
