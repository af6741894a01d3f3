#include "tasks.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "errors.h"
#include "files.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& line) {
  throw Error(ExitCode::kUsage, line);
}

// Neither a folder nor a pipe nor a device.
bool is_file_or_nothing(const fs::path& path) {
  std::error_code ignored;
  const fs::file_type type = fs::status(path, ignored).type();
  return type == fs::file_type::regular || type == fs::file_type::not_found;
}

std::vector<std::string> audio_files_in(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; entry != end; entry.increment(error)) {
    const fs::path& path = entry->path();
    const bool hidden = path.filename().string().front() == '.';
    // A link to nothing is a recording, too: one that cannot be opened, as its line will say.
    if (!hidden && is_file_or_nothing(path) && has_audio_suffix(path.string())) {
      files.push_back(path.string());
    }
  }
  if (error) throw Error(ExitCode::kInput, folder + ": cannot be read: " + error.message());
  if (files.empty()) throw Error(ExitCode::kInput, folder + ": holds no audio files");
  std::sort(files.begin(), files.end());
  return files;
}

// Whether recordings go into a folder, each under its own name.
bool goes_to_folder(const Options& options) {
  return options.inputs.size() > 1 || is_directory(options.inputs.front()) ||
         is_directory(options.output) || options.output.back() == '/';
}

std::string in_folder(const std::string& folder, const std::string& recording, const char* suffix) {
  return (fs::path(folder) / fs::path(recording).stem()).string() + suffix;
}

Task plan_task(const Options& options, const std::string& mic, bool to_folder) {
  Task task;
  task.mic = mic;
  task.format = options.as_float ? SoundFormat::kWavFloat : SoundFormat::kWav16;
  task.max_input = options.max_input;
  task.settings = options.settings;
  task.output = to_folder ? in_folder(options.output, mic, ".wav") : options.output;
  if (!options.plot.empty()) {
    task.plot = to_folder ? in_folder(options.plot, mic, ".png") : options.plot;
  }
  if (!options.ref.empty()) {
    const bool beside = to_folder && is_directory(options.ref);
    task.delay_ms = options.delay_ms;
    task.ref = beside ? (fs::path(options.ref) / fs::path(mic).filename()).string() : options.ref;
  }
  return task;
}

// No output may destroy an input or another output.
void check_apart(const std::vector<Task>& tasks) {
  std::map<std::string, std::string> inputs;
  for (const Task& task : tasks) {
    inputs[file_identity(task.mic, Direction::kIn)] = task.mic;
    if (!task.ref.empty()) inputs[file_identity(task.ref, Direction::kIn)] = task.ref;
  }
  std::set<std::string> outputs;
  for (const Task& task : tasks) {
    for (const std::string& output : {task.output, task.plot}) {
      if (output.empty()) continue;
      const std::string identity = file_identity(output, Direction::kOut);
      if (identity.empty()) continue;
      const auto input = inputs.find(identity);
      if (input != inputs.end()) {
        fail(output + ": the output is the input" +
             (output == input->second ? "" : " " + input->second));
      }
      if (!outputs.insert(identity).second) fail(output + ": would be written twice");
    }
  }
}

// No file may carry the suffix of a format that it does not have.
void check_suffix(const std::string& output, const std::set<std::string>& suffixes,
                  const char* content) {
  const std::string suffix = suffix_of(output);
  if (suffix.empty() || suffixes.count(suffix) != 0 || !is_file_or_nothing(output)) return;
  fail(output + ": would hold " + content + ", name it " +
       fs::path(output).replace_extension(*suffixes.begin()).string());
}

}  // namespace

std::vector<Task> plan_tasks(const Options& options) {
  const std::vector<std::string> files = expand_folders(options.inputs, audio_files_in);
  const bool to_folder = goes_to_folder(options);
  if (to_folder) {
    for (const std::string& folder : {options.output, options.plot}) {
      if (folder == kStream) fail("several recordings need a folder as output, not \"-\"");
      std::error_code ignored;
      if (folder.empty() || is_directory(folder) || !fs::exists(folder, ignored)) continue;
      fail(folder + ": several recordings need a folder as output, this is a file");
    }
    if (std::count(files.begin(), files.end(), kStream) != 0) {
      fail("standard input needs the name of an output file, not a folder");
    }
    if (files.size() > 1 && !options.ref.empty() && !is_directory(options.ref)) {
      fail(options.ref + ": several recordings need a folder of references of the same names");
    }
  }
  if (options.ref == kStream && std::count(files.begin(), files.end(), kStream) != 0) {
    fail("recording and reference cannot both come from standard input");
  }
  if (options.plot == kStream && options.output == kStream) {
    fail("recording and plot cannot both go to standard output");
  }

  std::vector<Task> tasks;
  for (const std::string& file : files) tasks.push_back(plan_task(options, file, to_folder));
  check_apart(tasks);
  for (const Task& task : tasks) {
    check_suffix(task.output, {".wav", ".wave"}, "a WAV file");
    check_suffix(task.plot, {".png"}, "a PNG image");
  }
  if (to_folder) {
    create_folder(options.output);
    if (!options.plot.empty()) create_folder(options.plot);
  }
  return tasks;
}

}  // namespace se_tool
