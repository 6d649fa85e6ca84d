#include "builtin_tasks/DataCommReportTask.h"

#include "AlarmSinks.h"
#include "EcsDocument.h"
#include "ReportTunables.h"
#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogStatement.h"

#include <algorithm>
#include <atomic>
#include <mutex>

namespace Engine {

namespace {

const char* const kAlarmType = "2";
// Sent by RequestReopen to wake the task; carries nothing.
const char* const kReopenType = "reopen";

// A body that is not JSON is written as it came, but with its line breaks escaped, so that one
// event stays one line of the JSON-lines output and nothing of it is lost.
std::string EscapeLineBreaks(const std::string& body) {
    std::string line;
    line.reserve(body.size());
    for (char c : body) {
        if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else {
            line += c;
        }
    }
    return line;
}

long MillisecondsUntil(SinkClock::time_point when) {
    if (when == SinkClock::time_point::max()) {
        return kReportIdleWaitMs;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - SinkClock::now()).count();
    return std::clamp<long>(static_cast<long>(left), 1, kReportIdleWaitMs);
}

}  // namespace

struct DataCommReportTask::Impl {
    std::vector<ReportSink> config;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    std::atomic<std::size_t> reported{0};
    std::atomic<bool> reopenRequested{false};
    bool anyEcs = false;              // a sink writes Elastic Common Schema documents
    EcsHost host;                     // what those documents say of this host
    mutable std::mutex metricsMutex;  // the report thread writes, the agent's control loop reads
    std::map<std::string, std::uint64_t> byClass;
    std::vector<std::size_t> pendingBytes;

    void PublishPending() {
        std::lock_guard<std::mutex> lock(metricsMutex);
        pendingBytes.assign(sinks.size(), 0);
        for (std::size_t i = 0; i < sinks.size(); ++i) {
            pendingBytes[i] = sinks[i]->PendingBytes();
        }
    }

    void CloseAll() {
        for (auto& sink : sinks) {
            sink->Close();
        }
        sinks.clear();
    }

    // Sinks whose retry is due try again; returns how long the task may sleep after that.
    long RetryDue() {
        SinkClock::time_point next = SinkClock::time_point::max();
        for (auto& sink : sinks) {
            if (sink->NextRetry() <= SinkClock::now()) {
                sink->Retry();
            }
            next = std::min(next, sink->NextRetry());
        }
        return MillisecondsUntil(next);
    }

