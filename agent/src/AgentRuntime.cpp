#include "AgentRuntime.h"

#include "AgentTunables.h"
#include "ControlSignals.h"
#include "MetricsFile.h"
#include "PolicyLint.h"
#include "Privileges.h"
#include "StatusFile.h"
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

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace HostAgent {

namespace {

using Clock = std::chrono::steady_clock;

using Millis = std::chrono::milliseconds;

std::string JoinKeys(const std::vector<std::string>& keys) {
    std::string joined;
    for (const std::string& key : keys) {
        joined += (joined.empty() ? "" : ",") + key;
    }
    return joined;
}

// Rounded up, so that the wait never ends just before `when` and spins until it comes.
int MillisecondsUntil(Clock::time_point when) {
    const Millis left = std::chrono::ceil<Millis>(when - Clock::now());
    return static_cast<int>(std::clamp<Millis::rep>(left.count(), 0, kStatusIntervalMs));
}

}  // namespace

AgentRuntime::AgentRuntime(Framework::Engine& engine, const AgentConfig& config)
    : m_engine(engine),
      m_config(config),
      m_modules(engine),
      m_supervisor(std::chrono::seconds(config.restartDelaySeconds),
                   std::chrono::seconds(config.renewAfterSeconds),
                   std::chrono::seconds(kRestartDelayCapSeconds), std::chrono::seconds(kSteadyRunSeconds)),
      m_startedAt(std::chrono::system_clock::now()) {}

AgentRuntime::~AgentRuntime() {
    Shutdown();
    for (int fd : {m_signalFd, m_taskEventFd}) {
        if (fd >= 0) {
            close(fd);
        }
    }
}

int AgentRuntime::Run() {
    if (!ConfigureLogging()) {
        return Poco::Util::Application::EXIT_CONFIG;
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] hostagent starting with %s", m_config.file);
    WarnAboutMissingCapabilities();
    Framework::ConfigManager::GetInstance()->SetConnectConfig(m_config.connect);
    SDK::InnerCpuCtrlUtils::SetCpuLimitPercent(m_config.cpuLimitPercent);
    m_signalFd = OpenControlSignalFd();
    m_taskEventFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_signalFd < 0 || m_taskEventFd < 0) {
        Fail(std::string("cannot set up the control loop: ") + std::strerror(errno));
        return Poco::Util::Application::EXIT_OSERR;
    }
    m_engine.SetTaskObserver([this](const Framework::Engine::TaskEvent& event) {
        {
            std::lock_guard<std::mutex> lock(m_eventMutex);
            m_events.push_back(event);
        }
        // Wakes the control loop; a counter that cannot take more wakes it all the same.
        const std::uint64_t one = 1;
        (void)!write(m_taskEventFd, &one, sizeof(one));
    });

    if (!StartBuiltinTasks() || !StartModules()) {
        Shutdown();
        return Poco::Util::Application::EXIT_SOFTWARE;
    }
    m_feed.reset(new PolicyFeed(
        m_config.policies,
        [this](const std::string& key, const std::string& name, const std::string& text) {
            return DeliverPolicyFile(key, name, text);
        },
        [this](const std::string& key, const std::string& problem) {
            m_policyProblems[key] = problem;
            m_statusDue = true;
        },
        [this](const std::string& key, const std::string& text) { return m_modules.RefusalOf(key, text); }));
    m_feed->Poll();
    HandleTaskEvents();
    WriteStatus();
    m_notifier.Ready(StatusLine());
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

void AgentRuntime::WarnAboutMissingCapabilities() {
    for (const NeededCapability& cap : MissingCapabilities()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Agent] No %s: %s; run as root or grant %s",
                     std::string(cap.name), std::string(cap.effect), std::string(cap.name));
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

// Sleeps until a signal, a policy change, a task event or the next deadline: nothing wakes the
// control loop of an idle agent but the status file's interval.
void AgentRuntime::ServeUntilStopped() {
    const Millis statusEvery(m_config.metricsFile.empty() ? kStatusIntervalMs : kMetricsIntervalMs);
    auto nextStatus = Clock::now() + statusEvery;
    auto nextReclaim = Clock::time_point::max();
    // Pinged at half the manager's interval, so one late wake-up does not cost the agent its life.
    const Millis pingEvery = m_notifier.WatchdogInterval() / 2;
    auto nextPing = pingEvery.count() > 0 ? Clock::now() : Clock::time_point::max();
    for (;;) {
        if (m_engine.GetRetiredPolicyCount() == 0) {
            nextReclaim = Clock::time_point::max();
        } else if (nextReclaim == Clock::time_point::max()) {
            nextReclaim = Clock::now() + Millis(kReclaimIntervalMs);
        }
        const Clock::time_point wake =
            std::min({nextStatus, nextReclaim, nextPing, m_supervisor.NextDeadline(), m_feed->NextPollDue(),
                      SDK::LoggerUtils::GetInstance()->NextSummaryDue()});
        pollfd waits[] = {
            {m_signalFd, POLLIN, 0}, {m_feed->GetChangeFd(), POLLIN, 0}, {m_taskEventFd, POLLIN, 0}};
        poll(waits, sizeof(waits) / sizeof(waits[0]), MillisecondsUntil(wake));  // EINTR: look again

        const int signal = ReadControlSignal(m_signalFd);
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
        if ((waits[1].revents & POLLIN) != 0) {
            m_feed->HandleChanges();
        }
        m_feed->PollUnwatched();
        if (Clock::now() >= nextReclaim) {
            m_engine.ReclaimPolicies();
            nextReclaim = Clock::time_point::max();
        }
        std::uint64_t count = 0;
        (void)!read(m_taskEventFd, &count, sizeof(count));  // events are taken below in any case
        HandleTaskEvents();
        RestartDueTasks();
        RenewDueTasks();
        HandleTaskEvents();
        SDK::LoggerUtils::GetInstance()->FlushSuppressedLines(false);
        if (m_statusDue || Clock::now() >= nextStatus) {
            WriteStatus();
            nextStatus = Clock::now() + statusEvery;
        }
        if (Clock::now() >= nextPing) {
            FeedWatchdog();
            nextPing = Clock::now() + pingEvery;
        }
    }
}

bool AgentRuntime::DeliverPolicyFile(const std::string& key, const std::string& name,
                                     const std::string& text) {
    std::string path = name;
    for (const PolicySource& source : m_config.policies) {
        path = source.key == key ? source.path : path;
    }
    auto known = m_deliveries.find(key);
    std::size_t warnings = 0;
    if (known != m_deliveries.end() && known->second.text == text) {
        warnings = known->second.warnings;  // said once for this text already
    } else {
        const std::vector<std::string> findings = LintPolicy(m_modules, key, path, text);
        for (const std::string& finding : findings) {
            // Each distinct finding has a budget of its own: they all stand on this one line.
            SDK_ROOT_LOG_BUDGETED(Poco::Message::PRIO_WARNING, SDK::LogBudget::kPerText, "[Policy] %s",
                                  finding);
        }
        warnings = findings.size();
    }
    const bool delivered = m_engine.DeliverPolicy(key, name, text);
    if (delivered) {
        m_deliveries[key] = Delivery{path, name, text, std::chrono::system_clock::now(), warnings};
        m_statusDue = true;
    }
    return delivered;
}

void AgentRuntime::Redeliver(const std::vector<std::string>& keys) {
    for (const std::string& key : keys) {
        auto it = m_deliveries.find(key);
        if (it == m_deliveries.end()) {
            continue;
        }
        const Delivery delivery = it->second;
        if (!DeliverPolicyFile(key, delivery.name, delivery.text)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] Delivering policy key %s again failed", key);
        }
    }
}

