// speech-enhance batch: the recordings of a manifest, restartable, in shards.
#pragma once

namespace se_tool {

// Returns the exit code or throws an Error.
int run_batch(int argc, const char* const* argv);

}  // namespace se_tool
