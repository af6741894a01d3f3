#include "process_pool.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "errors.h"
#include "files.h"
#include "processes.h"
#include "signals.h"

namespace se_tool {
namespace {

constexpr int kPollMilliseconds = 100;

// The parts done, written by the processes and read by their parent.
class SharedFractions {
 public:
  explicit SharedFractions(std::size_t count) : bytes_(count * sizeof(Fraction)) {
    void* memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      throw Error(ExitCode::kInternal, "not enough memory: " + system_message(errno));
    }
    fractions_ = static_cast<Fraction*>(memory);
    for (std::size_t i = 0; i < count; ++i) new (fractions_ + i) Fraction(0);
  }
  ~SharedFractions() { munmap(fractions_, bytes_); }
  SharedFractions(const SharedFractions&) = delete;
  SharedFractions& operator=(const SharedFractions&) = delete;

  std::atomic<double>& operator[](std::size_t index) { return fractions_[index]; }

 private:
  using Fraction = std::atomic<double>;

  std::size_t bytes_;
  Fraction* fractions_;
};

struct Process {
  pid_t id;
  std::size_t index;  // of its work
  Descriptor result;  // what it has to say, until it ends
};

Outcome perform(const Work& work, std::size_t index, const ReportFraction& report) {
  try {
    return {0, work(index, report)};
  } catch (const Error& error) {
    return {error.code(), error.what()};
  } catch (const std::exception& error) {
    return {static_cast<int>(ExitCode::kInternal), error.what()};
  }
}

Process start(const Work& work, std::size_t index, std::atomic<double>& fraction) {
  int ends[2];
  if (pipe(ends) != 0) {
    throw Error(ExitCode::kInternal, "no pipe to a process: " + system_message(errno));
  }
  Descriptor result(ends[0]);
  Descriptor sink(ends[1]);
  if (const pid_t id = fork_child(); id > 0) return {id, index, std::move(result)};

  Outcome outcome = perform(work, index, [&](double part) { fraction = part; });
  try {
    write_all(sink.get(), outcome.text, "result");
  } catch (const Error&) {
    // Interrupted while writing: the code says enough.
  }
  _exit(outcome.code);
}

// Reads what has arrived; false at the end.
bool collect(const Process& process, std::string& text) {
  char buffer[4096];
  const ssize_t count = read(process.result.get(), buffer, sizeof buffer);
  if (count < 0) return errno == EINTR;
  text.append(buffer, static_cast<std::size_t>(count));
  return count > 0;
}

int wait_for(pid_t id, const std::string& name, std::string& text) {
  const int status = wait_for_end(id);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  text =
      name + ": the process that worked on it died of signal " + std::to_string(WTERMSIG(status));
  return static_cast<int>(ExitCode::kInternal);
}

}  // namespace

std::vector<Outcome> run_in_processes(const std::vector<std::string>& names, std::size_t jobs,
                                      const Work& work, const ReportFraction& report) {
  const std::size_t count = names.size();
  SharedFractions fractions(count);
  std::vector<Outcome> outcomes(count);
  std::vector<Process> running;
  std::size_t next = 0;
  bool passed_on = false;
  while (next < count || !running.empty()) {
    if (pending_signal() != 0) {
      for (; next < count; ++next) {
        outcomes[next] = {static_cast<int>(ExitCode::kSignal) + pending_signal(), "not started"};
      }
      if (!passed_on) {
        for (const Process& process : running) kill(process.id, pending_signal());
      }
      passed_on = true;
    }
    while (next < count && running.size() < jobs) {
      try {
        running.push_back(start(work, next, fractions[next]));
      } catch (const Error& error) {
        outcomes[next] = {error.code(), names[next] + ": " + error.what()};
      }
      ++next;
    }

    std::vector<pollfd> results;
    for (const Process& process : running) results.push_back({process.result.get(), POLLIN, 0});
    poll(results.data(), results.size(), kPollMilliseconds);
    for (std::size_t i = running.size(); i-- > 0;) {
      if (results[i].revents == 0) continue;
      Outcome& outcome = outcomes[running[i].index];
      if (collect(running[i], outcome.text)) continue;
      outcome.code = wait_for(running[i].id, names[running[i].index], outcome.text);
      fractions[running[i].index] = 1;
      running.erase(running.begin() + static_cast<std::ptrdiff_t>(i));
    }

    double done = 0;
    for (std::size_t i = 0; i < count; ++i) done += fractions[i];
    report(done / static_cast<double>(count));
  }
  return outcomes;
}

}  // namespace se_tool
