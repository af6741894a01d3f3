// An output that appears whole or not at all.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "files.h"

namespace se_tool {

// Gathers the content of an output elsewhere; commit() makes it the target, all at once. Without
// commit() it vanishes, and a file of the target's name stays as it was. A file's content is
// gathered beside it, with the permissions it will have: in a file without a name, which does not
// even survive the death of the process, or, where the file system has no such files, under a
// hidden name. What goes to "-", a device or a pipe is gathered in a temporary file and copied
// there.
class PendingFile {
 public:
  // Throws an Error (output) if the target cannot be written.
  explicit PendingFile(const std::string& target);
  ~PendingFile();
  PendingFile(const PendingFile&) = delete;
  PendingFile& operator=(const PendingFile&) = delete;

  // The file that gathers the content.
  const std::string& path() const { return path_; }
  const std::string& target() const { return target_; }

  // Replaces the content. Throws an Error (output).
  void write(std::string_view bytes) const;

  // Adds to the content. Throws an Error (output).
  void append(std::string_view bytes) const;

  // Makes sure that the content of a file has reached the disk. Throws an Error (output).
  void sync() const;

  // The content is complete and written. Throws an Error (output).
  void commit();

 private:
  void gather_beside(const std::string& file, mode_t mode);
  std::string link_beside(const std::string& file) const;
  [[noreturn]] void fail(int error_number) const;

  std::string target_;
  std::string file_;  // what to replace, links resolved; empty for a stream
  std::string path_;
  Descriptor unnamed_;                 // the file at the path, as long as it has no name
  Descriptor stream_;                  // a device or pipe; not open for standard output
  std::optional<TemporaryFile> copy_;  // what a stream will get
};

}  // namespace se_tool
