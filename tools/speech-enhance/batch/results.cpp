#include "batch/results.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "errors.h"
#include "pending_file.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

// An object, or null for a line that is not whole.
Json parse_line(const std::string& line) {
  Json object = Json::parse(line, nullptr, false);
  return object.is_object() ? object : Json();
}

}  // namespace

void FinishedJobs::add_file(const std::string& path, const ShardMap& shards) {
  std::ifstream file(path, std::ios::binary);
  for (std::string line; std::getline(file, line);) {
    const Json object = parse_line(line);
    const std::string id = object.is_null() ? "" : text_in(object, "id");
    if (id.empty() || !shards.contains(hash_text(text_in(object, "path")))) continue;
    const Finished finished = {text_in(object, "sha256"), object.value("code", 0)};
    Finished& known = by_id_[id];
    if (!finished.sha256.empty() || known.sha256.empty()) known = finished;
  }
}

const Finished* FinishedJobs::find(const std::string& id) const {
  const auto found = by_id_.find(id);
  return found == by_id_.end() ? nullptr : &found->second;
}

std::vector<std::string> results_in(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.rfind("results", 0) == 0 && entry->path().extension() == ".jsonl") {
      files.push_back(entry->path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

ResultsFile::ResultsFile(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666)) {
  if (!file_.is_open()) {
    throw Error(ExitCode::kOutput, path + ": cannot be written: " + system_message(errno));
  }
  // A file system without locks (some network ones) has to do without.
  if (flock(file_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    throw Error(ExitCode::kOutput, path + ": another process is writing these results");
  }
  struct stat status = {};
  char last = '\n';
  if (fstat(file_.get(), &status) == 0 && status.st_size > 0 &&
      pread(file_.get(), &last, 1, status.st_size - 1) == 1 && last != '\n') {
    add("");
  }
}

bool ResultsFile::is_empty() const {
  struct stat status = {};
  return fstat(file_.get(), &status) == 0 && status.st_size == 0;
}

void ResultsFile::clear() const {
  if (ftruncate(file_.get(), 0) != 0) {
    throw Error(ExitCode::kOutput, path_ + ": cannot be written: " + system_message(errno));
  }
}

// A signal does not keep it from writing: the result that the line tells of is in place.
void ResultsFile::add(const std::string& line) const {
  const std::string text = line + "\n";
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(file_.get(), text.data() + done, text.size() - done);
    if (count >= 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      throw Error(ExitCode::kOutput, path_ + ": cannot be written: " + system_message(errno));
    }
  }
}

void ResultsFile::tidy() const {
  std::unordered_map<std::string, std::uint64_t> last;  // line of each key
  std::uint64_t number = 0;
  std::ifstream source(path_, std::ios::binary);
  std::string line;
  for (; std::getline(source, line); ++number) {
    const std::string key = results_key(line);
    if (!key.empty()) last[key] = number;
  }
  if (number == last.size()) return;
  PendingFile tidied(path_);
  source.clear();
  source.seekg(0);
  std::string text;
  for (number = 0; std::getline(source, line); ++number) {
    const std::string key = results_key(line);
    if (key.empty() || last.at(key) != number) continue;
    text += line + "\n";
    constexpr std::size_t kFlushBytes = 1 << 20;
    if (text.size() < kFlushBytes) continue;
    tidied.append(text);
    text.clear();
  }
  tidied.append(text);
  tidied.sync();
  tidied.commit();
}

std::string text_in(const Json& line, const char* field) {
  const auto found = line.find(field);
  return found != line.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string results_key(const std::string& line) {
  const Json object = parse_line(line);
  if (object.is_null()) return "";
  const std::string id = text_in(object, "id");
  const std::string out = text_in(object, "out");
  return id.empty() || out.empty() || object.contains("refused") ? id : out;
}

}  // namespace se_tool
