#include "options.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <optional>
#include <sstream>
#include <thread>

#include "errors.h"
#include "files.h"
#include "preset.h"

namespace se_tool {
namespace {

constexpr const char* kDescription =
    "Cleans recordings of speech: removes noise and, given what the loudspeaker\n"
    "played, its echo. MIC is a recording of one microphone, or of two as a stereo\n"
    "file, whose second channel is the one that is enhanced and the first a second\n"
    "view of the same talker. OUT becomes a mono WAV file of 16 kHz, aligned with\n"
    "MIC to the sample and as long.";

constexpr const char* kFooter = R"(Files:
  Any format and rate that libsndfile reads. The reference is mono and has the
  rate and the length of MIC. "-" is standard input or standard output; it and
  pipes are read to their end before the work begins. Several recordings, or a
  folder of them, go into the folder OUT, each under its name; --ref and --plot
  are folders then. An output appears whole or not at all, and never replaces
  an input; its suffix is .wav, that of a plot .png, if it has one.

Levels of the mix:
  The engine's make-up gain adds 9.5 dB to what is mixed in: --residual 30 puts
  the unprocessed signal 20.5 dB below the microphone's level. --ns-residual
  counts from 10 dB: 40 does the same ahead of the classical suppressor.

Examples:
  speech-enhance noisy.wav -o clean.wav
  speech-enhance call.flac --ref loudspeaker.flac -o clean.wav --preset call
  speech-enhance noisy.wav -o clean.wav --stats --plot before-after.png
  speech-enhance recordings/ -o cleaned/ --preset voice --jobs 4
  sox talk.mp3 -t wav - | speech-enhance - -o - | play -
  speech-enhance noisy.wav -o clean.wav --mode mix --residual 25 --peak 3000:3:2
  speech-enhance --preset voice --limiter-gain 6 --print-preset > louder.json

Exit codes:
  0 done   2 wrong options or presets   3 an input that cannot be used
  4 an output that cannot be written   5 out of memory or processes
  130, 143 interrupted   (of several recordings, the code of the first failure))";

[[noreturn]] void fail(const std::string& line) {
  throw Error(ExitCode::kUsage, line);
}

double parse_number(const std::string& text, const std::string& option) {
  double value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) fail(option + ": \"" + text + "\" is not a number");
  return value;
}

int parse_whole_number(const std::string& text, const std::string& option) {
  int value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end)
    fail(option + ": \"" + text + "\" is not a whole number");
  return value;
}

// The fields of HZ:DB or HZ:DB:Q.
std::vector<std::string> split(const std::string& text, std::size_t fields,
                               const std::string& option, const char* form) {
  std::vector<std::string> parts;
  std::istringstream stream(text + ':');
  for (std::string part; std::getline(stream, part, ':');) parts.push_back(part);
  if (parts.size() != fields) fail(option + ": \"" + text + "\" is not of the form " + form);
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

void add_setting_options(CLI::App& app, SettingOptions& given) {
  const char* group = "What to do with the sound";
  app.add_option("-p,--preset", given.preset,
                 "Built-in preset or preset file (JSON); the options\n"
                 "below override it")
      ->option_text("NAME|FILE")
      ->group(group);
  app.add_option("--mode", given.mode,
                 "denoise: the denoised signal alone (default)\n"
                 "mix: with some of the unprocessed signal\n"
                 "suppress: that mix, then the classical suppressor")
      ->option_text("MODE")
      ->group(group);
  app.add_option("--residual", given.residual_db,
                 "Attenuation of the unprocessed signal in --mode mix\n"
                 "(default 30; see below)")
      ->option_text("DB")
      ->group(group);
  app.add_option("--ns-residual", given.ns_residual_db, "The same in --mode suppress (default 40)")
      ->option_text("DB")
      ->group(group);
  app.add_flag("--limiter,!--no-limiter", given.limiter, "Limit the peaks of the output")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->group(group);
  app.add_option("--limiter-ceiling", given.limiter_ceiling,
                 "Limit to this fraction of full scale (default 0.9)")
      ->option_text("LINEAR")
      ->group(group);
  app.add_option("--limiter-gain", given.limiter_gain_db, "Amplify by this much, then limit")
      ->option_text("DB")
      ->group(group);
  app.add_option("--low-shelf", given.low_shelf, "Attenuate below HZ by DB (or: off)")
      ->option_text("HZ:DB")
      ->group(group);
  app.add_option("--high-shelf", given.high_shelf, "Attenuate above HZ by DB (or: off)")
      ->option_text("HZ:DB")
      ->group(group);
  app.add_option("--peak", given.peaks,
                 "Change the level around HZ by DB, in a band HZ / Q\n"
                 "wide; up to ten times (or: off)")
      ->option_text("HZ:DB:Q")
      ->allow_extra_args(false)
      ->group(group);
}

Settings resolve(const SettingOptions& given) {
  Settings settings;
  if (!given.preset.empty()) settings = load_preset(given.preset);
  if (!given.mode.empty()) {
    const std::optional<Mode> mode = find_mode(given.mode);
    if (!mode) fail("--mode: \"" + given.mode + "\" is not denoise, mix or suppress");
    settings.mode = *mode;
  }
  if (given.residual_db) {
    if (settings.mode != Mode::kMix) fail("--residual needs --mode mix");
    settings.residual_db = *given.residual_db;
  }
  if (given.ns_residual_db) {
    if (settings.mode != Mode::kSuppress) fail("--ns-residual needs --mode suppress");
    settings.ns_residual_db = *given.ns_residual_db;
  }
  const bool tunes_limiter = given.limiter_ceiling || given.limiter_gain_db;
  if (given.limiter < 0) {
    if (tunes_limiter) fail("--no-limiter contradicts the limiter's other options");
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

// CLI11's help without its own account of types, checks and defaults: the descriptions have them.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(25); }

  std::string make_usage(const CLI::App*, std::string) const override {
    return "\nUsage: speech-enhance MIC... [--ref REF] -o OUT [options]\n";
  }
  std::string make_option_name(const CLI::Option* option, bool is_positional) const override {
    std::string name = option->get_name(is_positional, !is_positional);
    name.erase(std::remove(name.begin(), name.end(), '!'), name.end());
    return name.substr(0, name.find('{'));
  }
  std::string make_option_opts(const CLI::Option* option) const override {
    const std::string& value = option->get_option_text();
    return value.empty() ? "" : " " + value;
  }
};

// The library's version without its build.
std::string version() {
  const std::string text = se_get_version();
  return "speech-enhance " + text.substr(0, text.find('-'));
}

std::string list_presets() {
  std::string text;
  for (const BuiltInPreset& preset : built_in_presets()) {
    std::string name = preset.name;
    name.resize(std::max<std::size_t>(name.size() + 1, 10), ' ');
    text += name + preset_description(preset) + "\n";
  }
  return text;
}

// An empty text is a variable that was never set: taken as "not given", it would change the result
// without a word.
void refuse_empty_texts(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& text : option->results()) {
      if (text.empty()) fail(option->get_name() + ": empty, leave it out or give it a value");
    }
  }
}

