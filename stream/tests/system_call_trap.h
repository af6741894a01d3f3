// Watches locks, and runs code where no system call is allowed; for one source file of a program.
#pragma once

#include <dlfcn.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>

inline thread_local std::size_t g_locks = 0;  // of this thread since the program started

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static auto* const next =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  ++g_locks;
  return next(mutex);
}
#endif

// Runs `code` in a process of its own in which every system call but exit is deadly. True if it
// lives through it, or where the kernel (an emulator) offers no such mode.
template <class Code>
bool runs_without_system_calls(const Code& code) {
  const pid_t child = fork();
  if (child == 0) {
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) _exit(0);
    code();
    syscall(SYS_exit, 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
