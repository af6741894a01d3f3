#include "batch/batch_job.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "batch/checksum.h"
#include "batch/shard.h"
#include "enhance.h"
#include "errors.h"
#include "files.h"
#include "formatted.h"
#include "preset.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

bool starts_with(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string hash_id(const std::string& text) {
  return formatted("%016" PRIx64, hash_text(text));
}

const char* format_name(SoundFormat format) {
  switch (format) {
    case SoundFormat::kFlac:
      return "flac";
    case SoundFormat::kWavFloat:
      return "wav, float";
    case SoundFormat::kWav16:
      break;
  }
  return "wav";
}

// The whole file, so that it is in memory when its turn comes.
void read_ahead(const std::string& path) {
  if (!is_regular_file(path)) return;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  constexpr off_t kMost = 64 << 20;  // of a long one, the beginning
  if (file.is_open()) posix_fadvise(file.get(), 0, kMost, POSIX_FADV_WILLNEED);
}

void require_regular_file(const std::string& path) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (!fs::exists(status) || fs::is_regular_file(status)) return;  // the reader says what is wrong
  throw Error(ExitCode::kInput, path + ": is not a regular file");
}

// The fields without those that only results have: a results manifest may serve as manifest.
Json without_results(Json fields) {
  for (const char* name : {"id", "source", "missing_bytes", "sha256", "version", "settings",
                           "error", "code", "refused"}) {
    fields.erase(name);
  }
  static const Json none = figures({});
  for (const auto& figure : none.items()) fields.erase(figure.key());
  return fields;
}

}  // namespace

std::string pack(const JobReply& reply) {
  return formatted("%c %d %.9g %.9g\n", static_cast<char>(reply.status), reply.code, reply.audio_s,
                   reply.stated_s) +
         reply.line;
}

JobReply unpack_reply(const std::string& text) {
  JobReply reply;
  char status = 0;
  std::sscanf(text.c_str(), "%c %d %lf %lf", &status, &reply.code, &reply.audio_s, &reply.stated_s);
  reply.status = static_cast<JobReply::Status>(status);
  reply.line = text.substr(text.find('\n') + 1);
  return reply;
}

BatchJobs::BatchJobs(const BatchOptions& options, const std::string& manifest_folder)
    : format_(options.format), settings_(options.settings), manifest_folder_(manifest_folder) {
  create_folder(options.out_folder);
  out_folder_ = fs::canonical(options.out_folder).string();
  Json settings = Json::parse(format_preset(settings_));
  settings["format"] = format_name(format_);
  settings_json_ = settings.dump();
}

Entry BatchJobs::parse(const Json& fields) const {
  return parse_entry(fields, manifest_folder_, suffix_of(format_));
}

std::string BatchJobs::id_of(const Json& fields, const Entry& entry) const {
  const Json identity = {fields.value("path", Json()),
                         fields.value("reference", Json()),
                         fields.value("offset", Json()),
                         fields.value("duration", Json()),
                         entry.out,
                         settings_json_,
                         SE_VERSION};
  return hash_id(identity.dump());
}

std::string BatchJobs::target_of(const Entry& entry) const {
  return (fs::path(out_folder_) / entry.out).string();
}

std::string BatchJobs::describe(const Json& fields, const std::string& id,
                                const std::string& sha256) {
  return Json{{"fields", fields}, {"id", id}, {"sha256", sha256}}.dump();
}

void BatchJobs::check_target(const Entry& entry) {
  const std::string target = target_of(entry);
  std::error_code error;
  const auto check_inside = [&](const fs::path& path) {
    if (!starts_with(fs::weakly_canonical(path, error).string() + "/", out_folder_ + "/") ||
        error) {
      throw Error(ExitCode::kInput, "`out` leads out of the output folder through a link");
    }
  };
  const std::string folder = fs::path(target).parent_path().string();
  if (folder != known_folder_) {  // most recordings lie in the folder of the one before
    check_inside(folder);
    fs::create_directories(folder, error);
    if (error) {
      throw Error(ExitCode::kOutput, target + ": its folder cannot be created: " + error.message());
    }
    known_folder_ = folder;
  }
  if (fs::symlink_status(target, error).type() == fs::file_type::not_found) return;
  check_inside(target);
  const std::string identity = file_identity(target, Direction::kOut);
  for (const std::string& input : {entry.path, entry.reference}) {
    if (!input.empty() && identity == file_identity(input, Direction::kIn)) {
      throw Error(ExitCode::kInput, "the result would replace the recording");
    }
  }
}

