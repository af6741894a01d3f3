#include "batch/worker_pool.h"

#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "errors.h"
#include "processes.h"
#include "signals.h"

namespace se_tool {
namespace {

constexpr int kPollMilliseconds = 100;
// One in work, one announced, and one on its way while the parent does not look.
constexpr std::size_t kJobsAhead = 3;

// Texts travel behind their length.
using Length = std::uint32_t;

void send_text(int socket, const std::string& text) {
  const auto length = static_cast<Length>(text.size());
  std::string message(reinterpret_cast<const char*>(&length), sizeof length);
  write_all(socket, message += text, "process");
}

// Takes the first whole text off the buffer.
std::optional<std::string> take_text(std::string& buffer) {
  Length length = 0;
  if (buffer.size() < sizeof length) return std::nullopt;
  std::memcpy(&length, buffer.data(), sizeof length);
  if (buffer.size() - sizeof length < length) return std::nullopt;
  std::string text = buffer.substr(sizeof length, length);
  buffer.erase(0, sizeof length + length);
  return text;
}

// Appends what there is to read: more than 0, 0 at the end, -1 if nothing is there without waiting.
ssize_t receive_some(int socket, std::string& buffer, bool wait) {
  char bytes[16384];
  const ssize_t count = recv(socket, bytes, sizeof bytes, wait ? 0 : MSG_DONTWAIT);
  if (count > 0) buffer.append(bytes, static_cast<std::size_t>(count));
  return count < 0 && errno != EAGAIN && errno != EINTR ? 0 : count;
}

// Jobs take and free the same few megabytes over and over: the system need not clear them each
// time.
void keep_freed_memory() {
#ifdef __GLIBC__
  constexpr int kMostKept = 8 << 20;
  mallopt(M_TRIM_THRESHOLD, kMostKept);
  mallopt(M_MMAP_THRESHOLD, kMostKept);
#endif
}

}  // namespace

WorkerPool::WorkerPool(std::size_t workers, Work work, Announce announce)
    : work_(std::move(work)), announce_(std::move(announce)) {
  while (workers_.size() < workers) workers_.push_back(start());
}

WorkerPool::~WorkerPool() {
  for (Worker& worker : workers_) {
    if (worker.id < 0) continue;
    worker.socket.close();  // the end of its jobs
    wait_for_end(worker.id);
  }
}

WorkerPool::Worker WorkerPool::start() const {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    throw Error(ExitCode::kInternal, "no socket to a process: " + system_message(errno));
  }
  Descriptor ours(ends[0]);
  Descriptor theirs(ends[1]);
  if (const pid_t id = fork_child(); id > 0) return {id, std::move(ours), {}, {}};

  ours.close();
  for (const Worker& sibling : workers_) ::close(sibling.socket.get());
  serve(theirs.get());
}

void WorkerPool::serve(int socket) const {
  keep_freed_memory();
  try {
    std::string buffer;
    std::optional<std::string> job;
    for (;;) {
      while (!job && !(job = take_text(buffer))) {
        if (receive_some(socket, buffer, true) == 0) _exit(0);
        throw_if_interrupted();
      }
      receive_some(socket, buffer, false);
      std::optional<std::string> following = take_text(buffer);
      if (following) announce_(*following);
      send_text(socket, work_(*job));
      job = std::move(following);
    }
  } catch (const Error& error) {
    _exit(error.code());
  } catch (const std::exception&) {
    _exit(static_cast<int>(ExitCode::kInternal));
  }
}

void WorkerPool::feed(Worker& worker, const Parent& parent) {
  while (worker.jobs.size() < kJobsAhead && pending_signal() == 0) {
    std::optional<std::string> job;
    if (!returned_.empty()) {
      job = std::move(returned_.front());
      returned_.pop_front();
    } else if (!exhausted_) {
      job = parent.next();
      exhausted_ = !job;
    }
    if (!job) return;
    worker.jobs.push_back(std::move(*job));
    try {
      send_text(worker.socket.get(), worker.jobs.back());
    } catch (const Error&) {
      return;  // it has died, which its socket is about to say
    }
  }
}

bool WorkerPool::receive(Worker& worker, const Parent& parent) {
  const ssize_t count = receive_some(worker.socket.get(), worker.received, false);
  while (std::optional<std::string> reply = take_text(worker.received)) {
    worker.jobs.pop_front();
    parent.done(*reply);
  }
  return count != 0;
}

void WorkerPool::bury(Worker& worker, const Parent& parent) {
  const int status = wait_for_end(worker.id);
  std::deque<std::string> jobs = std::move(worker.jobs);
  worker = {-1, Descriptor(), {}, {}};
  if (pending_signal() != 0) return;
  if (!jobs.empty()) {
    parent.died(jobs.front(), WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    std::move(std::next(jobs.begin()), jobs.end(), std::back_inserter(returned_));
  }
  worker = start();
}

void WorkerPool::run(const Parent& parent) {
  bool passed_on = false;
  for (;;) {
    if (pending_signal() != 0 && !passed_on) {
      for (const Worker& worker : workers_) {
        if (worker.id > 0) kill(worker.id, pending_signal());
      }
      passed_on = true;
    }
    std::vector<pollfd> sockets;
    bool busy = false;
    for (Worker& worker : workers_) {
      feed(worker, parent);
      busy = busy || !worker.jobs.empty();
      sockets.push_back({worker.socket.get(), POLLIN, 0});
    }
    if (!busy) return;
    poll(sockets.data(), sockets.size(), kPollMilliseconds);
    for (std::size_t i = 0; i < workers_.size(); ++i) {
      if (sockets[i].revents == 0 || receive(workers_[i], parent)) continue;
      bury(workers_[i], parent);
    }
    parent.idle();
  }
}

}  // namespace se_tool