std::string first_line(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

Options parse_options(int argc, const char* const* argv) {
  Options options;
  SettingOptions given;
  std::string statistics;
  bool wants_list = false;
  bool wants_preset = false;
  unsigned jobs = 0;

  CLI::App app(kDescription, "speech-enhance");
  app.formatter(std::make_shared<HelpFormatter>());
  app.footer(kFooter);
  app.set_version_flag("--version", version());
  app.add_option("MIC", options.inputs, "Recordings, folders of them, or -")->option_text(" ");
  app.add_option("-o,--output", options.output, "The enhanced recording, a folder, or -")
      ->option_text("OUT");
  app.add_option("-r,--ref", options.ref, "What the loudspeaker played, to cancel its echo")
      ->option_text("REF");
  app.add_flag("--float", options.as_float,
               "Store 32-bit float samples, which do not clip,\n"
               "instead of 16-bit ones");
  app.add_flag("--stats{text}", statistics,
               "Print figures (--stats=json: as JSON, one line per\n"
               "recording), on standard error if OUT is -");
  app.add_option("--plot", options.plot, "Draw spectrograms and levels before and after")
      ->option_text("OUT.png");
  app.add_option("-j,--jobs", jobs,
                 "Recordings worked on at a time (default: as many\n"
                 "as there are processors)")
      ->option_text("N")
      ->check(CLI::Range(1, 1024));
  app.add_flag("-q,--quiet", options.quiet, "Show no progress; warnings and errors remain");
  app.add_flag("--list-presets", wants_list, "List the built-in presets");
  app.add_flag("--print-preset", wants_preset,
               "Print the settings that the other options make, as\n"
               "a preset file");
  add_setting_options(app, given);

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    options.text_to_print = app.help();
    return options;
  } catch (const CLI::CallForVersion& version) {
    options.text_to_print = std::string(version.what()) + "\n";
    return options;
  } catch (const CLI::ParseError& error) {
    fail(first_line(error.what()) + " (see --help)");
  }
  refuse_empty_texts(app);
  if (wants_list) {
    options.text_to_print = list_presets();
    return options;
  }
  options.settings = resolve(given);
  if (wants_preset) {
    options.text_to_print = format_preset(options.settings);
    return options;
  }
  if (statistics == "text") {
    options.statistics = StatisticsFormat::kText;
  } else if (statistics == "json") {
    options.statistics = StatisticsFormat::kJson;
  } else if (!statistics.empty()) {
    fail("--stats: \"" + statistics + "\" is neither text nor json");
  }
  for (std::string& input : options.inputs) input = unify_stream_names(input, Direction::kIn);
  options.ref = unify_stream_names(options.ref, Direction::kIn);
  options.output = unify_stream_names(options.output, Direction::kOut);
  options.plot = unify_stream_names(options.plot, Direction::kOut);
  if (options.inputs.empty()) fail("no recording given (see --help)");
  if (options.output.empty()) fail("no output given: -o OUT (see --help)");
  options.jobs = jobs != 0 ? jobs : std::max(1u, std::thread::hardware_concurrency());
  return options;
}

}  // namespace se_tool
