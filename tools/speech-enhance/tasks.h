// From the file arguments to the recordings to enhance and where each goes.
#pragma once

#include <string>
#include <vector>

#include "options.h"
#include "task.h"

namespace se_tool {

// One task per recording. Folders among the inputs stand for the audio files in them. Throws an
// Error (usage) for combinations that cannot work: an output that is an input (through whatever
// links), two outputs of one name, several recordings into one file, a file named after a format
// that it will not have. Creates the folders that the outputs go to, after everything else has been
// checked.
std::vector<Task> plan_tasks(const Options& options);

}  // namespace se_tool
