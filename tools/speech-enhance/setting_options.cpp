#include "setting_options.h"

#include <sstream>

#include "preset.h"

namespace se_tool {
namespace {

// The fields of HZ:DB or HZ:DB:Q.
std::vector<std::string> split(const std::string& text, std::size_t fields,
                               const std::string& option, const char* form) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ':');
  for (std::string part; std::getline(stream, part, ':');) parts.push_back(part);
  if (parts.size() != fields) usage_error(option + ": \"" + text + "\" is not of the form " + form);
  return parts;
}

std::optional<Shelf> parse_shelf(const std::string& text, const std::string& option) {
  if (text == "off") return std::nullopt;
  const std::vector<std::string> parts = split(text, 2, option, "HZ:DB");
  return Shelf{parse_number(parts[0], option), parse_number(parts[1], option)};
}

std::vector<Peak> parse_peaks(const std::vector<std::string>& texts) {
  if (texts.size() == 1 && texts.front() == "off") return {};
  std::vector<Peak> peaks;
  for (const std::string& text : texts) {
    const std::vector<std::string> parts = split(text, 3, "--peak", "HZ:DB:Q");
    peaks.push_back({parse_whole_number(parts[0], "--peak"), parse_number(parts[1], "--peak"),
                     parse_whole_number(parts[2], "--peak")});
  }
  return peaks;
}

}  // namespace

void add_setting_options(CLI::App& app, SettingOptions& given) {
  const char* group = "What to do with the sound";
  const auto add = [&](const char* names, auto& value, const char* form, const char* help) {
    return app.add_option(names, value, help)->option_text(form)->group(group);
  };
  add("-p,--preset", given.preset, "NAME|FILE",
      "Built-in preset or preset file (JSON); the options\n"
      "below override it (default: recording; plain has\n"
      "everything off; see --list-presets)");
  add("--mode", given.mode, "MODE",
      "denoise: the denoised signal alone\n"
      "mix: with some of the unprocessed signal\n"
      "suppress: that mix, then the classical suppressor");
  add("--residual", given.residual_db, "DB",
      "Attenuation of the unprocessed signal in --mode mix\n"
      "(default 30; see below)");
  add("--ns-residual", given.ns_residual_db, "DB", "The same in --mode suppress (default 40)");
  app.add_flag("--limiter,!--no-limiter", given.limiter, "Limit the peaks of the output")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->group(group);
  add("--limiter-ceiling", given.limiter_ceiling, "LINEAR",
      "Limit to this fraction of full scale (default: the\n"
      "preset's; 0.9 if that has none)");
  add("--limiter-gain", given.limiter_gain_db, "DB", "Amplify by this much, then limit");
  add("--low-shelf", given.low_shelf, "HZ:DB", "Attenuate below HZ by DB (or: off)");
  add("--high-shelf", given.high_shelf, "HZ:DB", "Attenuate above HZ by DB (or: off)");
  add("--peak", given.peaks, "HZ:DB:Q",
      "Change the level around HZ by DB, in a band HZ / Q\n"
      "wide; up to ten times (or: off)")
      ->allow_extra_args(false);
}

Settings resolve_settings(const SettingOptions& given) {
  Settings settings = load_preset(given.preset.empty() ? kDefaultPreset : given.preset);
  if (!given.mode.empty()) {
    const std::optional<Mode> mode = find_mode(given.mode);
    if (!mode) usage_error("--mode: \"" + given.mode + "\" is not denoise, mix or suppress");
    settings.mode = *mode;
  }
  if (given.residual_db) {
    if (settings.mode != Mode::kMix) usage_error("--residual needs --mode mix");
    settings.residual_db = *given.residual_db;
  }
  if (given.ns_residual_db) {
    if (settings.mode != Mode::kSuppress) usage_error("--ns-residual needs --mode suppress");
    settings.ns_residual_db = *given.ns_residual_db;
  }
  const bool tunes_limiter = given.limiter_ceiling || given.limiter_gain_db;
  if (given.limiter < 0) {
    if (tunes_limiter) usage_error("--no-limiter contradicts the limiter's other options");
    settings.limiter.reset();
  } else if (given.limiter > 0 || tunes_limiter) {
    Limiter limiter = settings.limiter.value_or(Limiter{});
    limiter.ceiling = given.limiter_ceiling.value_or(limiter.ceiling);
    limiter.gain_db = given.limiter_gain_db.value_or(limiter.gain_db);
    settings.limiter = limiter;
  }
  if (given.low_shelf) settings.low_shelf = parse_shelf(*given.low_shelf, "--low-shelf");
  if (given.high_shelf) settings.high_shelf = parse_shelf(*given.high_shelf, "--high-shelf");
  if (!given.peaks.empty()) settings.peaks = parse_peaks(given.peaks);
  check_settings(settings);
  return settings;
}

}  // namespace se_tool
