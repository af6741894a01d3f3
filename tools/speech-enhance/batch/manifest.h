// Manifests: the recordings to clean, a line each.
//
// A manifest is JSON lines (an object per line) or TSV (the first line names the columns). Fields
// that mean something here:
//   path       the recording; relative ones start at the manifest's folder
//   reference  what the loudspeaker played
//   offset     seconds into the recording at which the part to clean begins (0)
//   duration   seconds of that part (to the end)
//   out        where the result goes in the output folder, with or without a suffix (the path)
// All others are handed on to the results. Manifests may come from anybody: whatever a line holds,
// it yields an entry or one line of error, and no entry leads out of the output folder.
#pragma once

#include <cstdint>
#include <fstream>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "files.h"

namespace se_tool {

// A line as it stands: its fields in order as a JSON object, or why it has none.
struct ManifestLine {
  std::uint64_t number = 0;  // from 1
  std::string fields;        // JSON text; of lines that cannot be read, an object with `line` alone
  std::string error;         // empty: none
};

class ManifestReader {
 public:
  static constexpr std::size_t kLongestLine = 65536;

  // `path` may be "-" or a pipe, which is read to its end first. Throws an Error (input).
  explicit ManifestReader(const std::string& path);

  // The next line that is not blank; false at the end.
  bool next(ManifestLine& line);

  void rewind();

  // The folder at which relative paths start.
  const std::string& folder() const { return folder_; }

 private:
  bool next_text(std::string& text);
  void read_header();

  std::string name_;
  std::string folder_;
  std::optional<TemporaryFile> copy_;
  std::ifstream file_;
  std::uint64_t number_ = 0;
  bool too_long_ = false;
  std::vector<std::string> columns_;  // of a TSV; none: JSON lines
};

// What a line asks for.
struct Entry {
  std::string path;       // absolute
  std::string reference;  // absolute; empty: none
  double offset_s = 0;
  std::optional<double> duration_s;
  std::string out;  // within the output folder, with the suffix of its format
};

// `folder` is where relative paths start, `suffix` that of the results (".wav"). Throws an Error
// (input) for fields that are missing, of the wrong type or out of range, and for an `out` that
// would leave the output folder.
Entry parse_entry(const nlohmann::ordered_json& fields, const std::string& folder,
                  const std::string& suffix);

}  // namespace se_tool
