// Processes that work through many small jobs, one after another.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "files.h"

namespace se_tool {

// Jobs and replies are texts. Processes are forked when the pool is made: what the parent gathers
// later is not theirs to carry. A process that dies takes one job with it, the one that it worked
// on; another process takes its place.
class WorkerPool {
 public:
  // In the worker's process: does a job and returns its reply. What it throws ends the process.
  using Work = std::function<std::string(const std::string& job)>;
  // In the worker's process, while the job before it is still to be done: a job that comes next.
  using Announce = std::function<void(const std::string& job)>;

  // Throws an Error (internal).
  WorkerPool(std::size_t workers, Work work, Announce announce);
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  struct Parent {
    std::function<std::optional<std::string>()> next;  // the next job; none: that was all
    std::function<void(const std::string& reply)> done;
    std::function<void(const std::string& job, int signal)> died;  // while it worked on the job
    std::function<void()> idle;                                    // several times a second
  };

  // Works until there are no more jobs and all are done. When a signal asks to stop (signals.h),
  // passes it on and waits; jobs in work are then given up without a word.
  void run(const Parent& parent);

 private:
  struct Worker {
    pid_t id = -1;
    Descriptor socket;
    std::deque<std::string> jobs;  // sent, the first of them in work
    std::string received;
  };

  Worker start() const;
  [[noreturn]] void serve(int socket) const;
  void feed(Worker& worker, const Parent& parent);
  bool receive(Worker& worker, const Parent& parent);
  void bury(Worker& worker, const Parent& parent);

  Work work_;
  Announce announce_;
  std::vector<Worker> workers_;
  std::deque<std::string> returned_;  // jobs that dead workers had not begun
  bool exhausted_ = false;
};

}  // namespace se_tool
