#include "batch/batch_options.h"

#include <filesystem>

#include "command_line.h"
#include "files.h"
#include "setting_options.h"

namespace se_tool {
namespace {

constexpr const char* kDescription =
    "Cleans the recordings of a manifest, in parts on as many machines as there are,\n"
    "and says of each how it went. Stop it at any time and start it again.";

constexpr const char* kFooter = R"(Manifests:
  JSON lines, an object per recording, or TSV, whose first line names the
  columns; "-" is standard input. The fields:
    path       the recording; relative ones start at the manifest's folder
    reference  what the loudspeaker played
    offset     seconds into the recording at which the part to clean begins
    duration   seconds of that part; it also balances the shards
    out        where the result goes in FOLDER, with or without a suffix
               (default: the path)
  All others are handed on to the results. An `out` that would leave FOLDER is
  refused, and so is one that would replace a recording of the manifest.

Results:
  FOLDER/results.jsonl, or results-I-of-N.jsonl of a shard: a JSON object per
  recording with the manifest's fields, `id`, the figures of --stats=json, the
  `sha256` of the result, `version` and `settings`, or the `error`. A recording
  that fails does not stop the others. speech-enhance summarise makes a report.

Shards:
  I/N is one of 1/N to N/N. Which recordings belong to it depends on their
  paths, their durations and N alone. In a Slurm array the default is the task.

Examples:
  speech-enhance batch --from-folder corpus/ corpus.jsonl
  speech-enhance batch corpus.jsonl --out cleaned/ --format flac --preset recognition
  speech-enhance batch corpus.jsonl --out cleaned/ --skip-existing
  sbatch --array=1-100 speech-enhance.sbatch corpus.jsonl cleaned/

Exit codes:
  0 all is done   2 wrong options   3 some recordings cannot be used
  4 some results cannot be written   5 out of memory or processes
  130, 143 interrupted)";

std::string default_results(const BatchOptions& options) {
  const std::string count = std::to_string(options.shard.count);
  std::string index = std::to_string(options.shard.index + 1);
  index.insert(0, count.size() - index.size(), '0');
  const bool whole = options.shard.count == 1;
  const std::string name = "results" + (whole ? "" : "-" + index + "-of-" + count) + ".jsonl";
  return (std::filesystem::path(options.out_folder) / name).string();
}

SoundFormat parse_format(const std::string& name, bool as_float) {
  if (name == "flac") {
    if (as_float) usage_error("--float: FLAC stores whole numbers, use --format wav");
    return SoundFormat::kFlac;
  }
  if (!name.empty() && name != "wav") {
    usage_error("--format: \"" + name + "\" is neither wav nor flac");
  }
  return as_float ? SoundFormat::kWavFloat : SoundFormat::kWav16;
}

}  // namespace

BatchOptions parse_batch_options(int argc, const char* const* argv) {
  BatchOptions options;
  SettingOptions given;
  std::string format;
  std::string shard;
  bool as_float = false;

  CLI::App app(kDescription, "speech-enhance batch");
  prepare_command_line(app,
                       "speech-enhance batch MANIFEST --out FOLDER [options]\n"
                       "       speech-enhance batch --from-folder FOLDER MANIFEST");
  app.footer(kFooter);
  app.add_option("MANIFEST", options.manifest, "The recordings, or -")->option_text(" ");
  app.add_option("-o,--out", options.out_folder, "Where the results go; made if it is not there")
      ->option_text("FOLDER");
  app.add_option("--from-folder", options.from_folder,
                 "Write MANIFEST: the recordings in FOLDER and below")
      ->option_text("FOLDER");
  app.add_option("--format", format, "wav (default) or flac")->option_text("FORMAT");
  app.add_flag("--float", as_float, "Store 32-bit float samples");
  app.add_option("--results", options.results, "The results manifest (default: see below)")
      ->option_text("FILE");
  app.add_option("--shard", shard, "Do part I of N of the manifest")->option_text("I/N");
  app.add_flag("--skip-existing", options.skip_existing,
               "Go on where an earlier run stopped: leave out what\n"
               "it finished, if the results hold its checksum, and\n"
               "recordings that it found unusable");
  app.add_flag("--retry-failed", options.retry_failed, "The same, but try what failed again");
  app.add_flag("--overwrite", options.overwrite, "Begin anew where there are results already");
  add_jobs_option(app, options.jobs);
  app.add_option("--report-every", options.report_s,
                 "Seconds between lines of progress (default 60);\n"
                 "a terminal shows it all the time")
      ->option_text("S")
      ->check(CLI::Range(0.1, 86400.0));
  app.add_flag("-q,--quiet", options.quiet, "Show no progress; the summary and errors remain");
  add_setting_options(app, given);

  options.text_to_print = parse_command_line(app, argc, argv);
  if (!options.text_to_print.empty()) return options;
  if (options.manifest.empty()) usage_error("no manifest given (see --help)");
  if (!options.from_folder.empty()) {
    if (!options.out_folder.empty())
      usage_error("--from-folder writes a manifest and nothing else");
    options.manifest = unify_stream_names(options.manifest, Direction::kOut);
    return options;
  }
  if (options.out_folder.empty()) usage_error("no output folder given: --out FOLDER (see --help)");
  if (options.overwrite && (options.skip_existing || options.retry_failed)) {
    usage_error("--overwrite contradicts --skip-existing and --retry-failed");
  }
  options.skip_existing = options.skip_existing || options.retry_failed;
  options.manifest = unify_stream_names(options.manifest, Direction::kIn);
  options.format = parse_format(format, as_float);
  options.shard = shard.empty() ? shard_from_environment() : parse_shard(shard);
  options.settings = resolve_settings(given);
  if (options.results.empty()) options.results = default_results(options);
  return options;
}

}  // namespace se_tool
