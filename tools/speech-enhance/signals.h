// Signals that ask the tool to stop, noticed between blocks of work so that everything that was
// begun is cleaned up on the way out.
#pragma once

namespace se_tool {

// Installs the handlers for SIGINT, SIGTERM and SIGHUP, and turns a broken pipe or a file size
// limit from a signal into a write error.
void watch_signals();

// The signal that asked the tool to stop, or 0.
int pending_signal();

// From here on as if none had, for the work that ends what a signal has stopped.
void forget_signal();

// Waits until the descriptor can be read (POLLIN) or written (POLLOUT) without waiting, or has
// failed. False if a signal asks to stop, also one that arrives meanwhile.
bool wait_for(int descriptor, short events);

// Throws an Error (128 + signal) if one has.
void throw_if_interrupted();

}  // namespace se_tool
