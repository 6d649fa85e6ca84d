#include "ServiceNotifier.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace HostAgent {

ServiceNotifier::ServiceNotifier() {
    std::uint64_t usec = 0;
    // 0 leaves WATCHDOG_USEC in the environment: a program the agent starts is no service of it.
    if (sd_watchdog_enabled(0, &usec) > 0) {
        m_watchdog = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::microseconds(usec));
    }
}

void ServiceNotifier::Ready(const std::string& status) {
    sd_notify(0, ("READY=1\nSTATUS=" + status).c_str());
}

void ServiceNotifier::Status(const std::string& status) {
    sd_notify(0, ("STATUS=" + status).c_str());
}

void ServiceNotifier::Ping() {
    sd_notify(0, "WATCHDOG=1");
}

void ServiceNotifier::Stopping() {
    sd_notify(0, "STOPPING=1\nSTATUS=stopping");
}

}  // namespace HostAgent
