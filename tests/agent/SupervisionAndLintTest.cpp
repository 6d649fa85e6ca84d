// The supervisor's decisions without a process: restart back-off and renewal planning.
#include "Supervisor.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using HostAgent::Supervisor;
using Event = Framework::Engine::TaskEvent;

Event TaskEvent(Event::Kind kind, const std::string& module, double ran = 0, bool byItself = false) {
    const std::vector<std::string> keys(module.empty() ? 0 : 1, "10001");
    return {kind, "port_scan_task", module, keys, ran, byItself};
}

TEST(SupervisorTest, BackOffDoublesToTheCapAndResetsAfterASteadyRun) {
    Supervisor supervisor(60s, 0s, 3600s, 3600s);
    auto now = Supervisor::Clock::now();
    // Run time before each stop by itself, and the restart delay that must follow.
    const std::pair<double, long> stops[] = {{5, 60},   {5, 120},  {5, 240},  {5, 480},   {5, 960},
                                             {5, 1920}, {5, 3600}, {5, 3600}, {3600, 60}, {10, 120}};
    for (const auto& [ran, delay] : stops) {
        supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), now);
        now += std::chrono::seconds(static_cast<long>(ran));
        EXPECT_EQ(supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", ran, true), now).count(),
                  delay)
            << "after a run of " << ran << " s";
        EXPECT_EQ(supervisor.NextDeadline(), now + std::chrono::seconds(delay));
        EXPECT_TRUE(supervisor.TakeDueRestarts(now + std::chrono::seconds(delay) - 1s).empty());
        now += std::chrono::seconds(delay);
        const auto due = supervisor.TakeDueRestarts(now);
        ASSERT_EQ(due.size(), 1u);
        EXPECT_EQ(due[0].keys, std::vector<std::string>{"10001"});
        EXPECT_TRUE(supervisor.TakeDueRestarts(now).empty());  // once per stop
    }
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").restarts, 10);
}

TEST(SupervisorTest, OnlyAModuleTaskThatStoppedByItselfIsRestarted) {
    const auto now = Supervisor::Clock::now();
    for (const auto& [what, module, byItself] :
         {std::tuple{"unregistered (shutdown, policy disable)", "portscan", false},
          {"an agent task that returned", "", true}}) {
        SCOPED_TRACE(what);
        Supervisor supervisor(60s, 0s, 3600s, 3600s);
        supervisor.OnStarted(TaskEvent(Event::Kind::Started, module), now);
        EXPECT_EQ(supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, module, 5, byItself), now).count(), 0);
        EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").state, Supervisor::State::Stopped);
        EXPECT_EQ(supervisor.NextDeadline(), Supervisor::Clock::time_point::max());
    }
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
