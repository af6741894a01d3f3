#include "processes.h"

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "errors.h"

namespace se_tool {

pid_t fork_child() {
  const pid_t parent = getpid();
  const pid_t id = fork();
  if (id < 0) throw Error(ExitCode::kInternal, "no further process: " + system_message(errno));
  if (id > 0) return id;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(static_cast<int>(ExitCode::kInternal));
  return 0;
}

int wait_for_end(pid_t id) {
  int status = 0;
  while (waitpid(id, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

std::size_t usable_processors() {
  cpu_set_t processors;
  if (sched_getaffinity(0, sizeof processors, &processors) != 0) return 1;
  return static_cast<std::size_t>(std::max(1, CPU_COUNT(&processors)));
}

}  // namespace se_tool
