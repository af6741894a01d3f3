// What both kinds of pools know of processes.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace se_tool {

// As fork(); the child ends when its parent does. Throws an Error (internal).
pid_t fork_child();

// Waits until it has ended, and returns its status as waitpid() has it.
int wait_for_end(pid_t id);

// The processors that this process may use: a cluster gives it only some.
std::size_t usable_processors();

}  // namespace se_tool
