#pragma once

namespace HostAgent {

// The agent takes SIGHUP, SIGINT, SIGTERM and SIGUSR1 (reopen the log and alarm files after a
// rotation) synchronously on its control loop, never in a handler.

// Blocks the four signals in the calling thread and ignores SIGPIPE (a closed stdout must fail a
// write, not end the agent). Call first in main(), before any thread exists, so that every thread
// inherits the mask and none of them takes the signals.
void BlockControlSignals();

// A non-blocking descriptor that becomes readable when one of the four signals is pending, so the
// control loop can wait for signals and other events in one poll. -1 on failure (errno set).
int OpenControlSignalFd();

// Takes one pending signal from `fd`. Returns its number, or 0 when none is pending.
int ReadControlSignal(int fd);

}  // namespace HostAgent
