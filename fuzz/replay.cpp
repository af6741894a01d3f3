// Runs a fuzz target over files, or all files of folders, without libFuzzer.  usage: replay PATH...
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

namespace fs = std::filesystem;

namespace {

void replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> content{std::istreambuf_iterator<char>(file), {}};
  // A copy of the exact size, so that the sanitizers see a read behind the end.
  std::vector<std::uint8_t> bytes(content.begin(), content.end());
  bytes.shrink_to_fit();
  std::fprintf(stderr, "%s\n", path.c_str());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      files.insert(files.end(), fs::directory_iterator(argv[i]), {});
    } else {
      files.emplace_back(argv[i]);
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "no inputs given or found\n");
    return 1;
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) replay(file);
}
