// Any bytes as a manifest: every line yields fields and an entry whose result stays in the output
// folder, or one line of error.
//
// Input: the manifest.
#include "batch/manifest.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "errors.h"
#include "fuzz_target.h"

namespace {

using namespace se_tool;
namespace fs = std::filesystem;

const std::string& scratch_file() {
  static const TemporaryFile file;
  return file.path();
}

void check_error(const std::string& text) {
  se_fuzz::check(!text.empty() && text.find('\n') == std::string::npos, "an error is one line");
}

void check_entry(const Entry& entry) {
  se_fuzz::check(fs::path(entry.path).is_absolute(), "a recording's path is absolute");
  se_fuzz::check(entry.offset_s >= 0 && entry.duration_s.value_or(1) > 0, "times are in range");
  const std::string inside = (fs::path("/results") / entry.out).lexically_normal().string();
  se_fuzz::check(inside.rfind("/results/", 0) == 0, "a result stays in the output folder");
  se_fuzz::check(entry.out.size() > 4 && fs::path(entry.out).extension() == ".wav" &&
                     entry.out.find('\0') == std::string::npos,
                 "a result has a name with a suffix");
}

void read_manifest(const std::string& path) {
  ManifestReader reader(path);
  std::uint64_t number = 0;
  for (ManifestLine line; reader.next(line); number = line.number) {
    se_fuzz::check(line.number > number, "lines are counted upwards");
    const auto fields = nlohmann::ordered_json::parse(line.fields);
    if (!line.error.empty()) {
      check_error(line.error);
      continue;
    }
    try {
      check_entry(parse_entry(fields, reader.folder(), ".wav"));
    } catch (const Error& error) {
      check_error(error.what());
      se_fuzz::check(error.code() == static_cast<int>(ExitCode::kInput), "it is the line's error");
    }
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::ofstream(scratch_file(), std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  try {
    read_manifest(scratch_file());
  } catch (const Error& error) {
    check_error(error.what());
    se_fuzz::check(error.code() == static_cast<int>(ExitCode::kInput), "it is the input's error");
  }
  return 0;
}