void AgentRuntime::HandleTaskEvents() {
    std::vector<Framework::Engine::TaskEvent> events;
    {
        std::lock_guard<std::mutex> lock(m_eventMutex);
        events.swap(m_events);
    }
    for (const Framework::Engine::TaskEvent& event : events) {
        m_statusDue = true;
        if (event.kind == Framework::Engine::TaskEvent::Kind::Started) {
            m_supervisor.OnStarted(event, Clock::now());
            continue;
        }
        const std::chrono::seconds delay = m_supervisor.OnStopped(event, Clock::now());
        if (delay.count() > 0) {
            SDK_ROOT_LOG(
                Poco::Message::PRIO_WARNING,
                "[Agent] Task %s of module %s stopped by itself after %ld s; it starts again in %ld s",
                event.task, event.module, static_cast<long>(event.runSeconds),
                static_cast<long>(delay.count()));
        }
    }
}

void AgentRuntime::RestartDueTasks() {
    for (const Supervisor::TaskRecord& task : m_supervisor.TakeDueRestarts(Clock::now())) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Agent] Restarting task %s (restart %d): delivering policy key(s) %s again", task.name,
                     task.restarts, JoinKeys(task.keys));
        // The module starts its task again only when none of that name is registered.
        m_engine.UnRegisterTask(task.name);
        Redeliver(task.keys);
        m_statusDue = true;
    }
}

