#include "AlarmSinks.h"

#include "ReportTunables.h"
#include "sdk/LogStatement.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Engine {

std::deque<AlarmBacklog::Entry> AlarmBacklog::Push(std::string data) {
    m_bytes += data.size();
    m_entries.push_back(Entry{std::move(data)});
    std::deque<Entry> dropped;
    while (m_bytes > m_maxBytes && m_entries.size() > 1) {
        dropped.push_back(std::move(m_entries.front()));
        PopFront();
        ++m_dropped;
    }
    return dropped;
}

void AlarmBacklog::PopFront() {
    m_bytes -= m_entries.front().data.size();
    m_entries.pop_front();
}

std::size_t AlarmBacklog::TakeDropped() {
    std::size_t dropped = m_dropped;
    m_dropped = 0;
    return dropped;
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

namespace {

class LineSink : public AlarmSink {
public:
    explicit LineSink(const std::string& path)
        : m_path(path), m_label(path.empty() ? "stdout" : path), m_backlog(kSinkBacklogBytes) {}
    ~LineSink() override { CloseFile(); }

    bool Open(std::string& error) override {
        if (m_path.empty()) {
            m_fd = STDOUT_FILENO;
            return true;
        }
        if (!CreateParentFolder(m_path, error)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot create the folder of alarm file %s: %s",
                         m_path, error);
            return false;
        }
        if (!OpenFile()) {
            error = std::strerror(errno);
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot open alarm file %s: %s", m_path, error);
            return false;
        }
        return true;
    }

    void Write(const AlarmLine& alarm) override {
        m_backlog.Push(alarm.line + "\n");
        Deliver();
    }

    SinkClock::time_point NextRetry() const override {
        return m_backlog.Empty() ? SinkClock::time_point::max() : m_nextRetry;
    }

    void Retry() override { Deliver(); }

    void Reopen() override {
        if (m_path.empty()) {
            return;
        }
        CloseFile();
        // The rest of a line cut short by a full disk goes whole into the new file.
        m_written = 0;
        Deliver();
    }

    void Close() override {
        Deliver();
        if (!m_backlog.Empty()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Report] %z alarm(s) could not be written to %s and are lost", m_backlog.Size(),
                         m_label);
        }
        CloseFile();
    }

private:
    bool OpenFile() {
        m_fd = ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
        struct stat info {};
        if (m_fd >= 0 && fstat(m_fd, &info) == 0) {
            m_device = info.st_dev;
            m_inode = info.st_ino;
        }
        return m_fd >= 0;
    }

    void CloseFile() {
        if (!m_path.empty() && m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
    }

    // The open file is still the one the path names; otherwise (rotated away, deleted, folder
    // removed) the path is opened again, its folder created first.
    bool EnsureCurrentFile() {
        if (m_path.empty()) {
            return true;
        }
        struct stat info {};
        if (m_fd >= 0 && stat(m_path.c_str(), &info) == 0 && info.st_dev == m_device &&
            info.st_ino == m_inode) {
            return true;
        }
        if (m_fd >= 0) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION,
                         "[Report] Alarm file %s was moved or removed, opening it again", m_path);
            CloseFile();
            m_written = 0;
        }
        std::string error;
        if (!CreateParentFolder(m_path, error)) {
            errno = ENOENT;
            return false;
        }
        return OpenFile();
    }

    void Deliver() {
        while (!m_backlog.Empty()) {
            if (!EnsureCurrentFile()) {
                Failed(errno);
                return;
            }
            const std::string& data = m_backlog.Front().data;
            ssize_t n = ::write(m_fd, data.data() + m_written, data.size() - m_written);
            if (n < 0) {
                if (errno == EINTR) {
                    continue;
                }
                Failed(errno);
                return;
            }
            m_written += static_cast<std::size_t>(n);
            if (m_written == data.size()) {
                m_backlog.PopFront();
                m_written = 0;
            }
        }
        if (m_failing) {
            m_failing = false;
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Writing alarms to %s again", m_label);
            if (std::size_t dropped = m_backlog.TakeDropped()) {
                SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                             "[Report] %z oldest alarm(s) for %s were dropped while it could not be written",
                             dropped, m_label);
            }
        }
        m_nextRetry = SinkClock::time_point::max();
    }

    // Logged once per failure streak, not per alarm; the alarms wait in the backlog.
    void Failed(int error) {
        if (!m_failing) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot write alarm to %s: %s", m_label,
                         std::string(std::strerror(error)));
            m_failing = true;
        }
        m_nextRetry = SinkClock::now() + std::chrono::milliseconds(kSinkRetryMs);
    }

    std::string m_path;
    std::string m_label;  // "stdout" or the path, for log lines
    int m_fd = -1;
    dev_t m_device = 0;
    ino_t m_inode = 0;
    AlarmBacklog m_backlog;
    std::size_t m_written = 0;  // bytes of the oldest entry already written
    bool m_failing = false;
    SinkClock::time_point m_nextRetry = SinkClock::time_point::max();
};

}  // namespace

std::unique_ptr<AlarmSink> MakeLineSink(const std::string& path) {
    return std::make_unique<LineSink>(path);
}

}  // namespace Engine
