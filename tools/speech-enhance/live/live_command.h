// speech-enhance live: cleans sound on its way through a pipe.
#pragma once

namespace se_tool {

// Returns the exit code or throws an Error.
int run_live(int argc, const char* const* argv);

}  // namespace se_tool
