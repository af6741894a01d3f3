// Any bytes as a WAV file. What the reader takes for one is read in uneven pieces, written anew and
// read back.
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fuzz_target.h"
#include "speechenhance/wav_io.h"

namespace {

using se_fuzz::check;

// A file in memory, under a path.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(memfd_create("fuzz", 0)) {}

  void fill(const std::uint8_t* data, std::size_t size) const {
    const auto length = static_cast<ssize_t>(size);
    check(ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, data, size, 0) == length,
          "a file in memory takes the input");
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

 private:
  int descriptor_;
};

std::vector<char> read_all(WavFile* wav) {
  std::vector<char> all;
  for (std::uint32_t piece = 1;; piece = piece * 3 % 1009) {
    std::vector<char> buffer(piece);
    const std::int64_t count = wav_io_read(wav, piece, buffer.data());
    check(count >= 0 && count <= piece, "no more is read than was asked for");
    if (count == 0) return all;
    all.insert(all.end(), buffer.data(), buffer.data() + count);
  }
}

void write_and_read_back(const MemoryFile& file, WavFormat format, const std::vector<char>& bytes) {
  const auto size = static_cast<std::uint32_t>(bytes.size());
  WavFile* written = wav_io_open(file.path().c_str(), 1, &format);
  check((written != nullptr) == (format.channels != 0), "what can be read can be written");
  if (written == nullptr) return;
  check(wav_io_write(written, size, bytes.data()) == size, "everything is written");
  wav_io_close(written);

  WavFormat found = {};
  WavFile* again = wav_io_open(file.path().c_str(), 0, &found);
  check(again != nullptr && std::memcmp(&found, &format, sizeof found) == 0, "the format is kept");
  check(read_all(again) == bytes, "the samples are kept");
  wav_io_close(again);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const MemoryFile given, copy;
  given.fill(data, size);
  WavFormat format = {};
  WavFile* wav = wav_io_open(given.path().c_str(), 0, &format);
  if (wav == nullptr) return 0;
  const std::vector<char> bytes = read_all(wav);
  check(bytes.size() == wav_io_get_data_size(wav), "as much is there as was said");
  check(wav_io_rewind(wav) == 0 && read_all(wav) == bytes, "it reads the same twice");
  check(wav_io_write(wav, 1, "x") == -1, "a file that is read cannot be written");
  wav_io_close(wav);
  write_and_read_back(copy, format, bytes);
  return 0;
}
