#include "Supervisor.h"

#include <algorithm>

namespace HostAgent {

namespace {
constexpr Supervisor::Clock::time_point kNever = Supervisor::Clock::time_point::max();
}  // namespace

const char* Supervisor::StateName(State state) {
    switch (state) {
        case State::Running:
            return "running";
        case State::Restarting:
            return "restarting";
        default:
            return "stopped";
    }
}

Supervisor::Supervisor(std::chrono::seconds restartDelay, std::chrono::seconds renewAfter,
                       std::chrono::seconds delayCap, std::chrono::seconds steadyRun)
    : m_restartDelay(restartDelay),
      m_renewAfter(renewAfter),
      m_delayCap(std::max(delayCap, restartDelay)),
      m_steadyRun(steadyRun) {}

void Supervisor::OnStarted(const Framework::Engine::TaskEvent& event, Clock::time_point now) {
    TaskRecord& record = m_tasks[event.task];
    record.name = event.task;
    record.module = event.module;
    record.keys = event.keys;
    record.state = State::Running;
    record.ownStop = false;
    record.lastStart = WallClock::now();
    record.restartAt = kNever;
    const bool renewable = !event.module.empty() && !event.keys.empty() && m_renewAfter.count() > 0;
    record.renewAt = renewable ? now + m_renewAfter : kNever;
}

std::chrono::seconds Supervisor::OnStopped(const Framework::Engine::TaskEvent& event, Clock::time_point now) {
    TaskRecord& record = m_tasks[event.task];
    record.name = event.task;
    record.lastStop = WallClock::now();
    record.renewAt = kNever;
    record.restartAt = kNever;
    if (record.ownStop) {
        record.stopReason = "renewal";
        record.state = State::Restarting;  // the re-delivery follows at once
        return std::chrono::seconds(0);
    }
    if (!event.byItself || event.module.empty() || event.keys.empty()) {
        record.stopReason =
            event.byItself ? "returned by itself (" + std::to_string(event.result) + ")" : "unregistered";
        record.state = State::Stopped;
        return std::chrono::seconds(0);
    }
    record.stopReason = "returned by itself (" + std::to_string(event.result) + ")";
    if (event.runSeconds >= static_cast<double>(m_steadyRun.count())) {
        record.quickStops = 0;
    }
    std::chrono::seconds delay = m_restartDelay;
    for (int i = 0; i < record.quickStops && delay < m_delayCap; ++i) {
        delay *= 2;
    }
    delay = std::min(delay, m_delayCap);
    ++record.quickStops;
    record.state = State::Restarting;
    record.restartAt = now + delay;
    return delay;
}

std::vector<Supervisor::TaskRecord> Supervisor::TakeDueRestarts(Clock::time_point now) {
    std::vector<TaskRecord> due;
    for (auto& entry : m_tasks) {
        TaskRecord& record = entry.second;
        if (record.state == State::Restarting && record.restartAt != kNever && record.restartAt <= now) {
            record.restartAt = kNever;
            ++record.restarts;
            due.push_back(record);
        }
    }
    return due;
}

std::vector<std::string> Supervisor::DueRenewals(Clock::time_point now) const {
    std::vector<std::string> due;
    for (const auto& entry : m_tasks) {
        if (entry.second.state == State::Running && entry.second.renewAt <= now) {
            due.push_back(entry.first);
        }
    }
    return due;
}

void Supervisor::PostponeRenewal(const std::string& task, Clock::time_point until) {
    auto it = m_tasks.find(task);
    if (it != m_tasks.end()) {
        it->second.renewAt = until;
    }
}

void Supervisor::MarkRenewing(const std::string& task) {
    auto it = m_tasks.find(task);
    if (it != m_tasks.end()) {
        it->second.ownStop = true;
        it->second.renewAt = kNever;
    }
}

Supervisor::Clock::time_point Supervisor::NextDeadline() const {
    Clock::time_point next = kNever;
    for (const auto& entry : m_tasks) {
        next = std::min({next, entry.second.restartAt, entry.second.renewAt});
    }
    return next;
}

bool Supervisor::AllRunning() const {
    return std::all_of(m_tasks.begin(), m_tasks.end(),
                       [](const auto& entry) { return entry.second.state == State::Running; });
}

}  // namespace HostAgent
