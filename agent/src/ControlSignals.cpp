#include "ControlSignals.h"

#include <pthread.h>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace HostAgent {

namespace {

sigset_t ControlSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    return set;
}

}  // namespace

void BlockControlSignals() {
    sigset_t set = ControlSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int WaitForControlSignal(long timeoutMs) {
    sigset_t set = ControlSet();
    timespec timeout{};
    timeout.tv_sec = timeoutMs / 1000;
    timeout.tv_nsec = (timeoutMs % 1000) * 1000000L;
    int signal = sigtimedwait(&set, nullptr, &timeout);
    return signal > 0 ? signal : 0;  // time-out (EAGAIN) or another signal's handler ran (EINTR)
}

}  // namespace HostAgent
