#include "batch/from_folder.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "audio_input.h"
#include "console.h"
#include "errors.h"
#include "files.h"
#include "pending_file.h"
#include "signals.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

// What is in a folder, in the order of the names.
std::vector<fs::directory_entry> entries_of(const fs::path& folder) {
  std::vector<fs::directory_entry> entries;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; entry != end; entry.increment(error)) {
    if (entry->path().filename().string().front() != '.') entries.push_back(*entry);
  }
  if (error) {
    throw Error(ExitCode::kInput, folder.string() + ": cannot be read: " + error.message());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

class ManifestWriter {
 public:
  ManifestWriter(const fs::path& folder, PendingFile& file) : folder_(folder), file_(file) {}

  void add_folder(const fs::path& folder) {
    std::set<std::string> taken;  // results in this folder, so far
    for (const fs::directory_entry& entry : entries_of(folder)) {
      throw_if_interrupted();
      std::error_code ignored;
      if (entry.is_directory(ignored)) {
        if (!entry.is_symlink(ignored)) add_folder(entry.path());
      } else if (has_audio_suffix(entry.path().string()) &&
                 (entry.is_regular_file(ignored) || !entry.exists(ignored))) {
        add_recording(entry.path(), taken);
      }
    }
  }

  // What has been gathered since the last call goes to the file.
  void flush() {
    file_.append(text_);
    text_.clear();
  }

  std::size_t unnameable() const { return unnameable_; }
  std::size_t listed() const { return listed_; }

 private:
  void add_recording(const fs::path& path, std::set<std::string>& taken) {
    // a.wav and a.flac become a and a.flac, which take the suffix of their results.
    fs::path out = path.lexically_relative(folder_);
    if (taken.insert(fs::path(path).replace_extension().string()).second) out.replace_extension();
    nlohmann::ordered_json line = {{"path", path.string()}, {"out", out.string()}};
    if (const double duration = duration_of(path.string()); duration > 0) {
      line["duration"] = duration;
    }
    try {
      text_ += line.dump() + "\n";
      ++listed_;
    } catch (const nlohmann::json::type_error&) {
      print_line(path.string() + ": the name is not UTF-8, left out");
      ++unnameable_;
    }
    constexpr std::size_t kFlushBytes = 1 << 16;
    if (text_.size() > kFlushBytes) flush();
  }

  static double duration_of(const std::string& path) {
    try {
      const FrameSource::Format format = AudioInput(path).original();
      return static_cast<double>(format.length) / format.rate;
    } catch (const Error&) {
      return 0;
    }
  }

  fs::path folder_;
  PendingFile& file_;
  std::string text_;
  std::size_t listed_ = 0;
  std::size_t unnameable_ = 0;
};

}  // namespace

std::size_t write_manifest(const std::string& folder, const std::string& manifest) {
  std::error_code error;
  const fs::path root = fs::canonical(folder, error);
  if (error) throw Error(ExitCode::kInput, folder + ": cannot be read: " + error.message());
  PendingFile file(manifest);
  ManifestWriter writer(root, file);
  writer.add_folder(root);
  writer.flush();
  if (writer.listed() == 0) throw Error(ExitCode::kInput, folder + ": holds no audio files");
  file.sync();
  file.commit();
  return writer.unnameable();
}

}  // namespace se_tool
