// speech-enhance MIC... -o OUT: what the tool does without the name of a command.
#pragma once

namespace se_tool {

// Returns the exit code or throws an Error.
int run_enhance(int argc, const char* const* argv);

}  // namespace se_tool