void AgentRuntime::RenewDueTasks() {
    const Clock::time_point now = Clock::now();
    std::vector<std::string> due = m_supervisor.DueRenewals(now);
    if (due.empty()) {
        return;
    }
    // Renew right after the modules' minute work, when no alarm is waiting in a task.
    const Clock::time_point lastWork = m_netProcsTask->GetLastReadTime();
    const Millis since = std::chrono::duration_cast<Millis>(now - lastWork);
    const bool idle = lastWork.time_since_epoch().count() == 0 || since >= Millis(kNoMinuteWorkMs);
    if (!idle && (since < Millis(kRenewAfterWorkMinMs) || since > Millis(kRenewAfterWorkMaxMs))) {
        Clock::time_point until = now + Millis(kLateMinuteWorkRetryMs);  // late work: look again soon
        if (since < Millis(kRenewAfterWorkMinMs)) {
            until = lastWork + Millis(kRenewAfterWorkMinMs);
        } else if (since < Millis(kMinuteWorkPeriodMs)) {
            until = lastWork + Millis(kMinuteWorkPeriodMs) + Millis(kRenewAfterWorkMinMs);
        }
        for (const std::string& task : due) {
            m_supervisor.PostponeRenewal(task, until);
        }
        return;
    }
    for (const std::string& name : due) {
        const auto found = m_supervisor.GetTasks().find(name);
        const std::vector<std::string> keys = found->second.keys;
        SDK_ROOT_LOG(
            Poco::Message::PRIO_INFORMATION,
            "[Agent] Renewing task %s (every %ld s): unregistering it and delivering policy key(s) %s again",
            name, m_config.renewAfterSeconds, JoinKeys(keys));
        m_supervisor.MarkRenewing(name);
        m_engine.UnRegisterTask(name);
        HandleTaskEvents();
        Redeliver(keys);
    }
}

void AgentRuntime::WriteMetrics() {
    using Framework::TaskMetric;
    std::vector<TaskMetric> metrics = {{"hostagent_up", "gauge", "1 while the agent runs.", "", 1}};
    for (const auto& [name, task] : m_supervisor.GetTasks()) {
        const std::string label = Label("task", name);
        metrics.push_back({"hostagent_task_running", "gauge", "1 while the module task runs.", label,
                           Supervisor::StateName(task.state) == std::string("running") ? 1.0 : 0.0});
        metrics.push_back({"hostagent_task_restarts_total", "counter",
                           "Restarts of the module task after it stopped by itself.", label,
                           static_cast<double>(task.restarts)});
        if (Framework::Task* running = m_engine.FindTask(name)) {
            for (TaskMetric metric : running->GetMetrics()) {
                metric.labels = metric.labels.empty() ? label : label + "," + metric.labels;
                metrics.push_back(metric);
            }
        }
    }
    if (m_reportTask != nullptr) {
        for (const auto& [classId, count] : m_reportTask->GetAlarmsByClass()) {
            metrics.push_back({"hostagent_alarms_total", "counter",
                               "Alarm documents reported, by event class.", Label("class", classId),
                               static_cast<double>(count)});
        }
        const std::vector<std::size_t> pending = m_reportTask->GetPendingBytes();
        for (std::size_t i = 0; i < m_config.sinks.size(); ++i) {
            const Engine::ReportSink& sink = m_config.sinks[i];
            const std::string label = Label("sink", SinkName(sink));
            metrics.push_back({"hostagent_sink_alarms_total", "counter",
                               "Alarm documents handed to the sink.", label,
                               static_cast<double>(m_reportTask->GetReportedCount())});
            metrics.push_back({"hostagent_sink_pending_bytes", "gauge",
                               "Bytes of alarms the sink took and has not delivered (its spool or queue).",
                               label, static_cast<double>(i < pending.size() ? pending[i] : 0)});
        }
    }
    std::string error;
    if (!WriteMetricsFile(m_config.metricsFile, PrometheusText(metrics), error)) {
        if (error != m_metricsProblem) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] Metrics file not written: %s", error);
        }
        m_metricsProblem = error;
    } else {
        m_metricsProblem.clear();
    }
}

