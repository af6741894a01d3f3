#include "pending_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "errors.h"

namespace se_tool {
namespace {

namespace fs = std::filesystem;

mode_t mode_of_new_files() {
  static const mode_t mode = [] {
    const mode_t mask = umask(0);
    umask(mask);
    return 0666 & ~mask;
  }();
  return mode;
}

}  // namespace

PendingFile::PendingFile(const std::string& target) : target_(target) {
  struct stat status = {};
  const bool exists = target != kStream && stat(target.c_str(), &status) == 0;
  if (target != kStream && !exists && errno != ENOENT) fail(errno);  // links in a circle, too
  if (exists && S_ISDIR(status.st_mode)) fail(EISDIR);
  if (target != kStream && (!exists || S_ISREG(status.st_mode))) {
    if (exists && access(target.c_str(), W_OK) != 0) fail(errno);
    file_ = follow_links(target).back();
    gather_beside(file_, exists ? status.st_mode & 07777 : mode_of_new_files());
    return;
  }
  if (target != kStream) {
    stream_ = Descriptor(open(target.c_str(), O_WRONLY | O_CLOEXEC));
    if (!stream_.is_open()) fail(errno);
  }
  copy_.emplace();
  path_ = copy_->path();
}

PendingFile::~PendingFile() {
  if (!file_.empty() && !path_.empty() && !unnamed_.is_open()) unlink(path_.c_str());
}

void PendingFile::gather_beside(const std::string& file, mode_t mode) {
  const fs::path folder = fs::path(file).parent_path();
  unnamed_ = open_unnamed(folder.empty() ? "." : folder.string());
  if (unnamed_.is_open()) {
    path_ = path_of(unnamed_);
    if (fchmod(unnamed_.get(), mode) != 0) fail(errno);
    return;
  }
  std::string name = (folder / ".speech-enhance.XXXXXX").string();
  const Descriptor created(mkostemp(name.data(), O_CLOEXEC));
  if (!created.is_open()) fail(errno);
  if (fchmod(created.get(), mode) != 0) {
    const int error = errno;
    unlink(name.c_str());
    fail(error);
  }
  path_ = name;
}

// Gives the file without a name one: that of the target if nothing is there, otherwise a hidden one
// beside it, from which it can be renamed.
std::string PendingFile::link_beside(const std::string& file) const {
  const auto link_as = [this](const std::string& name) {
    return linkat(AT_FDCWD, path_.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0;
  };
  if (link_as(file)) return file;
  const std::string hidden = (fs::path(file).parent_path() / ".speech-enhance.").string();
  for (int attempt = 0; errno == EEXIST; ++attempt) {
    const std::string name = hidden + std::to_string(getpid()) + "-" + std::to_string(attempt);
    if (link_as(name)) return name;
  }
  fail(errno);
}

void PendingFile::write(std::string_view bytes) const {
  const Descriptor file(open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
  if (!file.is_open()) fail(errno);
  write_all(file.get(), bytes, target_);
}

void PendingFile::append(std::string_view bytes) const {
  const Descriptor file(open(path_.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
  if (!file.is_open()) fail(errno);
  write_all(file.get(), bytes, target_);
}

void PendingFile::sync() const {
  if (copy_) return;
  const Descriptor file(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.is_open() || fsync(file.get()) != 0) fail(errno);
}

void PendingFile::commit() {
  if (copy_) {
    copy_->copy_to(stream_.is_open() ? stream_.get() : standard_output(),
                   target_ == kStream ? "standard output" : target_);
    return;
  }
  if (unnamed_.is_open()) {
    path_ = link_beside(file_);
    unnamed_.close();
  }
  if (path_ != file_ && std::rename(path_.c_str(), file_.c_str()) != 0) fail(errno);
  path_.clear();
}

void PendingFile::fail(int error_number) const {
  throw Error(ExitCode::kOutput, target_ + ": cannot be written: " + system_message(error_number));
}

}  // namespace se_tool
