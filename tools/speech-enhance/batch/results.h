// The results manifest: JSON lines, one per recording, in any order. A line holds the input's
// fields and
//   id        what was asked for: recording, part, place, settings and version
//   out       where the result lies in the output folder
//   sha256    of the result, and the figures of statistics.h
//   error     instead of those: why there is no result, and `code`, the exit code it stands for
//   refused   true: the line of the manifest made no sense or its `out` belongs to another line
// Where several lines have one `out` and are not refused, the last one counts. Lines that are not
// whole (the machine stopped while one was written) count for nothing.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>

#include "batch/shard.h"
#include "files.h"

namespace se_tool {

// What is known of an id.
struct Finished {
  std::string sha256;  // empty: it failed
  int code = 0;        // with which it failed
};

class FinishedJobs {
 public:
  // Adds the lines of a results manifest whose paths belong to the shard.
  void add_file(const std::string& path, const ShardMap& shards);

  const Finished* find(const std::string& id) const;

 private:
  std::unordered_map<std::string, Finished> by_id_;
};

// The results manifests of an output folder, whoever wrote them.
std::vector<std::string> results_in(const std::string& folder);

// A results manifest that this process alone adds to.
class ResultsFile {
 public:
  // Throws an Error (output): it cannot be written, or another process is adding to it.
  explicit ResultsFile(const std::string& path);

  bool is_empty() const;
  void clear() const;

  // Adds a line in one piece, behind whatever there is.
  void add(const std::string& line) const;

  // Leaves the last line of each `out` and no broken ones; the file changes all at once.
  void tidy() const;

 private:
  std::string path_;
  Descriptor file_;
};

// A field of a line that is a text; empty otherwise.
std::string text_in(const nlohmann::ordered_json& line, const char* field);

// What two lines share that speak of one result; empty for a line that is not whole.
std::string results_key(const std::string& line);

}  // namespace se_tool
