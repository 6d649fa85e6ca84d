#pragma once

#include "builtin_tasks/DataCommReportTask.h"

#include <chrono>
#include <cstddef>
#include <ctime>
#include <deque>
#include <memory>
#include <string>

namespace Engine {

using SinkClock = std::chrono::steady_clock;

// One alarm as the sinks see it.
struct AlarmLine {
    std::string line;     // the alarm document, one line, no line break
    std::string classId;  // its "event_classid", "" when it has none
};

// One output of alarm events, used by the report task's thread only.
class AlarmSink {
public:
    virtual ~AlarmSink() = default;
    // False, with `error` filled, when the sink cannot work at all (a folder that cannot be made).
    virtual bool Open(std::string& error) = 0;
    // Takes the alarm; what cannot go out now is kept for Retry.
    virtual void Write(const AlarmLine& alarm) = 0;
    // When Retry should run next; nothing (time_point::max) while nothing waits.
    virtual SinkClock::time_point NextRetry() const = 0;
    virtual void Retry() = 0;
    // Closes and opens the output again (its file was rotated).
    virtual void Reopen() {}
    // Bytes of alarms taken but not delivered yet (kept in memory or in a spool).
    virtual std::size_t PendingBytes() const { return 0; }
    // Last attempt to deliver; what is left is kept (spool) or reported lost.
    virtual void Close() = 0;
};

// Alarms accepted but not yet delivered, oldest first, bounded in bytes: at the bound the oldest
// are dropped and counted until the backlog empties again.
class AlarmBacklog {
public:
    struct Entry {
        std::string data;
    };

    explicit AlarmBacklog(std::size_t maxBytes) : m_maxBytes(maxBytes) {}

    // Appends `data`; drops the oldest entries while more than the bound is kept.
    // Returns the entries dropped by this call.
    std::deque<Entry> Push(std::string data);
    Entry& Front() { return m_entries.front(); }
    void PopFront();
    bool Empty() const { return m_entries.empty(); }
    std::size_t Size() const { return m_entries.size(); }
    std::size_t Bytes() const { return m_bytes; }
    // Entries dropped since the backlog last emptied (or since the last TakeDropped).
    std::size_t TakeDropped();
    std::size_t Dropped() const { return m_dropped; }

private:
    std::size_t m_maxBytes;
    std::size_t m_bytes = 0;
    std::size_t m_dropped = 0;
    std::deque<Entry> m_entries;
};

// JSON-lines output: stdout (when `path` is empty) or an appended file. A write that fails (disk
// full, folder removed) is logged once and retried; a file whose path no longer names the open
// file (rotated or deleted) is opened again, its folder created again.
std::unique_ptr<AlarmSink> MakeLineSink(const std::string& path);

// RFC 5424 messages to the local syslog socket, a UDP collector or a TCP collector (RFC 6587
// octet counting, with spool: see SyslogSpool.h). Never waits for the network.
std::unique_ptr<AlarmSink> MakeSyslogSink(const ReportSink& config);

// The header of a message to the local syslog socket, as the local daemon expects it:
// "<PRI>Mmm dd hh:mm:ss TAG[PID]: " with the local time of `when` (the BSD syslog form of RFC 3164).
std::string LocalSyslogHeader(const std::string& pri, const std::string& tag, const std::string& pid,
                              std::time_t when);

// Creates the folder `path` would be in. False with `error` filled when that fails.
bool CreateParentFolder(const std::string& path, std::string& error);

}  // namespace Engine