std::string AgentRuntime::StatusLine() const {
    std::size_t running = 0;
    for (const auto& entry : m_supervisor.GetTasks()) {
        running += Supervisor::StateName(entry.second.state) == std::string("running") ? 1 : 0;
    }
    const std::size_t reported = m_reportTask != nullptr ? m_reportTask->GetReportedCount() : 0;
    return std::to_string(running) + " of " + std::to_string(m_supervisor.GetTasks().size()) +
           " module task(s) running; " + std::to_string(reported) + " alarm(s) reported";
}

void AgentRuntime::FeedWatchdog() {
    // The control loop is alive (it is here); the report thread must be too, or alarms pile up.
    const bool responsive =
        m_reportTask == nullptr || m_reportTask->IsResponsive(m_notifier.WatchdogInterval());
    if (!responsive) {
        if (!m_reportStuck) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Agent] The report task has been writing one alarm for longer than the watchdog "
                         "interval; no longer telling the service manager that the agent is alive");
        }
        m_reportStuck = true;
        return;
    }
    m_reportStuck = false;
    m_notifier.Ping();
}

std::string AgentRuntime::SinkName(const Engine::ReportSink& sink) {
    return sink.kind == Engine::ReportSink::Kind::Stdout ? "stdout" : sink.path;
}

void AgentRuntime::WriteStatus() {
    m_statusDue = false;
    m_notifier.Status(StatusLine());
    Json::Value status(Json::objectValue);
    status["pid"] = static_cast<Json::Int>(getpid());
    status["version"] = HOSTAGENT_VERSION;
    status["started"] = UtcText(m_startedAt);
    status["updated"] = UtcText(std::chrono::system_clock::now());
    status["tasks"] = Json::Value(Json::arrayValue);
    for (const auto& [name, task] : m_supervisor.GetTasks()) {
        Json::Value entry;
        entry["name"] = name;
        entry["module"] = task.module;
        entry["state"] = Supervisor::StateName(task.state);
        entry["restarts"] = task.restarts;
        entry["last_start"] = UtcText(task.lastStart);
        entry["last_stop"] = UtcText(task.lastStop);
        entry["stop_reason"] = task.stopReason;
        status["tasks"].append(entry);
    }
    status["policies"] = Json::Value(Json::arrayValue);
    for (const PolicySource& source : m_config.policies) {
        const auto delivery = m_deliveries.find(source.key);
        const auto problem = m_policyProblems.find(source.key);
        const bool hasProblem = problem != m_policyProblems.end() && !problem->second.empty();
        if (delivery == m_deliveries.end() && !hasProblem) {
            continue;
        }
        Json::Value entry;
        entry["key"] = source.key;
        entry["file"] = delivery != m_deliveries.end() ? delivery->second.path : source.path;
        entry["delivered"] = delivery != m_deliveries.end() ? UtcText(delivery->second.when) : "";
        entry["warnings"] =
            static_cast<Json::UInt64>(delivery != m_deliveries.end() ? delivery->second.warnings : 0);
        // Why the file as it stands is not in force; the policy delivered before it still is.
        entry["problem"] = hasProblem ? problem->second : "";
        status["policies"].append(entry);
    }
    // Every alarm goes to every sink; a sink that failed a write says so in the log.
    status["alarms_reported"] = Json::Value(Json::objectValue);
    const Json::UInt64 reported = m_reportTask != nullptr ? m_reportTask->GetReportedCount() : 0;
    for (const Engine::ReportSink& sink : m_config.sinks) {
        status["alarms_reported"][SinkName(sink)] = reported;
    }
    if (!m_config.metricsFile.empty()) {
        WriteMetrics();
    }
    std::string error;
    if (!WriteStatusFile(m_config.statusFile, status, error)) {
        if (error != m_statusProblem) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] Status file not written: %s", error);
        }
        m_statusProblem = error;
    } else {
        m_statusProblem.clear();
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
    m_notifier.Stopping();
    if (m_feed) {
        m_feed->Stop();
    }
    m_modules.StopAll();
    m_engine.SetTaskObserver(nullptr);
    {
        std::lock_guard<std::mutex> lock(m_eventMutex);
        m_events.clear();
    }
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
    SDK::LoggerUtils::GetInstance()->FlushSuppressedLines(true);
    if (!m_config.statusFile.empty()) {
        std::remove((m_config.statusFile).c_str());  // no agent runs: --status says so
    }
}

void AgentRuntime::Fail(const std::string& message) {
    SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Agent] %s", message);
    if (!m_config.log.console) {
        std::cerr << "hostagent: " << message << std::endl;
    }
}

}  // namespace HostAgent
