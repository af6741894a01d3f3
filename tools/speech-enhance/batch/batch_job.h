// One recording of a batch: what was asked, what came of it.
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "batch/batch_options.h"
#include "batch/manifest.h"

namespace se_tool {

// What happened to a job, on its way from a worker to the parent.
struct JobReply {
  enum class Status : char { kDone = 'd', kSkipped = 's', kFailed = 'f' };

  Status status = Status::kDone;
  int code = 0;         // of the failure
  double audio_s = 0;   // that was cleaned
  double stated_s = 0;  // as the manifest has it; 0: it does not
  std::string line;     // for the results; empty for what was skipped
};

std::string pack(const JobReply& reply);
JobReply unpack_reply(const std::string& text);

class BatchJobs {
 public:
  // `manifest_folder` is where relative paths start. Creates the output folder. Throws an Error.
  BatchJobs(const BatchOptions& options, const std::string& manifest_folder);

  Entry parse(const nlohmann::ordered_json& fields) const;

  // Tells apart whatever makes results differ: recording, part, place, settings, format, version.
  std::string id_of(const nlohmann::ordered_json& fields, const Entry& entry) const;

  // A result's path.
  std::string target_of(const Entry& entry) const;

  // The text of a job; `sha256` is that of a finished result, or empty.
  static std::string describe(const nlohmann::ordered_json& fields, const std::string& id,
                              const std::string& sha256);

  // Does a described job. Throws an Error only if a signal asked to stop.
  JobReply perform(const std::string& job);

  // Lets the system read a job's recording ahead of time.
  void announce(const std::string& job) const;

  // Of a line that makes no job.
  static JobReply refusal(const ManifestLine& line, const std::string& error);

  // Of a job whose worker died while it worked on it.
  static JobReply death(const std::string& job, int signal);

 private:
  JobReply perform(const nlohmann::ordered_json& description, const Entry& entry);
  static JobReply failure(nlohmann::ordered_json fields, const std::string& id, int code,
                          const std::string& error, bool refused);
  void check_target(const Entry& entry);
  std::string explain(const Entry& entry, const std::string& error) const;

  SoundFormat format_;
  Settings settings_;
  std::string manifest_folder_;
  std::string out_folder_;     // canonical
  std::string settings_json_;  // with the format
  std::string known_folder_;   // lies in the output folder
};

}  // namespace se_tool
