#include "ControlSignals.h"

#include <pthread.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>

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

int OpenControlSignalFd() {
    sigset_t set = ControlSet();
    return signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
}

int ReadControlSignal(int fd) {
    signalfd_siginfo info{};
    const ssize_t got = read(fd, &info, sizeof(info));
    return got == static_cast<ssize_t>(sizeof(info)) ? static_cast<int>(info.ssi_signo) : 0;
}

}  // namespace HostAgent
