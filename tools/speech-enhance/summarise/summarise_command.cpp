#include "summarise/summarise_command.h"

#include <nlohmann/json.hpp>

#include "batch/results.h"
#include "command_line.h"
#include "console.h"
#include "errors.h"
#include "files.h"
#include "pending_file.h"
#include "signals.h"
#include "summarise/report_page.h"
#include "summarise/summary.h"

namespace se_tool {
namespace {

constexpr const char* kDescription =
    "Tells what came of speech-enhance batch: counts, failures by reason, the\n"
    "strangest recordings, distributions. RESULTS are its results manifests or\n"
    "folders that hold them.";

constexpr const char* kFooter = R"(Examples:
  speech-enhance summarise cleaned/ --html report.html
  speech-enhance summarise cleaned/results-*.jsonl --json - | jq .failures

The page is one file that needs nothing beside it, for a browser or a mail. With
neither --html nor --json the figures go to standard output as JSON.)";

std::vector<std::string> results_of(const std::string& folder) {
  const std::vector<std::string> files = results_in(folder);
  if (files.empty()) {
    throw Error(ExitCode::kInput, folder + ": holds no results of speech-enhance batch");
  }
  return files;
}

void write_output(const std::string& target, const std::string& text) {
  PendingFile file(target);
  file.write(text);
  file.sync();
  file.commit();
}

}  // namespace

int run_summarise(int argc, const char* const* argv) {
  std::vector<std::string> inputs;
  std::string html;
  std::string json;
  std::string title = "Results of speech-enhance batch";
  std::size_t sample = 6;
  double excerpt_s = 8;
  CLI::App app(kDescription, "speech-enhance summarise");
  prepare_command_line(app, "speech-enhance summarise RESULTS... [--html FILE] [--json FILE]");
  app.footer(kFooter);
  app.add_option("RESULTS", inputs, "Results manifests, or folders of them")->option_text(" ");
  app.add_option("--html", html, "Write the report as a page")->option_text("FILE");
  app.add_option("--json", json, "Write the figures as JSON")->option_text("FILE");
  app.add_option("--title", title, "Title of the page")->option_text("TEXT");
  app.add_option("--sample", sample,
                 "Recordings with players, beside the strangest\n"
                 "(default 6)")
      ->option_text("N")
      ->check(CLI::Range(0, 200));
  app.add_option("--excerpt", excerpt_s, "Seconds that players play (default 8)")
      ->option_text("S")
      ->check(CLI::Range(1.0, 60.0));
  const std::string text = parse_command_line(app, argc, argv);
  if (!text.empty()) return print_text(text);
  if (inputs.empty()) usage_error("no results given (see --help)");
  watch_signals();
  claim_standard_output();
  if (html.empty() && json.empty()) json = kStream;
  const Summary summary = summarise_results(expand_folders(inputs, results_of), sample);
  if (!json.empty()) {
    write_output(
        unify_stream_names(json, Direction::kOut),
        summary_json(summary).dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
  }
  if (!html.empty()) {
    write_output(unify_stream_names(html, Direction::kOut), report_page(summary, title, excerpt_s));
  }
  return 0;
}

}  // namespace se_tool
