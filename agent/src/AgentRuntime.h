#pragma once

#include "AgentConfig.h"
#include "ModuleHost.h"
#include "PolicyFeed.h"

#include <memory>
#include <string>

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
    void WarnWithoutCaptureCapability();
    bool StartBuiltinTasks();
    bool StartModules();
    void ServeUntilStopped();
    void ReopenFiles();
    void Shutdown();
    void Fail(const std::string& message);

    Framework::Engine& m_engine;
    AgentConfig m_config;
    ModuleHost m_modules;
    std::unique_ptr<PolicyFeed> m_feed;
    // Built-in tasks: created and owned here, registered without handing over ownership.
    Engine::DataCommReportTask* m_reportTask = nullptr;
    Engine::NetProcsFullTask* m_netProcsTask = nullptr;
    bool m_reportRegistered = false;
    bool m_netProcsRegistered = false;
};

}  // namespace HostAgent
