#include "builtin_tasks/DataCommReportTask.h"

#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogStatement.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Engine {

namespace {

// How long Run waits for a message before it looks at its cancel state again.
constexpr long kDequeueWaitMs = 200;

const char* const kAlarmType = "2";

// One output of alarm events. stdout is not owned; file sinks own their stream.
struct OpenSink {
    std::string label;  // "stdout" or the file path, for log lines
    std::FILE* stream = nullptr;
    bool owned = false;
    bool failing = false;  // the last write failed; logged once per failure streak
};

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

bool CreateParentFolder(const std::string& path, std::string& error) {
    try {
        Poco::Path parent(Poco::Path(path).parent());
        if (!parent.toString().empty()) {
            Poco::File(parent).createDirectories();
        }
        return true;
    } catch (const Poco::Exception& e) {
        error = e.displayText();
        return false;
    }
}

}  // namespace

struct DataCommReportTask::Impl {
    std::vector<ReportSink> sinks;
    std::vector<OpenSink> open;
    std::atomic<std::size_t> reported{0};

    void CloseAll() {
        for (OpenSink& sink : open) {
            if (sink.owned && sink.stream != nullptr) {
                std::fclose(sink.stream);
            }
        }
        open.clear();
    }

    void WriteLine(const std::string& line) {
        for (OpenSink& sink : open) {
            bool ok = std::fwrite(line.data(), 1, line.size(), sink.stream) == line.size() &&
                      std::fputc('\n', sink.stream) != EOF && std::fflush(sink.stream) == 0;
            if (!ok && !sink.failing) {
                SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot write alarm to %s: %s", sink.label,
                             std::string(std::strerror(errno)));
            }
            if (ok && sink.failing) {
                SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Writing alarms to %s again",
                             sink.label);
            }
            sink.failing = !ok;
        }
    }
};

DataCommReportTask::DataCommReportTask(const std::vector<ReportSink>& sinks)
    : Framework::Task(kTaskName, "builtin", 0, kQueueSize), m_impl(new Impl) {
    m_impl->sinks = sinks;
}

DataCommReportTask::~DataCommReportTask() {
    m_impl->CloseAll();
}

bool DataCommReportTask::Init() {
    m_impl->CloseAll();
    for (const ReportSink& sink : m_impl->sinks) {
        OpenSink open;
        if (sink.kind == ReportSink::Kind::Stdout) {
            open.label = "stdout";
            open.stream = stdout;
        } else {
            open.label = sink.path;
            open.owned = true;
            std::string error;
            if (!CreateParentFolder(sink.path, error)) {
                SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                             "[Report] Cannot create the folder of alarm file %s: %s", sink.path, error);
                m_impl->CloseAll();
                return false;
            }
            open.stream = std::fopen(sink.path.c_str(), "a");
            if (open.stream == nullptr) {
                SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot open alarm file %s: %s", sink.path,
                             std::string(std::strerror(errno)));
                m_impl->CloseAll();
                return false;
            }
        }
        m_impl->open.push_back(open);
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Reporting alarms to %z sink(s)",
                 m_impl->open.size());
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
    // DequeueMsg wakes up as soon as the runtime asks the task to stop.
    while (!isCancelled()) {
        Framework::Message* msg = DequeueMsg(kDequeueWaitMs);
        if (msg != nullptr) {
            HandleMsg(msg);
            delete msg;
        }
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
    std::string line;
    int parsed = SDK::JsonUtils::ParseJsonStr(body.c_str(), body.size(), root);
    if (parsed == SDK::JsonUtils::kParseOk) {
        line = SDK::JsonUtils::JsonToString(root);
    } else {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                     "[Report] Alarm body is not a JSON object (%d), written as received: %s", parsed,
                     EscapeLineBreaks(body));
        line = EscapeLineBreaks(body);
    }
    m_impl->WriteLine(line);
    m_impl->reported.fetch_add(1, std::memory_order_relaxed);
    return true;
}

std::size_t DataCommReportTask::GetReportedCount() const {
    return m_impl->reported.load(std::memory_order_relaxed);
}

}  // namespace Engine
