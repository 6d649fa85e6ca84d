#pragma once

#include "framework/Engine.h"

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace HostAgent {

// Keeps the modules' tasks alive and fresh: it follows every task start and stop, schedules a
// restart (with back-off) when a module's task stopped by itself, and a renewal of each module task
// every `renewAfter`. It only decides; the runtime acts (unregisters, re-delivers policies) and
// reports back through OnStarted/OnStopped. Times come from the caller; not thread-safe.
class Supervisor {
public:
    using Clock = std::chrono::steady_clock;
    using WallClock = std::chrono::system_clock;

    enum class State { Running, Stopped, Restarting };
    static const char* StateName(State state);

    struct TaskRecord {
        std::string name;
        std::string module;             // empty for the agent's own tasks
        std::vector<std::string> keys;  // feature keys of the owning module
        State state = State::Stopped;
        int restarts = 0;      // restarts made by the supervisor
        int quickStops = 0;    // stops since the task last ran steadily: the back-off exponent
        bool ownStop = false;  // the runtime is taking it down for a renewal
        WallClock::time_point lastStart{};
        WallClock::time_point lastStop{};
        std::string stopReason;
        Clock::time_point restartAt{};
        Clock::time_point renewAt{};  // Clock::time_point::max() when no renewal is planned
    };

    Supervisor(std::chrono::seconds restartDelay, std::chrono::seconds renewAfter,
               std::chrono::seconds delayCap, std::chrono::seconds steadyRun);

    void OnStarted(const Framework::Engine::TaskEvent& event, Clock::time_point now);
    // Returns the restart delay when a restart was scheduled, zero otherwise.
    std::chrono::seconds OnStopped(const Framework::Engine::TaskEvent& event, Clock::time_point now);

    // Tasks whose restart is due; they are counted as restarted (the caller re-delivers).
    std::vector<TaskRecord> TakeDueRestarts(Clock::time_point now);
    // Running module tasks whose renewal is due. The caller renews them (MarkRenewing first) or
    // puts them off (PostponeRenewal).
    std::vector<std::string> DueRenewals(Clock::time_point now) const;
    void PostponeRenewal(const std::string& task, Clock::time_point until);
    void MarkRenewing(const std::string& task);

    // The earliest planned restart or renewal; Clock::time_point::max() when none.
    Clock::time_point NextDeadline() const;

    // True when every task that ever started is running now.
    bool AllRunning() const;
    const std::map<std::string, TaskRecord>& GetTasks() const { return m_tasks; }

private:
    std::chrono::seconds m_restartDelay;
    std::chrono::seconds m_renewAfter;
    std::chrono::seconds m_delayCap;
    std::chrono::seconds m_steadyRun;
    std::map<std::string, TaskRecord> m_tasks;
};

}  // namespace HostAgent
