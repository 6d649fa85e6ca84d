#pragma once

#include "framework/Task.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Engine {

// Where alarm events go.
struct ReportSink {
    enum class Kind { Stdout, File, Syslog };
    // How a syslog sink reaches its collector.
    enum class Transport { Local, Udp, Tcp };
    Kind kind = Kind::Stdout;
    // Kind::File: JSON-lines file, appended. Kind::Syslog with Transport::Local: the local syslog
    // socket (a datagram Unix socket).
    std::string path;
    Transport transport = Transport::Local;
    std::string address;  // Udp and Tcp: the collector as "host:port"
    // Tcp: alarms not yet sent are kept in this file across outages and restarts ("" keeps them in
    // memory only); at most `spoolMaxBytes` of them, the oldest dropped first.
    std::string spool;
    std::size_t spoolMaxBytes = 0;  // 0: the default bound
    // The document each alarm becomes in this sink: the module's own, or Elastic Common Schema.
    enum class Format { Native, Ecs };
    Format format = Format::Native;
    // The default bound of a TCP syslog spool: a day-long outage of a busy host fits.
    static constexpr std::size_t kDefaultSpoolMaxBytes = 16 * 1024 * 1024;
};

// "data_comm_report_task": receives DataMessages; type "2" is an alarm event whose body is one JSON
// document. Each event is written, as one line, to every file sink and sent as one RFC 5424 message
// (MSG: that line) to every syslog sink. An event a sink cannot take at once is kept and retried
// (bounded, the oldest dropped first with one warning); a TCP syslog sink keeps it in its spool file,
// also across a restart. On cancellation the task first drains its queue: an event it accepted is
// never lost while its sink can recover.
class DataCommReportTask : public Framework::Task {
public:
    static constexpr const char* kTaskName = "data_comm_report_task";
    // Room for bursts: a module sends at most one alarm per watched port per minute.
    static constexpr std::size_t kQueueSize = 4096;

    explicit DataCommReportTask(const std::vector<ReportSink>& sinks);
    ~DataCommReportTask() override;

    // Opens the sinks (creating parent folders, loading a spool). False, with an error line, when
    // one cannot be opened.
    bool Init() override;
    bool UnInit() override;
    int Run() override;
    bool HandleMsg(Framework::Message* msg) override;

    // Asks the task to close and open its alarm files again (after they were rotated). Returns at
    // once; the task does it between two events.
    void RequestReopen();

    // Events handled so far.
    std::size_t GetReportedCount() const;

    // Alarms handled so far by "event_classid" ("" for documents without one).
    std::map<std::string, std::uint64_t> GetAlarmsByClass() const;
    // Per configured sink, in configuration order: bytes of alarms taken and not delivered yet
    // (a syslog sink's spool or memory queue), as of the last message or retry.
    std::vector<std::size_t> GetPendingBytes() const;

    // False when the task has been handling one message (writing it to its sinks) for longer than
    // `limit`: the report path is stuck. Waiting for messages is no fault.
    bool IsResponsive(std::chrono::milliseconds limit) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    // Steady-clock time a message's handling began; 0 while none is handled.
    std::atomic<std::chrono::steady_clock::rep> m_handlingSince{0};
};

}  // namespace Engine
