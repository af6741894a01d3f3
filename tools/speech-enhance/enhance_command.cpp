#include "enhance_command.h"

#include <unistd.h>

#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "console.h"
#include "enhance.h"
#include "errors.h"
#include "files.h"
#include "options.h"
#include "process_pool.h"
#include "progress.h"
#include "signals.h"
#include "tasks.h"

namespace se_tool {
namespace {

// Statistics on their way from a process to its parent.
static_assert(std::is_trivially_copyable_v<Statistics>);

std::string pack(const Statistics& statistics) {
  return {reinterpret_cast<const char*>(&statistics), sizeof statistics};
}

Statistics unpack(const std::string& bytes) {
  Statistics statistics;
  std::memcpy(&statistics, bytes.data(), sizeof statistics);
  return statistics;
}

Statistics enhance_reporting(const Task& task, const ReportFraction& report) {
  return enhance(task, [&](std::uint64_t done, std::uint64_t total) {
    report(static_cast<double>(done) / static_cast<double>(total));
  });
}

std::vector<Outcome> run(const std::vector<Task>& tasks, const Options& options) {
  if (tasks.size() == 1) {
    const Task& task = tasks.front();
    ProgressLine line(task.mic, options.quiet);
    return {{0, pack(enhance_reporting(task, [&](double part) { line.update(part); }))}};
  }
  ProgressLine line(std::to_string(tasks.size()) + " recordings", options.quiet);
  const Work work = [&](std::size_t index, const ReportFraction& report) {
    return pack(enhance_reporting(tasks[index], report));
  };
  std::vector<std::string> names;
  for (const Task& task : tasks) names.push_back(task.mic);
  return run_in_processes(names, options.jobs, work, [&](double part) { line.update(part); });
}

void print_statistics(const Task& task, const Statistics& statistics, const Options& options) {
  const bool stream_taken = task.output == kStream || task.plot == kStream;
  const int target = stream_taken ? STDERR_FILENO : standard_output();
  if (options.statistics == StatisticsFormat::kText) {
    write_all(target, format_text(task.mic, statistics), "statistics");
  } else if (options.statistics == StatisticsFormat::kJson) {
    write_all(target, format_json(task.mic, statistics), "statistics");
  }
}

void warn_of_excessive(const std::string& file, std::uint64_t samples) {
  if (samples == 0) return;
  print_line(file + ": warning: " + std::to_string(samples) +
             " samples lie beyond 16 times full scale and were taken as that; floats should be "
             "scaled to +-1");
}

void print_warnings(const Task& task, const Statistics& statistics) {
  warn_of_excessive(task.mic, statistics.excessive_mic_samples);
  warn_of_excessive(task.ref, statistics.excessive_ref_samples);
  if (statistics.missing_bytes > 0) {
    print_line(task.mic + ": warning: lacks the last " + std::to_string(statistics.missing_bytes) +
               " bytes that it announces; what is there has been enhanced");
  }
  if (statistics.clipped_samples > 0) {
    print_line(task.mic + ": warning: " + std::to_string(statistics.clipped_samples) +
               " samples of the output clip; --limiter or --float prevents that");
  }
}

// Returns the exit code: that of the first recording that failed.
int report(const std::vector<Task>& tasks, const std::vector<Outcome>& outcomes,
           const Options& options) {
  int code = 0;
  std::size_t interrupted = 0;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    if (outcomes[i].code != 0) {
      if (outcomes[i].code > static_cast<int>(ExitCode::kSignal)) {
        ++interrupted;
      } else {
        print_line(outcomes[i].text);
      }
      code = code != 0 ? code : outcomes[i].code;
      continue;
    }
    const Statistics statistics = unpack(outcomes[i].text);
    print_statistics(tasks[i], statistics, options);
    print_warnings(tasks[i], statistics);
  }
  if (interrupted > 0) {
    print_line("interrupted, " + std::to_string(interrupted) + " of " +
               std::to_string(tasks.size()) + " recordings not enhanced");
  }
  return code;
}

}  // namespace

int run_enhance(int argc, const char* const* argv) {
  const Options options = parse_options(argc, argv);
  if (!options.text_to_print.empty()) return print_text(options.text_to_print);
  watch_signals();
  claim_standard_output();
  const std::vector<Task> tasks = plan_tasks(options);
  return report(tasks, run(tasks, options), options);
}

}  // namespace se_tool
