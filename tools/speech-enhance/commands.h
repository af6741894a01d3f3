// The tool's commands: `speech-enhance NAME ...`.
#pragma once

#include <string>

namespace se_tool {

struct Command {
  const char* name;
  const char* summary;
  // Gets the arguments from the command's name on. Returns the exit code or throws an Error.
  int (*run)(int argc, const char* const* argv);
};

// The command that the first argument names; null if it names none, which leaves it to be a
// recording or an option. A recording of a command's name is given as ./NAME or behind an option:
// what a line means does not depend on which files there are.
const Command* find_command(int argc, const char* const* argv);

// Name and summary of each, a line per command.
std::string list_commands();

}  // namespace se_tool
