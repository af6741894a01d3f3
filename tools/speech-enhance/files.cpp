#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "errors.h"
#include "signals.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kCopyBytes = 1 << 16;
constexpr std::size_t kMostLinks = 40;

int g_standard_output = STDOUT_FILENO;

// Reads what there is, up to the size of the buffer: 0 at the end.
std::size_t read_some(int descriptor, std::vector<char>& buffer) {
  for (;;) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    throw_if_interrupted();
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) {
      throw Error(ExitCode::kInput, "cannot be read: " + system_message(errno));
    }
  }
}

}  // namespace

void claim_standard_output() {
  g_standard_output = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(nowhere.get(), STDOUT_FILENO);
}

int standard_output() {
  return g_standard_output;
}

void write_all(int descriptor, std::string_view bytes, const std::string& target) {
  while (!bytes.empty()) {
    const ssize_t count = write(descriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw Error(ExitCode::kOutput, target + ": cannot be written: " + system_message(errno));
    }
    throw_if_interrupted();
  }
}

bool is_directory(const std::string& path) {
  std::error_code ignored;
  return fs::is_directory(path, ignored);
}

bool is_regular_file(const std::string& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored);
}

std::string suffix_of(const std::string& path) {
  std::string suffix = fs::path(path).extension().string();
  for (char& c : suffix) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return suffix;
}

bool has_audio_suffix(const std::string& path) {
  static const std::set<std::string> suffixes = {".aif",  ".aifc", ".aiff", ".au",  ".caf",
                                                 ".flac", ".mp3",  ".oga",  ".ogg", ".opus",
                                                 ".rf64", ".snd",  ".w64",  ".wav", ".wave"};
  return suffixes.count(suffix_of(path)) != 0;
}

std::vector<std::string> expand_folders(
    const std::vector<std::string>& inputs,
    std::vector<std::string> (*files_in)(const std::string& folder)) {
  std::vector<std::string> files;
  for (const std::string& input : inputs) {
    if (!is_directory(input)) {
      files.push_back(input);
      continue;
    }
    const std::vector<std::string> found = files_in(input);
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

void create_folder(const std::string& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error || !is_directory(folder)) {
    throw Error(ExitCode::kOutput,
                folder + ": the folder cannot be created" + (error ? ": " + error.message() : ""));
  }
}

std::vector<std::string> follow_links(const std::string& path) {
  std::vector<std::string> chain = {path};
  std::error_code ignored;
  for (fs::path file = path; chain.size() < kMostLinks && fs::is_symlink(file, ignored);) {
    file = file.parent_path() / fs::read_symlink(file, ignored);
    chain.push_back(file.string());
  }
  return chain;
}

std::string unify_stream_names(const std::string& name, Direction direction) {
  const int number = direction == Direction::kIn ? STDIN_FILENO : STDOUT_FILENO;
  std::error_code ignored;
  for (const fs::path path : follow_links(name)) {
    if (path.filename() == std::to_string(number) &&
        fs::equivalent(path.parent_path(), "/proc/self/fd", ignored)) {
      return kStream;
    }
  }
  return name;
}

std::string file_identity(const std::string& name, Direction direction) {
  struct stat status = {};
  const int stream = direction == Direction::kIn ? STDIN_FILENO : standard_output();
  if ((name == kStream ? fstat(stream, &status) : stat(name.c_str(), &status)) == 0) {
    if (!S_ISREG(status.st_mode)) return "";
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
  }
  std::error_code error;
  return fs::weakly_canonical(fs::absolute(name), error).string();
}

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    close();
    number_ = other.release();
  }
  return *this;
}

int Descriptor::release() {
  const int number = number_;
  number_ = -1;
  return number;
}

void Descriptor::close() {
  if (is_open()) ::close(release());
}

Descriptor open_unnamed(const std::string& folder) {
  return Descriptor(open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
}

std::string path_of(const Descriptor& file) {
  return "/proc/self/fd/" + std::to_string(file.get());
}

TemporaryFile::TemporaryFile() {
  const char* wanted = std::getenv("TMPDIR");
  const std::string folder = wanted != nullptr && *wanted != '\0' ? wanted : "/tmp";
  file_ = open_unnamed(folder);
  if (!file_.is_open()) {
    std::string name = folder + "/speech-enhance.XXXXXX";
    file_ = Descriptor(mkostemp(name.data(), O_CLOEXEC));
    if (!file_.is_open()) {
      throw Error(ExitCode::kOutput, name + ": cannot be created: " + system_message(errno));
    }
    unlink(name.c_str());
  }
  path_ = path_of(file_);
}

void TemporaryFile::fill_from(int source, std::uint64_t most) {
  std::vector<char> buffer(kCopyBytes);
  std::uint64_t filled = 0;
  while (const std::size_t count = read_some(source, buffer)) {
    filled += count;
    if (filled > most) {
      throw Error(ExitCode::kInput,
                  "holds more than the " + std::to_string(most) + " bytes that --max-input allows");
    }
    write_all(file_.get(), {buffer.data(), count}, "temporary copy");
  }
}

void TemporaryFile::copy_to(int target, const std::string& target_name) const {
  lseek(file_.get(), 0, SEEK_SET);
  std::vector<char> buffer(kCopyBytes);
  while (const std::size_t count = read_some(file_.get(), buffer)) {
    write_all(target, {buffer.data(), count}, target_name);
  }
}

}  // namespace se_tool
