#include "AgentRuntime.h"

#include "AgentTunables.h"
#include "ControlSignals.h"
#include "Privileges.h"
#include "builtin_tasks/DataCommReportTask.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "framework/ConfigManager.h"
#include "framework/Engine.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LogStatement.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>
#include <Poco/Util/Application.h>

#include <chrono>
#include <csignal>
#include <iostream>

namespace HostAgent {

namespace {

using Clock = std::chrono::steady_clock;

long MillisecondsUntil(Clock::time_point when) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - Clock::now()).count();
    return left > 0 ? static_cast<long>(left) : 0;
}

}  // namespace

AgentRuntime::AgentRuntime(Framework::Engine& engine, const AgentConfig& config)
    : m_engine(engine), m_config(config), m_modules(engine) {}

AgentRuntime::~AgentRuntime() {
    Shutdown();
}

int AgentRuntime::Run() {
    if (!ConfigureLogging()) {
        return Poco::Util::Application::EXIT_CONFIG;
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] hostagent starting with %s", m_config.file);
    WarnWithoutCaptureCapability();
    Framework::ConfigManager::GetInstance()->SetConnectConfig(m_config.connect);
    SDK::InnerCpuCtrlUtils::SetCpuLimitPercent(m_config.cpuLimitPercent);

    if (!StartBuiltinTasks() || !StartModules()) {
        Shutdown();
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
    m_feed.reset(new PolicyFeed(
        m_config.policies, [this](const std::string& key, const std::string& name, const std::string& text) {
            return m_engine.DeliverPolicy(key, name, text);
        }));
    m_feed->Poll();
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION,
                 "[Agent] hostagent running: %z module(s), %z policy file(s)", m_modules.GetRunningCount(),
                 m_config.policies.size());

    ServeUntilStopped();
    Shutdown();
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] hostagent stopped");
    return Poco::Util::Application::EXIT_OK;
}

bool AgentRuntime::ConfigureLogging() {
    if (!m_config.log.file.empty()) {
        try {
            Poco::File(Poco::Path(m_config.log.file).parent()).createDirectories();
        } catch (const Poco::Exception& e) {
            std::cerr << "hostagent: " << m_config.file << ": cannot create the folder of log file "
                      << m_config.log.file << ": " << e.displayText() << std::endl;
            return false;
        }
    }
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(m_config.log, error)) {
        std::cerr << "hostagent: " << m_config.file << ": cannot set up logging: " << error << std::endl;
        return false;
    }
    return true;
}

void AgentRuntime::WarnWithoutCaptureCapability() {
    if (CheckCaptureCapability() == CaptureCapability::Missing) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Agent] No CAP_NET_RAW: packet capture will fail; run as root or grant CAP_NET_RAW");
    }
}

bool AgentRuntime::StartBuiltinTasks() {
    // The report task comes first so that it is there for anything any later task sends.
    m_reportTask = new Engine::DataCommReportTask(m_config.sinks);
    m_reportRegistered = m_engine.RegisterTask(m_reportTask, false);
    if (!m_reportRegistered) {
        Fail("cannot start " + std::string(Engine::DataCommReportTask::kTaskName) +
             " (is every report sink writable?)");
        return false;
    }
    m_netProcsTask = new Engine::NetProcsFullTask(kNetProcRefreshMs);
    m_netProcsRegistered = m_engine.RegisterTask(m_netProcsTask, false);
    if (!m_netProcsRegistered) {
        Fail("cannot start " + std::string(Engine::NetProcsFullTask::kTaskName));
        return false;
    }
    return true;
}

bool AgentRuntime::StartModules() {
    for (const std::string& path : m_config.modules) {
        std::string error;
        if (!m_modules.Load(path, error)) {
            Fail(error);
            return false;
        }
    }
    return true;
}

void AgentRuntime::ServeUntilStopped() {
    auto nextPoll = Clock::now() + std::chrono::milliseconds(kPolicyPollIntervalMs);
    auto nextReclaim = Clock::now() + std::chrono::milliseconds(kReclaimIntervalMs);
    for (;;) {
        int signal = WaitForControlSignal(MillisecondsUntil(std::min(nextPoll, nextReclaim)));
        if (signal == SIGINT || signal == SIGTERM) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] Signal %d received, shutting down",
                         signal);
            return;
        }
        if (signal == SIGHUP) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION,
                         "[Agent] SIGHUP received, delivering every policy again");
            m_feed->DeliverAll();
        }
        if (signal == SIGUSR1) {
            ReopenFiles();
        }
        if (Clock::now() >= nextPoll) {
            m_feed->Poll();
            nextPoll = Clock::now() + std::chrono::milliseconds(kPolicyPollIntervalMs);
        }
        if (Clock::now() >= nextReclaim) {
            m_engine.ReclaimPolicies();
            nextReclaim = Clock::now() + std::chrono::milliseconds(kReclaimIntervalMs);
        }
    }
}

// After a rotation: the log (and module log files) and the alarm files are opened again by path.
// Lines logged meanwhile went to the rotated files, so none is lost.
void AgentRuntime::ReopenFiles() {
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION,
                 "[Agent] SIGUSR1 received, reopening the log and alarm files");
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(m_config.log, error)) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] Cannot reopen the log: %s", error);
    }
    m_reportTask->RequestReopen();
}

void AgentRuntime::Shutdown() {
    if (m_feed) {
        m_feed->Stop();
    }
    m_modules.StopAll();
    // The report task goes last: it drains what the modules sent while they stopped.
    if (m_netProcsTask != nullptr) {
        if (m_netProcsRegistered) {
            m_engine.UnRegisterTask(Engine::NetProcsFullTask::kTaskName);
        }
        m_netProcsTask->release();
        m_netProcsTask = nullptr;
    }
    if (m_reportTask != nullptr) {
        if (m_reportRegistered) {
            m_engine.UnRegisterTask(Engine::DataCommReportTask::kTaskName);
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] %z alarm(s) reported",
                         m_reportTask->GetReportedCount());
        }
        m_reportTask->release();
        m_reportTask = nullptr;
    }
    m_modules.CloseLibraries();
}

void AgentRuntime::Fail(const std::string& message) {
    SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] %s", message);
    if (!m_config.log.console) {
        std::cerr << "hostagent: " << message << std::endl;
    }
}

}  // namespace HostAgent
