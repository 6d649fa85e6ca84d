#pragma once

#include "framework/Task.h"

#include <memory>
#include <string>
#include <vector>

namespace Engine {

// Where alarm events go.
struct ReportSink {
    enum class Kind { Stdout, File };
    Kind kind = Kind::Stdout;
    std::string path;  // for Kind::File: JSON-lines file, appended
};

// "data_comm_report_task": receives DataMessages; type "2" is an alarm event whose body is one JSON
// document. Each event is written, as one line, to every sink, flushed per event. On cancellation
// it first drains its queue: an event it accepted is never lost.
class DataCommReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";
    // Room for bursts: a module sends at most one alarm per watched port per minute.
    static constexpr std::size_t kQueueSize = 4096;

    explicit DataCommReportTask(const std::vector<ReportSink>& sinks);
    ~DataCommReportTask() override;

    // Opens the file sinks (creating parent folders). False, with an error line, when one cannot be
    // opened.
    bool Init() override;
    bool UnInit() override;
    int Run() override;
    bool HandleMsg(Framework::Message* msg) override;

    // Events written so far.
    std::size_t GetReportedCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace Engine