// Without the names of the files, which stand in the line's fields.
std::string BatchJobs::explain(const Entry& entry, const std::string& error) const {
  const std::pair<std::string, std::string> names[] = {{entry.path + ": ", ""},
                                                       {entry.reference + ": ", "reference: "},
                                                       {target_of(entry) + ": ", "result: "}};
  for (const auto& [name, role] : names) {
    if (name != ": " && starts_with(error, name)) return role + error.substr(name.size());
  }
  return error;
}

JobReply BatchJobs::perform(const std::string& job) {
  const Json description = Json::parse(job);
  const Entry entry = parse(description.at("fields"));
  JobReply reply = perform(description, entry);
  reply.stated_s = entry.duration_s.value_or(0);
  return reply;
}

JobReply BatchJobs::perform(const Json& description, const Entry& entry) {
  const Json& fields = description.at("fields");
  const auto id = description.at("id").get<std::string>();
  const auto sha256 = description.at("sha256").get<std::string>();
  const std::string target = target_of(entry);
  try {
    if (!sha256.empty() && sha256_of_file(target) == sha256) {
      return {JobReply::Status::kSkipped, 0, 0, 0, ""};
    }
    check_target(entry);
    require_regular_file(entry.path);
    if (!entry.reference.empty()) require_regular_file(entry.reference);
    Task task;
    task.mic = entry.path;
    task.ref = entry.reference;
    task.output = target;
    task.format = format_;
    task.segment = {entry.offset_s, entry.duration_s};
    task.to_disk = false;  // the checksum tells later whether it got there
    task.settings = settings_;
    const Statistics statistics = enhance(task, [](std::uint64_t, std::uint64_t) {});

    Json line = {{"id", id}};
    line.update(without_results(fields));
    line["out"] = entry.out;
    line["source"] = fs::path(entry.path).lexically_normal().string();
    line.update(figures(statistics));
    if (statistics.missing_bytes > 0) line["missing_bytes"] = statistics.missing_bytes;
    line["sha256"] = sha256_of_file(target);
    line["version"] = SE_VERSION;
    line["settings"] = Json::parse(settings_json_);
    return {JobReply::Status::kDone, 0, statistics.duration_s, 0, line.dump()};
  } catch (const Error& error) {
    known_folder_.clear();
    if (error.code() > static_cast<int>(ExitCode::kSignal)) throw;
    Json failed = fields;
    failed["out"] = entry.out;
    return failure(failed, id, error.code(), explain(entry, error.what()), false);
  } catch (const std::exception& error) {
    return failure(fields, id, static_cast<int>(ExitCode::kInternal), error.what(), false);
  }
}

void BatchJobs::announce(const std::string& job) const {
  const Entry entry = parse(Json::parse(job).at("fields"));
  read_ahead(entry.path);
  if (!entry.reference.empty()) read_ahead(entry.reference);
}

JobReply BatchJobs::failure(Json fields, const std::string& id, int code, const std::string& error,
                            bool refused) {
  Json line = {{"id", id}};
  line.update(without_results(std::move(fields)));
  line["error"] = error;
  line["code"] = code;
  if (refused) line["refused"] = true;
  line["version"] = SE_VERSION;
  return {JobReply::Status::kFailed, code, 0, 0,
          line.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

JobReply BatchJobs::refusal(const ManifestLine& line, const std::string& error) {
  return failure(Json::parse(line.fields), hash_id(std::to_string(line.number) + ":" + line.fields),
                 static_cast<int>(ExitCode::kInput), error, true);
}

JobReply BatchJobs::death(const std::string& job, int signal) {
  const Json description = Json::parse(job);
  return failure(description.at("fields"), description.at("id").get<std::string>(),
                 static_cast<int>(ExitCode::kInternal),
                 signal != 0
                     ? "the process that worked on it died of signal " + std::to_string(signal)
                     : "the process that worked on it ended",
                 false);
}

}  // namespace se_tool
