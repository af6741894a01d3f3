// speech-enhance inspect MIC -o FOLDER
#pragma once

namespace se_tool {

// Returns the exit code or throws an Error.
int run_inspect(int argc, const char* const* argv);

}  // namespace se_tool
