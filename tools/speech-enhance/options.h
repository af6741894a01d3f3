// The command line.
#pragma once

#include <string>
#include <vector>

#include "settings.h"

namespace se_tool {

enum class StatisticsFormat { kNone, kText, kJson };

struct Options {
  std::vector<std::string> inputs;
  std::string ref;  // empty: none
  std::string output;
  std::string plot;  // empty: none
  bool as_float = false;
  StatisticsFormat statistics = StatisticsFormat::kNone;
  std::size_t jobs = 1;
  bool quiet = false;
  Settings settings;

  // If not empty, all there is to do is to print this (help, lists).
  std::string text_to_print;
};

// Throws an Error (usage) of one line.
Options parse_options(int argc, const char* const* argv);

}  // namespace se_tool
