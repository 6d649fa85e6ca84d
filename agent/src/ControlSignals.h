#pragma once

namespace HostAgent {

// The agent takes SIGHUP, SIGINT, SIGTERM and SIGUSR1 (reopen the log and alarm files after a
// rotation) synchronously on its control loop, never in a handler.

// Blocks the four signals in the calling thread and ignores SIGPIPE (a closed stdout must fail a
// write, not end the agent). Call first in main(), before any thread exists, so that every thread
// inherits the mask and none of them takes the signals.
void BlockControlSignals();

// Waits up to `timeoutMs` for one of the four signals. Returns its number, or 0 on time-out.
int WaitForControlSignal(long timeoutMs);

}  // namespace HostAgent
