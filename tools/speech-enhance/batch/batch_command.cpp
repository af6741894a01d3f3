#include "batch/batch_command.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "batch/batch_job.h"
#include "batch/batch_options.h"
#include "batch/batch_progress.h"
#include "batch/from_folder.h"
#include "batch/results.h"
#include "batch/survey.h"
#include "batch/worker_pool.h"
#include "console.h"
#include "errors.h"
#include "files.h"
#include "signals.h"

namespace se_tool {
namespace {

using Json = nlohmann::ordered_json;

// A failure that stays as long as the recording is what it is; others (a full disk, no memory) go
// away by themselves.
bool is_lasting(int code) {
  return code == static_cast<int>(ExitCode::kInput);
}

// One run over one shard.
class BatchRun {
 public:
  explicit BatchRun(const BatchOptions& options)
      : options_(options),
        manifest_(options.manifest),
        jobs_(options, manifest_.folder()),
        pool_(
            options.jobs, [this](const std::string& job) { return pack(jobs_.perform(job)); },
            [this](const std::string& job) { jobs_.announce(job); }),
        results_(options.results),
        survey_(survey_manifest(manifest_, jobs_, options.shard)),
        progress_(survey_.shards.lines(), survey_.shards.duration_s(), options.report_s,
                  options.quiet) {
    if (options.overwrite) results_.clear();
    if (options.skip_existing) {
      find_finished();
    } else if (!results_.is_empty()) {
      throw Error(ExitCode::kUsage, options.results +
                                        ": there are results already; --skip-existing goes on from "
                                        "them, --overwrite begins anew");
    }
  }

  // Returns the exit code.
  int run() {
    manifest_.rewind();
    WorkerPool::Parent parent;
    parent.next = [this] { return next_job(); };
    parent.done = [this](const std::string& reply) { take(unpack_reply(reply)); };
    parent.died = [this](const std::string& job, int signal) {
      take(BatchJobs::death(job, signal));
    };
    parent.idle = [this] { progress_.update(counts_); };
    pool_.run(parent);
    progress_.clear();
    if (pending_signal() == 0) results_.tidy();
    print_summary();
    if (pending_signal() != 0) return static_cast<int>(ExitCode::kSignal) + pending_signal();
    return code_;
  }

 private:
  void find_finished() {
    std::vector<std::string> files = results_in(options_.out_folder);
    if (std::find(files.begin(), files.end(), options_.results) == files.end()) {
      files.push_back(options_.results);
    }
    for (const std::string& file : files) finished_.add_file(file, survey_.shards);
  }

  // Walks on to the next line that needs a worker.
  std::optional<std::string> next_job() {
    for (ManifestLine line; pending_signal() == 0 && manifest_.next(line);) {
      const Json fields = Json::parse(line.fields);
      if (!survey_.shards.contains(shard_hash(fields))) continue;
      std::optional<std::string> job = plan(line, fields);
      if (job) return job;
    }
    return std::nullopt;
  }

  // The job that a line makes; none for what an earlier run found unusable or makes no sense.
  std::optional<std::string> plan(const ManifestLine& line, const Json& fields) {
    try {
      if (!line.error.empty()) throw Error(ExitCode::kInput, line.error);
      const Entry entry = jobs_.parse(fields);
      refuse_if_taken(line, entry);
      const std::string id = jobs_.id_of(fields, entry);
      const Finished* finished = finished_.find(id);
      if (finished == nullptr) return BatchJobs::describe(fields, id, "");
      if (finished->sha256.empty() && is_lasting(finished->code) && !options_.retry_failed) {
        ++failed_earlier_;
        fail(finished->code);
        counts_.weight_s += entry.duration_s.value_or(survey_.shards.typical_s());
        return std::nullopt;
      }
      return BatchJobs::describe(fields, id, finished->sha256);
    } catch (const Error& error) {
      take(BatchJobs::refusal(line, error.what()));
      return std::nullopt;
    }
  }

  void refuse_if_taken(const ManifestLine& line, const Entry& entry) const {
    const auto repeated = survey_.repeated.find(line.number);
    if (repeated != survey_.repeated.end()) {
      throw Error(ExitCode::kInput, "its result would be written twice, line " +
                                        std::to_string(repeated->second) +
                                        " of the manifest has the same `out`");
    }
    if (survey_.inputs_among_results.count(place_hash(jobs_.target_of(entry))) != 0) {
      throw Error(ExitCode::kInput, "the result would replace a recording of the manifest");
    }
  }

  void fail(int code) {
    ++counts_.failed;
    code_ = std::max(code_, code);
  }

  void take(const JobReply& reply) {
    if (!reply.line.empty()) results_.add(reply.line);
    const double weight_s = reply.stated_s > 0 ? reply.stated_s : survey_.shards.typical_s();
    counts_.weight_s += weight_s;
    if (reply.status == JobReply::Status::kSkipped) {
      ++counts_.skipped;
    } else {
      counts_.worked_s += weight_s;
    }
    if (reply.status == JobReply::Status::kDone) ++counts_.done;
    if (reply.status == JobReply::Status::kFailed) fail(reply.code);
    counts_.audio_s += reply.audio_s;
  }

  void print_summary() const {
    const std::uint64_t left =
        survey_.shards.lines() - std::min(survey_.shards.lines(), counts_.lines());
    std::string text = std::to_string(survey_.shards.lines()) +
                       " recordings: " + std::to_string(counts_.done) + " cleaned";
    if (counts_.audio_s > 0) {
      text += " (" + format_duration(counts_.audio_s) + " in " +
              format_duration(progress_.elapsed_s()) + ")";
    }
    if (counts_.skipped > 0) text += ", " + std::to_string(counts_.skipped) + " there already";
    if (counts_.failed > 0) {
      text += ", " + std::to_string(counts_.failed) + " failed";
      if (failed_earlier_ > 0) {
        text += " (" + std::to_string(failed_earlier_) +
                " of them earlier, --retry-failed tries them again)";
      }
    }
    if (left > 0) text += ", " + std::to_string(left) + " left to do";
    print_line(text + ": " + options_.results);
  }

  const BatchOptions& options_;
  ManifestReader manifest_;
  BatchJobs jobs_;
  WorkerPool pool_;  // before what its processes need not carry
  ResultsFile results_;
  Survey survey_;
  BatchProgress progress_;
  FinishedJobs finished_;
  BatchCounts counts_;
  std::uint64_t failed_earlier_ = 0;
  int code_ = 0;
};

}  // namespace

int run_batch(int argc, const char* const* argv) {
  const BatchOptions options = parse_batch_options(argc, argv);
  if (!options.text_to_print.empty()) return print_text(options.text_to_print);
  watch_signals();
  claim_standard_output();
  if (!options.from_folder.empty()) {
    const std::size_t left_out = write_manifest(options.from_folder, options.manifest);
    return static_cast<int>(left_out == 0 ? ExitCode::kDone : ExitCode::kInput);
  }
  return BatchRun(options).run();
}

}  // namespace se_tool
