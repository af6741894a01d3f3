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
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

PendingFile::PendingFile(const std::string& target) : target_(target) {
  struct stat status = {};
  const bool exists = target != kStream && stat(target.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) fail(EISDIR);
  if (target != kStream && (!exists || S_ISREG(status.st_mode))) {
    if (exists && access(target.c_str(), W_OK) != 0) fail(errno);
    file_ = follow_links(target).back();
    gather_beside(file_);
    if (chmod(path_.c_str(), exists ? status.st_mode & 07777 : mode_of_new_files()) != 0) {
      const int error = errno;
      unlink(path_.c_str());
      fail(error);
    }
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
  if (!file_.empty() && !path_.empty()) unlink(path_.c_str());
}

void PendingFile::gather_beside(const std::string& file) {
  std::string name = (fs::path(file).parent_path() / ".speech-enhance.XXXXXX").string();
  const Descriptor created(mkostemp(name.data(), O_CLOEXEC));
  if (!created.is_open()) fail(errno);
  path_ = name;
}

void PendingFile::write(std::string_view bytes) const {
  const Descriptor file(open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
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
  if (std::rename(path_.c_str(), file_.c_str()) != 0) fail(errno);
  path_.clear();
}

void PendingFile::fail(int error_number) const {
  throw Error(ExitCode::kOutput, target_ + ": cannot be written: " + system_message(error_number));
}

}  // namespace se_tool
