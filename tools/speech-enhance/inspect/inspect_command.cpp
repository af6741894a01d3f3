#include "inspect/inspect_command.h"

#include "command_line.h"
#include "console.h"
#include "files.h"
#include "inspect/inspect.h"
#include "progress.h"
#include "setting_options.h"
#include "signals.h"

namespace se_tool {
namespace {

constexpr const char* kDescription =
    "Writes what every stage of the engine makes of a recording, each as a sound\n"
    "aligned with MIC to the sample, the network's gains as a table and a picture,\n"
    "and one picture of all stages under each other. docs/debugging.md says which\n"
    "stage to look at for which complaint.";

constexpr const char* kFooter = R"(Files in FOLDER:
  1-microphone.wav      the microphone that is enhanced, as the engine gets it
  2-reference.wav       the loudspeaker's signal, where the echo canceller gets it
  3-echo-reduced.wav    the microphone behind the echo canceller
  4-band-gains.csv      the network's 128 gains, a line per 10 ms, and whether
  4-band-gains.png      the far end was active
  5-denoised.wav        the voice after these gains
  6-noise-estimate.wav  what the classical suppressor takes for noise
  7-suppressed.wav      the voice after the suppressor; where --mode leaves it
                        out, it runs beside, as in --mode suppress
  8-equalised.wav       the chosen mode's sound after the equaliser
  9-limited.wav         and after the limiter: the output
  stages.png            all of it on one axis of time
  Sounds are 32-bit float WAV files of 16 kHz, so that nothing clips.

Example:
  speech-enhance inspect call.wav --ref loudspeaker.wav -o call-stages --preset call)";

}  // namespace

int run_inspect(int argc, const char* const* argv) {
  Task task;
  SettingOptions given;
  std::string delay;
  bool quiet = false;
  CLI::App app(kDescription, "speech-enhance inspect");
  prepare_command_line(app, "speech-enhance inspect MIC [--ref REF] -o FOLDER [options]");
  app.footer(kFooter);
  app.add_option("MIC", task.mic, "The recording, or -")->option_text(" ")->required();
  app.add_option("-r,--ref", task.ref, "What the loudspeaker played")->option_text("REF");
  add_delay_option(app, delay);
  app.add_option("-o,--output", task.output, "Where the files go; made if it is not there")
      ->option_text("FOLDER")
      ->required();
  app.add_flag("-q,--quiet", quiet, "Show no progress; warnings and errors remain");
  add_setting_options(app, given);
  const std::string text = parse_command_line(app, argc, argv);
  if (!text.empty()) return print_text(text);
  task.mic = unify_stream_names(task.mic, Direction::kIn);
  task.ref = unify_stream_names(task.ref, Direction::kIn);
  task.delay_ms = parse_delay(delay);
  task.settings = resolve_settings(given);
  watch_signals();
  claim_standard_output();
  ProgressLine line(task.mic, quiet);
  inspect(task, [&](std::uint64_t done, std::uint64_t total) {
    line.update(static_cast<double>(done) / static_cast<double>(total));
  });
  return 0;
}

}  // namespace se_tool
