#pragma once

#include "AgentConfig.h"
#include "ModuleHost.h"
#include "PolicyFeed.h"
#include "ServiceNotifier.h"
#include "Supervisor.h"
#include "framework/Engine.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {
class Engine;
class Task;
}  // namespace Framework

namespace Engine {
class DataCommReportTask;
class NetProcsFullTask;
}  // namespace Engine

namespace HostAgent {

// The running agent: starts the built-in tasks, the modules and the policy feed in order, serves
// signals until asked to stop, and takes everything down in the reverse order.
class AgentRuntime {
public:
    AgentRuntime(Framework::Engine& engine, const AgentConfig& config);
    ~AgentRuntime();

    AgentRuntime(const AgentRuntime&) = delete;
    AgentRuntime& operator=(const AgentRuntime&) = delete;

    // Runs until SIGINT or SIGTERM. Returns the process exit code: 0 after an orderly stop,
    // non-zero when the agent could not start (the cause is logged, and written to stderr when the
    // log does not go to the console).
    int Run();

private:
    bool ConfigureLogging();
    void WarnAboutMissingCapabilities();
    bool StartBuiltinTasks();
    bool StartModules();
    void ServeUntilStopped();
    void ReopenFiles();
    void Shutdown();
    void Fail(const std::string& message);

    // The one way a policy text reaches the modules: lint findings are logged, the delivery is
    // recorded for the status file and for later re-deliveries.
    bool DeliverPolicyFile(const std::string& key, const std::string& name, const std::string& text);
    // Delivers again the last text of every key in `keys`.
    void Redeliver(const std::vector<std::string>& keys);
    // Supervision, on the control loop: task events taken from the queue, then due restarts and
    // renewals.
    void HandleTaskEvents();
    void RestartDueTasks();
    void RenewDueTasks();
    void WriteStatus();
    // One line for the service manager: tasks and alarms.
    std::string StatusLine() const;
    // Pings the service manager's watchdog when the report path makes progress too.
    void FeedWatchdog();
    // The metrics file: the agent's, its module tasks' and its report path's numbers.
    void WriteMetrics();
    // How the status and metrics name a sink: "stdout", its file or its socket path.
    static std::string SinkName(const Engine::ReportSink& sink);

    struct Delivery {
        std::string path;
        std::string name;
        std::string text;
        std::chrono::system_clock::time_point when;
        std::size_t warnings = 0;
    };

    Framework::Engine& m_engine;
    AgentConfig m_config;
    ModuleHost m_modules;
    std::unique_ptr<PolicyFeed> m_feed;
    // Built-in tasks: created and owned here, registered without handing over ownership.
    Engine::DataCommReportTask* m_reportTask = nullptr;
    Engine::NetProcsFullTask* m_netProcsTask = nullptr;
    bool m_reportRegistered = false;
    bool m_netProcsRegistered = false;

    Supervisor m_supervisor;
    std::mutex m_eventMutex;  // task events arrive on task threads
    std::vector<Framework::Engine::TaskEvent> m_events;
    std::map<std::string, Delivery> m_deliveries;         // by feature key
    std::map<std::string, std::string> m_policyProblems;  // by feature key: why a file is not in force
    std::chrono::system_clock::time_point m_startedAt;
    ServiceNotifier m_notifier;  // readiness, status and watchdog pings for systemd
    bool m_reportStuck = false;  // the last watchdog check found the report path stuck
    int m_signalFd = -1;         // readable when a control signal is pending
    int m_taskEventFd = -1;      // eventfd: task events wait in m_events
    bool m_statusDue = true;
    std::string m_statusProblem;   // last status write failure, logged once
    std::string m_metricsProblem;  // why the metrics file was last not written; "" when it was
};

}  // namespace HostAgent
