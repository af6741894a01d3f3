// Files and streams: which of them are the same, standard output, content without a name.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace se_tool {

// Stands for standard input or standard output among the file arguments.
inline constexpr const char* kStream = "-";

// The library prints lines to standard output. Keeps the real one aside for the tool and lets
// whatever else is printed there go nowhere. Call it once, before the first engine is created.
void claim_standard_output();

// The tool's standard output, claimed or not.
int standard_output();

// Writes everything or throws an Error (output) that names `target`.
void write_all(int descriptor, std::string_view bytes, const std::string& target);

bool is_directory(const std::string& path);
bool is_regular_file(const std::string& path);

enum class Direction { kIn, kOut };

// "-" for any name of this process's standard input or output, such as /dev/stdout; every other
// name as it is.
std::string unify_stream_names(const std::string& name, Direction direction);

// The path and where it leads, symbolic link by symbolic link, whether or not something is there.
std::vector<std::string> follow_links(const std::string& path);

// A text that two names share if they lead to one file, through whatever links; names of files that
// do not exist yet are resolved as far as their folders go. "-" is the file that standard input or
// output is redirected to. Empty for what holds no content that writing could destroy: terminals,
// devices, pipes.
std::string file_identity(const std::string& name, Direction direction);

// An open file descriptor, closed with the object.
class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { close(); }

  int get() const { return number_; }
  bool is_open() const { return number_ >= 0; }
  int release();
  void close();

 private:
  int number_;
};

// A file without a name, in the folder for temporary files; it vanishes with the object. Until then
// it can be opened under a path by this process and by processes forked from it.
class TemporaryFile {
 public:
  TemporaryFile();

  const std::string& path() const { return path_; }

  // Both throw an Error; copy_to() starts at the beginning of the file.
  void fill_from(int source, const std::string& source_name);
  void copy_to(int target, const std::string& target_name) const;

 private:
  Descriptor file_;
  std::string path_;
};

}  // namespace se_tool
