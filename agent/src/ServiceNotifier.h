#pragma once

#include <chrono>
#include <string>

namespace HostAgent {

// What the agent tells a service manager that started it with Type=notify (libsystemd's
// sd_notify): ready, its status line, watchdog pings and that it stops. Outside such a manager every
// call does nothing.
class ServiceNotifier {
public:
    ServiceNotifier();

    // The watchdog interval the manager asked for (WatchdogSec=); zero when there is none.
    std::chrono::milliseconds WatchdogInterval() const { return m_watchdog; }

    void Ready(const std::string& status);
    void Status(const std::string& status);
    void Ping();
    void Stopping();

private:
    std::chrono::milliseconds m_watchdog{0};
};

}  // namespace HostAgent
