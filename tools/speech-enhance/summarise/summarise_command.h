// speech-enhance summarise: what came of a batch, for people and for programs.
#pragma once

namespace se_tool {

// Returns the exit code or throws an Error.
int run_summarise(int argc, const char* const* argv);

}  // namespace se_tool
