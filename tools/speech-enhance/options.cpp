#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

#include "command_line.h"
#include "commands.h"
#include "files.h"
#include "preset.h"
#include "setting_options.h"

namespace se_tool {
namespace {

constexpr const char* kDescription =
    "Cleans recordings of speech: removes noise and, given what the loudspeaker\n"
    "played, its echo. MIC is a recording of one microphone, or of two as a stereo\n"
    "file, whose second channel is the one that is enhanced and the first a second\n"
    "view of the same talker. OUT becomes a mono WAV file of 16 kHz, aligned with\n"
    "MIC to the sample and as long.";

constexpr const char* kCommandsRule =
    "A first argument of one of these names is the command; a recording of that\n"
    "name is ./NAME.\n\n";

constexpr const char* kFooter = R"(Files:
  Any format and rate that libsndfile reads. The reference is mono and has the
  rate and the length of MIC; where it was recorded with another start, --delay
  says by how much, or the tool finds it. "-" is standard input or standard output; it and
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
  speech-enhance recordings/ -o cleaned/ --jobs 4
  sox talk.mp3 -t wav - | speech-enhance - -o - | play -
  speech-enhance noisy.wav -o clean.wav --mode mix --residual 25 --peak 3000:3:2
  speech-enhance --preset recognition --limiter-gain 6 --print-preset > louder.json

Exit codes:
  0 done   2 wrong options or presets   3 an input that cannot be used
  4 an output that cannot be written   5 out of memory or processes
  130, 143 interrupted   (of several recordings, the code of the first failure))";

std::string list_presets() {
  std::string text;
  for (const BuiltInPreset& preset : built_in_presets()) {
    std::string name = preset.name;
    name.resize(std::max<std::size_t>(name.size() + 1, 10), ' ');
    text += name + preset_description(preset) + "\n";
  }
  return text;
}

}  // namespace

Options parse_options(int argc, const char* const* argv) {
  Options options;
  SettingOptions given;
  std::string statistics;
  bool wants_list = false;
  bool wants_preset = false;
  std::string max_input;
  std::string delay;

  CLI::App app(kDescription, "speech-enhance");
  prepare_command_line(app,
                       "speech-enhance MIC... [--ref REF] -o OUT [options]\n"
                       "       speech-enhance COMMAND [--help] ...");
  app.footer("Commands:\n" + list_commands() + kCommandsRule + kFooter);
  app.set_version_flag("--version", "speech-enhance " SE_VERSION);
  app.add_option("MIC", options.inputs, "Recordings, folders of them, or -")->option_text(" ");
  app.add_option("-o,--output", options.output, "The enhanced recording, a folder, or -")
      ->option_text("OUT");
  app.add_option("-r,--ref", options.ref, "What the loudspeaker played, to cancel its echo")
      ->option_text("REF");
  add_delay_option(app, delay);
  app.add_flag("--float", options.as_float,
               "Store 32-bit float samples, which do not clip,\n"
               "instead of 16-bit ones");
  app.add_flag("--stats{text}", statistics,
               "Print figures (--stats=json: as JSON, one line per\n"
               "recording), on standard error if OUT is -");
  app.add_option("--plot", options.plot, "Draw spectrograms and levels before and after")
      ->option_text("OUT.png");
  add_jobs_option(app, options.jobs);
  app.add_option("--max-input", max_input,
                 "Read no more than this from standard input, a pipe\n"
                 "or a device (default 16G; K, M, G: powers of 1024)")
      ->option_text("BYTES");
  app.add_flag("-q,--quiet", options.quiet, "Show no progress; warnings and errors remain");
  app.add_flag("--list-presets", wants_list, "List the built-in presets");
  app.add_flag("--print-preset", wants_preset,
               "Print the settings that the other options make, as\n"
               "a preset file");
  add_setting_options(app, given);

  options.text_to_print = parse_command_line(app, argc, argv);
  if (!options.text_to_print.empty()) return options;
  if (wants_list) {
    options.text_to_print = list_presets();
    return options;
  }
  options.settings = resolve_settings(given);
  if (wants_preset) {
    options.text_to_print = format_preset(options.settings);
    return options;
  }
  if (statistics == "text") {
    options.statistics = StatisticsFormat::kText;
  } else if (statistics == "json") {
    options.statistics = StatisticsFormat::kJson;
  } else if (!statistics.empty()) {
    usage_error("--stats: \"" + statistics + "\" is neither text nor json");
  }
  if (!max_input.empty()) options.max_input = parse_size(max_input, "--max-input");
  if (!delay.empty() && options.ref.empty()) usage_error("--delay needs --ref");
  options.delay_ms = parse_delay(delay);
  for (std::string& input : options.inputs) input = unify_stream_names(input, Direction::kIn);
  options.ref = unify_stream_names(options.ref, Direction::kIn);
  options.output = unify_stream_names(options.output, Direction::kOut);
  options.plot = unify_stream_names(options.plot, Direction::kOut);
  if (options.inputs.empty()) usage_error("no recording given (see --help)");
  if (options.output.empty()) usage_error("no output given: -o OUT (see --help)");
  return options;
}

}  // namespace se_tool
