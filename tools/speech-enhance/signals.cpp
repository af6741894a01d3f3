#include "signals.h"

#include <poll.h>
#include <signal.h>

#include <cerrno>

#include "errors.h"

namespace se_tool {
namespace {

volatile sig_atomic_t g_signal = 0;

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

void remember(int signal) {
  g_signal = signal;
}

}  // namespace

void watch_signals() {
  struct sigaction action = {};
  action.sa_handler = remember;  // without SA_RESTART: a blocked read returns
  sigemptyset(&action.sa_mask);
  for (const int signal : kStopSignals) sigaction(signal, &action, nullptr);
  action.sa_handler = SIG_IGN;
  for (const int signal : {SIGPIPE, SIGXFSZ}) sigaction(signal, &action, nullptr);
}

int pending_signal() {
  return g_signal;
}

void forget_signal() {
  g_signal = 0;
}

bool wait_for(int descriptor, short events) {
  // Held back but while it waits: a signal between the look at it and the wait is not missed.
  sigset_t stop, usual;
  sigemptyset(&stop);
  for (const int signal : kStopSignals) sigaddset(&stop, signal);
  sigprocmask(SIG_BLOCK, &stop, &usual);
  pollfd waiting = {descriptor, events, 0};
  while (g_signal == 0 && ppoll(&waiting, 1, nullptr, &usual) < 0 && errno == EINTR) {
  }
  sigprocmask(SIG_SETMASK, &usual, nullptr);
  return g_signal == 0;
}

void throw_if_interrupted() {
  if (g_signal != 0) {
    throw Error(static_cast<int>(ExitCode::kSignal) + g_signal, "interrupted, nothing written");
  }
}

}  // namespace se_tool
