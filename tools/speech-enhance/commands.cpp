#include "commands.h"

#include "batch/batch_command.h"
#include "command_line.h"
#include "inspect/inspect_command.h"
#include "live/live_command.h"
#include "summarise/summarise_command.h"

namespace se_tool {
namespace {

// In the order in which the help lists them.
constexpr Command kCommands[] = {
    {"batch", "Clean the recordings of a manifest: corpora, clusters", run_batch},
    {"summarise", "Make a report of the results of batch", run_summarise},
    {"live", "Clean sound on its way through a pipe: arecord, aplay", run_live},
    {"inspect", "Write what every stage of the engine makes of a recording", run_inspect},
};

}  // namespace

#if !SE_TOOL_HAS_LIVE
int run_live(int, const char* const*) {
  usage_error("live: not in this build, which lacks the streaming library (-DSE_BUILD_STREAM=ON)");
}
#endif

const Command* find_command(int argc, const char* const* argv) {
  for (const Command& command : kCommands) {
    if (argc > 1 && std::string(argv[1]) == command.name) return &command;
  }
  return nullptr;
}

std::string list_commands() {
  std::string text;
  for (const Command& command : kCommands) {
    std::string name = command.name;
    name.resize(12, ' ');
    text += "  " + name + command.summary + "\n";
  }
  return text;
}

}  // namespace se_tool
