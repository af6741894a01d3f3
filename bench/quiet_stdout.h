// Sends standard output to /dev/null while it lives: the engine prints lines when it is created and
// configured, which would drown the benchmark's own.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace se_bench {

class QuietStdout {
 public:
  QuietStdout() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    close(null);
  }
  ~QuietStdout() {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  QuietStdout(const QuietStdout&) = delete;
  QuietStdout& operator=(const QuietStdout&) = delete;

 private:
  int saved_;
};

}  // namespace se_bench
