// Any text as a preset, and any words as a command line: settings that can be used, or an error of
// one line.
//
// Input: 'a' and the arguments, one per line, or anything else: a preset.
#include <string>
#include <vector>

#include "errors.h"
#include "fuzz_target.h"
#include "options.h"
#include "preset.h"

namespace {

using namespace se_tool;

void read_preset(const std::string& text) {
  const std::string written = format_preset(parse_preset(text, "preset"));
  se_fuzz::check(format_preset(parse_preset(written, "printed")) == written,
                 "a printed preset reads back as the same settings");
}

void read_arguments(const std::string& text) {
  std::vector<std::string> words = {"speech-enhance"};
  for (std::size_t start = 0, end; start < text.size(); start = end + 1) {
    end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    words.push_back(text.substr(start, end - start));
  }
  std::vector<const char*> argv;
  for (const std::string& word : words) argv.push_back(word.c_str());
  const Options options = parse_options(static_cast<int>(argv.size()), argv.data());
  check_settings(options.settings);
  engine_config(options.settings);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    if (!text.empty() && text.front() == 'a') {
      read_arguments(text.substr(1));
    } else {
      read_preset(text);
    }
  } catch (const Error& error) {
    se_fuzz::check(error.code() == static_cast<int>(ExitCode::kUsage), "it is a usage error");
  }
  return 0;
}
