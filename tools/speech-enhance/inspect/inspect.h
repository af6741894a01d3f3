// What the engine makes of a recording, stage by stage.
#pragma once

#include "enhance.h"

namespace se_tool {

// Runs the engine over task.mic (and task.ref) with task.settings and writes the sounds, the gains
// and the pictures that inspect_command.cpp lists into the folder task.output, which it makes. All
// are aligned with task.mic to the sample. On an Error the folder holds what it held before.
void inspect(const Task& task, const ProgressFunction& progress);

}  // namespace se_tool
