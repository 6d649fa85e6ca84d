// The supervisor's decisions without a process: restart back-off and renewal planning.
#include "Supervisor.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

using namespace std::chrono_literals;
using HostAgent::Supervisor;
using Event = Framework::Engine::TaskEvent;

Event TaskEvent(Event::Kind kind, const std::string& module, double ran = 0, bool byItself = false) {
    const std::vector<std::string> keys(module.empty() ? 0 : 1, "10001");
    return {kind, "port_scan_task", module, keys, ran, byItself};
}

TEST(SupervisorTest, OnlyAModuleTaskThatStoppedByItselfIsRestartedAfterABackOff) {
    Supervisor supervisor(60s, 0s, 3600s, 3600s);
    auto now = Supervisor::Clock::now();
    // Each stop: the task's module ("": an agent task), its run time, whether it stopped by itself (else
    // it was unregistered: shutdown, policy disable), and the restart delay that must follow (0: none).
    // The delay doubles to the cap and starts over after a steady run; the other stops leave it as it was.
    const std::tuple<const char*, double, bool, long> stops[] = {
        {"portscan", 5, true, 60},   {"portscan", 5, false, 0},    {"", 5, true, 0},
        {"portscan", 5, true, 120},  {"portscan", 5, true, 240},   {"portscan", 5, true, 480},
        {"portscan", 5, true, 960},  {"portscan", 5, true, 1920},  {"portscan", 5, true, 3600},
        {"portscan", 5, true, 3600}, {"portscan", 3600, true, 60}, {"portscan", 10, true, 120}};
    for (const auto& [module, ran, byItself, delay] : stops) {
        SCOPED_TRACE(std::string(module) + (byItself ? " stopped by itself after " : " unregistered after ") +
                     std::to_string(static_cast<long>(ran)) + " s");
        supervisor.OnStarted(TaskEvent(Event::Kind::Started, module), now);
        now += std::chrono::seconds(static_cast<long>(ran));
        EXPECT_EQ(supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, module, ran, byItself), now).count(),
                  delay);
        EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").state == Supervisor::State::Stopped, delay == 0);
        EXPECT_EQ(supervisor.NextDeadline(),
                  delay == 0 ? Supervisor::Clock::time_point::max() : now + std::chrono::seconds(delay));
        EXPECT_TRUE(supervisor.TakeDueRestarts(now + std::chrono::seconds(delay) - 1s).empty());
        now += std::chrono::seconds(delay);
        const auto due = supervisor.TakeDueRestarts(now);
        ASSERT_EQ(due.size(), delay == 0 ? 0u : 1u);
        EXPECT_TRUE(due.empty() || due[0].keys == std::vector<std::string>{"10001"});
        EXPECT_TRUE(supervisor.TakeDueRestarts(now).empty());  // once per stop
    }
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").restarts, 10);
}

TEST(SupervisorTest, RenewalIsPlannedFromEachStartAndIsNotARestart) {
    Supervisor supervisor(60s, 86400s, 3600s, 3600s);
    const auto start = Supervisor::Clock::now();
    supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), start);
    EXPECT_EQ(supervisor.NextDeadline(), start + 86400s);
    EXPECT_TRUE(supervisor.DueRenewals(start + 86399s).empty());
    ASSERT_EQ(supervisor.DueRenewals(start + 86400s), std::vector<std::string>{"port_scan_task"});
    supervisor.PostponeRenewal("port_scan_task", start + 86430s);
    EXPECT_TRUE(supervisor.DueRenewals(start + 86400s).empty());

    supervisor.MarkRenewing("port_scan_task");
    EXPECT_EQ(
        supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", 86430), start + 86430s).count(), 0);
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").stopReason, "renewal");
    supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), start + 86431s);
    EXPECT_EQ(supervisor.NextDeadline(), start + 86431s + 86400s);
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").restarts, 0);
    // A stop by itself later is a real one again.
    EXPECT_EQ(
        supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", 9, true), start + 86440s).count(),
        60);
}

}  // namespace
