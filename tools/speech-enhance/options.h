// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "files.h"
#include "processes.h"
#include "settings.h"

namespace se_tool {

enum class StatisticsFormat { kNone, kText, kJson };

struct Options {
  std::vector<std::string> inputs;
  std::string ref;              // empty: none
  std::optional<int> delay_ms;  // of the echo behind ref; none: find it
  std::string output;
  std::string plot;  // empty: none
  bool as_float = false;
  StatisticsFormat statistics = StatisticsFormat::kNone;
  std::uint64_t max_input = kMostInputBytes;  // of what is no regular file
  std::size_t jobs = usable_processors();
  bool quiet = false;
  Settings settings;

  // If not empty, all there is to do is to print this (help, lists).
  std::string text_to_print;
};

// Throws an Error (usage) of one line.
Options parse_options(int argc, const char* const* argv);

}  // namespace se_tool
