// Files and streams: which of them are the same, standard output, content without a name.
#pragma once

#include <cstdint>
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

// The file name's suffix with its dot, in lower case; empty if there is none.
std::string suffix_of(const std::string& path);

// Whether the suffix is one of sound files that libsndfile reads.
bool has_audio_suffix(const std::string& path);

// The inputs, each folder among them replaced by what `files_in` finds in it.
std::vector<std::string> expand_folders(
    const std::vector<std::string>& inputs,
    std::vector<std::string> (*files_in)(const std::string& folder));

// Makes the folder, and those above it, unless it is there. Throws an Error (output).
void create_folder(const std::string& folder);

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

// A new file in `folder` that has no name: it vanishes with its last descriptor, however the
// process ends. Not open where the folder or its file system gives none.
Descriptor open_unnamed(const std::string& folder);

// A path under which this process and those forked from it can open an open file once more.
std::string path_of(const Descriptor& file);

// What is read at most from a stream, which takes as much room on the disk.
inline constexpr std::uint64_t kMostInputBytes = std::uint64_t{16} << 30;

// A file without a name, in the folder for temporary files; it vanishes with the object. Until then
// it can be opened under a path by this process and by processes forked from it.
class TemporaryFile {
 public:
  TemporaryFile();

  const std::string& path() const { return path_; }

  // Both throw an Error: fill_from() without the name of the source, and also when that holds more
  // than `most` bytes. copy_to() starts at the beginning of the file.
  void fill_from(int source, std::uint64_t most);
  void copy_to(int target, const std::string& target_name) const;

 private:
  Descriptor file_;
  std::string path_;
};

}  // namespace se_tool
