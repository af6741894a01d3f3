#include "signals.h"

#include <signal.h>

#include "errors.h"

namespace se_tool {
namespace {

volatile sig_atomic_t g_signal = 0;

void remember(int signal) {
  g_signal = signal;
}

}  // namespace

void watch_signals() {
  struct sigaction action = {};
  action.sa_handler = remember;  // without SA_RESTART: a blocked read returns
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
  action.sa_handler = SIG_IGN;
  for (const int signal : {SIGPIPE, SIGXFSZ}) sigaction(signal, &action, nullptr);
}

int pending_signal() {
  return g_signal;
}

void throw_if_interrupted() {
  if (g_signal != 0) {
    throw Error(static_cast<int>(ExitCode::kSignal) + g_signal, "interrupted, nothing written");
  }
}

}  // namespace se_tool
