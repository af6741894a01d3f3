#include "preset.h"

#include <cmath>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "strict_json.h"

namespace se_tool {
namespace {

using json = nlohmann::ordered_json;

// Far above any preset, far below what would take time or memory to read.
constexpr std::size_t kLongestText = 1 << 20;

[[noreturn]] void fail(const std::string& what) {
  throw Error(ExitCode::kUsage, what);
}

void check_keys(const json& object, const std::string& where,
                std::initializer_list<const char*> known) {
  if (!object.is_object()) fail(where + " must be an object in braces");
  for (const auto& [key, value] : object.items()) {
    bool found = false;
    for (const char* name : known) found = found || key == name;
    if (!found) fail("unknown key \"" + key + "\" in " + where);
  }
}

double number(const json& object, const std::string& where, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) fail(where + " lacks \"" + key + "\"");
  if (!found->is_number()) fail(std::string("\"") + key + "\" must be a number");
  return found->get<double>();
}

int whole_number(const json& object, const std::string& where, const char* key) {
  const double value = number(object, where, key);
  if (value != std::floor(value) || std::abs(value) > std::numeric_limits<int>::max()) {
    fail(std::string("\"") + key + "\" must be a whole number");
  }
  return static_cast<int>(value);
}

Mode parse_mode(const json& value) {
  const std::optional<Mode> mode =
      value.is_string() ? find_mode(value.get<std::string>()) : std::nullopt;
  if (!mode) fail("\"mode\" must be \"denoise\", \"mix\" or \"suppress\"");
  return *mode;
}

Shelf parse_shelf(const json& object, const std::string& where) {
  check_keys(object, where, {"freq_hz", "atten_db"});
  return {number(object, where, "freq_hz"), number(object, where, "atten_db")};
}

Limiter parse_limiter(const json& object) {
  const std::string where = "\"limiter\"";
  check_keys(object, where, {"ceiling", "gain_db"});
  return {number(object, where, "ceiling"), number(object, where, "gain_db")};
}

std::vector<Peak> parse_peaks(const json& list) {
  if (!list.is_array()) fail("\"peaks\" must be a list in brackets");
  std::vector<Peak> peaks;
  for (const json& object : list) {
    const std::string where = "a peak";
    check_keys(object, where, {"center_hz", "gain_db", "q"});
    peaks.push_back({whole_number(object, where, "center_hz"), number(object, where, "gain_db"),
                     whole_number(object, where, "q")});
  }
  return peaks;
}

Settings parse_settings(const json& root) {
  const std::string where = "the preset";
  check_keys(root, where,
             {"description", "mode", "residual_db", "ns_residual_db", "limiter", "low_shelf",
              "high_shelf", "peaks"});
  Settings settings;
  if (root.contains("description") && !root["description"].is_string()) {
    fail("\"description\" must be a text");
  }
  if (root.contains("mode")) settings.mode = parse_mode(root["mode"]);
  if (root.contains("residual_db")) {
    settings.residual_db = whole_number(root, where, "residual_db");
  }
  if (root.contains("ns_residual_db")) {
    settings.ns_residual_db = whole_number(root, where, "ns_residual_db");
  }
  if (root.contains("limiter")) settings.limiter = parse_limiter(root["limiter"]);
  if (root.contains("low_shelf")) {
    settings.low_shelf = parse_shelf(root["low_shelf"], "\"low_shelf\"");
  }
  if (root.contains("high_shelf")) {
    settings.high_shelf = parse_shelf(root["high_shelf"], "\"high_shelf\"");
  }
  if (root.contains("peaks")) settings.peaks = parse_peaks(root["peaks"]);
  check_settings(settings);
  return settings;
}

std::string built_in_names() {
  std::string names;
  for (const BuiltInPreset& preset : built_in_presets()) {
    names += (names.empty() ? "" : ", ") + std::string(preset.name);
  }
  return names;
}

Settings load_preset_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(kLongestText + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  if (text.empty()) {
    fail("preset " + path + ": cannot be read or is empty (built in: " + built_in_names() + ")");
  }
  return parse_preset(text, "preset " + path);
}

}  // namespace

Settings parse_preset(const std::string& text, const std::string& source) {
  try {
    if (text.size() > kLongestText) fail("longer than 1 MB, which no preset is");
    return parse_settings(parse_strictly(text));
  } catch (const Error& error) {
    fail(source + ": " + error.what());
  }
}

Settings load_preset(const std::string& name_or_path) {
  const std::string name = current_preset_name(name_or_path);
  for (const BuiltInPreset& preset : built_in_presets()) {
    if (name == preset.name) return parse_preset(preset.json, preset.name);
  }
  if (name_or_path.find_first_of("./") == std::string::npos) {
    fail("no preset is called \"" + name_or_path + "\": use one of " + built_in_names() +
         ", or a file such as ./" + name_or_path + ".json");
  }
  return load_preset_file(name_or_path);
}

std::string preset_description(const BuiltInPreset& preset) {
  return json::parse(preset.json).at("description").get<std::string>();
}

std::string format_preset(const Settings& settings) {
  const auto shelf = [](const Shelf& band) {
    return json{{"freq_hz", band.freq_hz}, {"atten_db", band.atten_db}};
  };
  json root;
  root["mode"] = mode_name(settings.mode);
  root["residual_db"] = settings.residual_db;
  root["ns_residual_db"] = settings.ns_residual_db;
  if (settings.limiter) {
    root["limiter"] = {{"ceiling", settings.limiter->ceiling},
                       {"gain_db", settings.limiter->gain_db}};
  }
  if (settings.low_shelf) root["low_shelf"] = shelf(*settings.low_shelf);
  if (settings.high_shelf) root["high_shelf"] = shelf(*settings.high_shelf);
  if (!settings.peaks.empty()) root["peaks"] = json::array();
  for (const Peak& peak : settings.peaks) {
    root["peaks"].push_back(
        {{"center_hz", peak.center_hz}, {"gain_db", peak.gain_db}, {"q", peak.q}});
  }
  return root.dump(2) + "\n";
}

}  // namespace se_tool
