// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "files.h"
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
  std::size_t jobs = 1;
  bool quiet = false;
  Settings settings;

  // If not empty, all there is to do is to print this (help, lists).
  std::string text_to_print;
};

// The value of --delay in ms; none for "auto" and where it is not given. Throws an Error (usage).
std::optional<int> parse_delay(const std::string& text);

// Throws an Error (usage) of one line.
Options parse_options(int argc, const char* const* argv);

}  // namespace se_tool
