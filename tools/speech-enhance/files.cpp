#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "errors.h"
#include "signals.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kCopyBytes = 1 << 16;
constexpr std::size_t kMostLinks = 40;

int g_standard_output = STDOUT_FILENO;

// Reads what there is, up to the size of the buffer: 0 at the end.
std::size_t read_some(int descriptor, std::vector<char>& buffer, const std::string& source) {
  for (;;) {
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    throw_if_interrupted();
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) {
      throw Error(ExitCode::kInput, source + ": cannot be read: " + system_message(errno));
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

TemporaryFile::TemporaryFile() {
  const char* folder = std::getenv("TMPDIR");
  std::string name = std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") +
                     "/speech-enhance.XXXXXX";
  file_ = Descriptor(mkostemp(name.data(), O_CLOEXEC));
  if (!file_.is_open()) {
    throw Error(ExitCode::kOutput, name + ": cannot be created: " + system_message(errno));
  }
  unlink(name.c_str());
  path_ = "/proc/self/fd/" + std::to_string(file_.get());
}

void TemporaryFile::fill_from(int source, const std::string& source_name) {
  std::vector<char> buffer(kCopyBytes);
  while (const std::size_t count = read_some(source, buffer, source_name)) {
    write_all(file_.get(), {buffer.data(), count}, "temporary copy of " + source_name);
  }
}

void TemporaryFile::copy_to(int target, const std::string& target_name) const {
  lseek(file_.get(), 0, SEEK_SET);
  std::vector<char> buffer(kCopyBytes);
  while (const std::size_t count = read_some(file_.get(), buffer, "temporary file")) {
    write_all(target, {buffer.data(), count}, target_name);
  }
}

}  // namespace se_tool