    void ReopenIfRequested() {
        if (reopenRequested.exchange(false)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Reopening alarm files");
            for (auto& sink : sinks) {
                sink->Reopen();
            }
        }
    }
};

DataCommReportTask::DataCommReportTask(const std::vector<ReportSink>& sinks)
    : Framework::Task(kTaskName, "builtin", 0, kQueueSize), m_impl(new Impl) {
    m_impl->config = sinks;
}

DataCommReportTask::~DataCommReportTask() {
    m_impl->CloseAll();
}

bool DataCommReportTask::Init() {
    m_impl->CloseAll();
    m_impl->anyEcs = false;
    for (const ReportSink& config : m_impl->config) {
        m_impl->anyEcs = m_impl->anyEcs || config.format == ReportSink::Format::Ecs;
    }
    if (m_impl->anyEcs) {
        m_impl->host = ReadEcsHost(HOSTAGENT_VERSION);
    }
    for (const ReportSink& config : m_impl->config) {
        std::unique_ptr<AlarmSink> sink =
            config.kind == ReportSink::Kind::Syslog
                ? MakeSyslogSink(config)
                : MakeLineSink(config.kind == ReportSink::Kind::File ? config.path : "");
        std::string error;
        if (!sink->Open(error)) {
            m_impl->CloseAll();
            return false;
        }
        m_impl->sinks.push_back(std::move(sink));
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Reporting alarms to %z sink(s)",
                 m_impl->sinks.size());
    return true;
}

bool DataCommReportTask::UnInit() {
    // Run drains the queue before it returns; anything queued after that last look is still ours.
    while (Framework::Message* msg = DequeueMsg(0)) {
        HandleMsg(msg);
        delete msg;
    }
    m_impl->CloseAll();
    return true;
}

int DataCommReportTask::Run() {
    // Sleeps on the queue until a message comes or a sink's retry is due; DequeueMsg wakes up as
    // soon as the runtime asks the task to stop.
    long wait = m_impl->RetryDue();
    while (!isCancelled()) {
        Framework::Message* msg = DequeueMsg(wait);
        if (msg != nullptr) {
            m_handlingSince.store(std::chrono::steady_clock::now().time_since_epoch().count());
            HandleMsg(msg);
            delete msg;
            m_handlingSince.store(0);
        }
        m_impl->ReopenIfRequested();
        wait = m_impl->RetryDue();
        m_impl->PublishPending();
        MarkActivity();
    }
    std::size_t drained = 0;
    while (Framework::Message* msg = DequeueMsg(0)) {
        HandleMsg(msg);
        delete msg;
        ++drained;
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[Report] Stopping, %z queued message(s) drained", drained);
    return 0;
}

bool DataCommReportTask::HandleMsg(Framework::Message* msg) {
    if (msg == nullptr) {
        return false;
    }
    if (msg->GetType() == kReopenType) {
        m_impl->ReopenIfRequested();
        return true;
    }
    if (msg->GetType() != kAlarmType) {
        SDK_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[Report] Dropping message of type %s", msg->GetType());
        return false;
    }
    auto* data = dynamic_cast<Framework::DataMessage*>(msg);
    if (data == nullptr) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Alarm message without a body dropped");
        return false;
    }
    const std::string& body = data->GetBody();
    Json::Value root;
    AlarmLine alarm;
    int parsed = SDK::JsonUtils::ParseJsonStr(body.c_str(), body.size(), root);
    if (parsed == SDK::JsonUtils::kParseOk) {
        alarm.line = SDK::JsonUtils::JsonToString(root);
        if (root.isObject() && root["event_classid"].isString()) {
            alarm.classId = root["event_classid"].asString();
        }
    } else {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                     "[Report] Alarm body is not a JSON object (%d), written as received: %s", parsed,
                     EscapeLineBreaks(body));
        alarm.line = EscapeLineBreaks(body);
    }
    AlarmLine ecsAlarm = alarm;
    Json::Value ecs;
    if (m_impl->anyEcs && parsed == SDK::JsonUtils::kParseOk && ToEcsDocument(root, m_impl->host, ecs)) {
        ecsAlarm.line = SDK::JsonUtils::JsonToString(ecs);
    }
    for (std::size_t i = 0; i < m_impl->sinks.size(); ++i) {
        const bool asEcs = i < m_impl->config.size() && m_impl->config[i].format == ReportSink::Format::Ecs;
        m_impl->sinks[i]->Write(asEcs ? ecsAlarm : alarm);
    }
    m_impl->reported.fetch_add(1, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> lock(m_impl->metricsMutex);
        ++m_impl->byClass[alarm.classId];
    }
    return true;
}

void DataCommReportTask::RequestReopen() {
    m_impl->reopenRequested.store(true);
    // Only a wake-up: should the queue be full, the next alarm finds the request.
    EnqueueMsg(new Framework::Message(kReopenType));
}

std::size_t DataCommReportTask::GetReportedCount() const {
    return m_impl->reported.load(std::memory_order_relaxed);
}

std::map<std::string, std::uint64_t> DataCommReportTask::GetAlarmsByClass() const {
    std::lock_guard<std::mutex> lock(m_impl->metricsMutex);
    return m_impl->byClass;
}

std::vector<std::size_t> DataCommReportTask::GetPendingBytes() const {
    std::lock_guard<std::mutex> lock(m_impl->metricsMutex);
    return m_impl->pendingBytes;
}

bool DataCommReportTask::IsResponsive(std::chrono::milliseconds limit) const {
    const auto since = m_handlingSince.load();
    if (since == 0) {
        return true;
    }
    const auto began = std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(since));
    return std::chrono::steady_clock::now() - began <= limit;
}

}  // namespace Engine
