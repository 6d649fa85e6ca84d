#include "AlarmSinks.h"
#include "ReportTunables.h"
#include "sdk/LogStatement.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

namespace Engine {

namespace {

// Facility daemon (3), severity warning (4): every alarm is something an operator should look at.
const char* const kPri = "<28>";
const char* const kAppName = "hostagent";

// RFC 5424 allows printable ASCII without spaces in HOSTNAME and MSGID; anything else is "-".
std::string HeaderField(const std::string& value, std::size_t maxLength) {
    bool ok = !value.empty() && value.size() <= maxLength &&
              std::all_of(value.begin(), value.end(), [](char c) { return c > ' ' && c < 127; });
    return ok ? value : "-";
}

std::string HostName() {
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        return "-";
    }
    return HeaderField(name, 255);
}

// "2026-11-22T15:06:12.123456Z": the time the report task accepted the alarm, in UTC.
std::string Timestamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char text[40];
    std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text + length, sizeof(text) - length, ".%06ldZ", now.tv_nsec / 1000);
    return text;
}

// Splits "host:port" and "[v6]:port".
bool SplitAddress(const std::string& address, std::string& host, std::string& port) {
    std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == address.size()) {
        return false;
    }
    host = address.substr(0, colon);
    port = address.substr(colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    return true;
}

// Connects `fd` within kCollectorTimeoutMs. False with errno set.
bool ConnectWithin(int fd, const sockaddr* address, socklen_t length) {
    int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int result = ::connect(fd, address, length);
    if (result != 0 && errno == EINPROGRESS) {
        pollfd wait{fd, POLLOUT, 0};
        int ready = poll(&wait, 1, kCollectorTimeoutMs);
        int error = ready == 1 ? 0 : ETIMEDOUT;
        socklen_t size = sizeof(error);
        if (ready == 1) {
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
        }
        errno = error;
        result = error == 0 ? 0 : -1;
    }
    fcntl(fd, F_SETFL, flags);
    return result == 0;
}

class SyslogSink : public AlarmSink {
public:
    explicit SyslogSink(const ReportSink& config)
        : m_config(config),
          m_backlog(config.transport == ReportSink::Transport::Tcp
                        ? (config.spoolMaxBytes > 0 ? config.spoolMaxBytes : kDefaultSpoolMaxBytes)
                        : kSinkBacklogBytes),
          m_hostName(HostName()),
          m_pid(std::to_string(getpid())) {
        switch (config.transport) {
            case ReportSink::Transport::Local:
                m_label = "syslog socket " + config.path;
                break;
            case ReportSink::Transport::Udp:
                m_label = "syslog collector " + config.address + " (udp)";
                break;
            case ReportSink::Transport::Tcp:
                m_label = "syslog collector " + config.address + " (tcp)";
                break;
        }
    }
    ~SyslogSink() override {
        Disconnect();
        if (m_spoolFd >= 0) {
            ::close(m_spoolFd);
        }
    }

    bool Open(std::string& error) override {
        if (m_config.spool.empty()) {
            return true;
        }
        if (!CreateParentFolder(m_config.spool, error)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot create the folder of spool %s: %s",
                         m_config.spool, error);
            return false;
        }
        if (!LoadSpool(error)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot open spool %s: %s", m_config.spool,
                         error);
            return false;
        }
        if (!m_backlog.Empty()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] %z alarm(s) from spool %s to send to %s",
                         m_backlog.Size(), m_config.spool, m_label);
            m_nextRetry = SinkClock::now();  // sent by the task's thread, not while the agent starts
        }
        return true;
    }

    void Write(const AlarmLine& alarm) override {
        std::string message = std::string(kPri) + "1 " + Timestamp() + " " + m_hostName + " " + kAppName +
                              " " + m_pid + " " + HeaderField(alarm.classId, 32) + " - " + alarm.line;
        if (IsTcp()) {
            // RFC 6587 octet counting: "<length> <message>".
            message = std::to_string(message.size()) + " " + message;
        }
        for (const AlarmBacklog::Entry& dropped : m_backlog.Push(std::move(message))) {
            m_spoolDeadBytes += dropped.stored ? dropped.data.size() : 0;
        }
        // While backing off from a collector that is down, the alarm only goes to the spool.
        if (!m_failing || SinkClock::now() >= m_nextRetry) {
            Deliver();
        }
        StoreSpool(false);
    }

    SinkClock::time_point NextRetry() const override {
        return m_backlog.Empty() ? SinkClock::time_point::max() : m_nextRetry;
    }

    void Retry() override {
        Deliver();
        StoreSpool(false);
    }

    void Close() override {
        // One last try over a working connection; no new connection that would hold up the stop.
        if (m_fd >= 0) {
            Deliver();
        }
        ReportDropped();
        if (m_backlog.Empty()) {
            StoreSpool(false);
        } else if (!m_config.spool.empty()) {
            StoreSpool(true);
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Report] %z alarm(s) for %s kept in spool %s for the next start", m_backlog.Size(),
                         m_label, m_config.spool);
        } else {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Report] %z alarm(s) could not be sent to %s and are lost", m_backlog.Size(),
                         m_label);
        }
        Disconnect();
    }

private:
    bool IsTcp() const { return m_config.transport == ReportSink::Transport::Tcp; }

    bool Connect() {
        if (m_config.transport == ReportSink::Transport::Local) {
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            if (m_config.path.size() >= sizeof(address.sun_path)) {
                errno = ENAMETOOLONG;
                return false;
            }
            std::memcpy(address.sun_path, m_config.path.c_str(), m_config.path.size());
            m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
                return true;
            }
            int error = errno;
            Disconnect();
            errno = error;
            return false;
        }
        std::string host, port;
        if (!SplitAddress(m_config.address, host, port)) {
            errno = EINVAL;
            return false;
        }
        addrinfo hints{};
        hints.ai_socktype = IsTcp() ? SOCK_STREAM : SOCK_DGRAM;
        addrinfo* found = nullptr;
        if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) {
            errno = EHOSTUNREACH;
            return false;
        }
        int error = EHOSTUNREACH;
        for (addrinfo* at = found; at != nullptr && m_fd < 0; at = at->ai_next) {
            m_fd = socket(at->ai_family, at->ai_socktype | SOCK_CLOEXEC, at->ai_protocol);
            if (m_fd >= 0 && !ConnectWithin(m_fd, at->ai_addr, at->ai_addrlen)) {
                error = errno;
                Disconnect();
            }
        }
        freeaddrinfo(found);
        if (m_fd < 0) {
            errno = error;
            return false;
        }
        timeval timeout{kCollectorTimeoutMs / 1000, (kCollectorTimeoutMs % 1000) * 1000};
        setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
        if (IsTcp()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Connected to %s", m_label);
        }
        return true;
    }

    void Disconnect() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
    }

    // A collector that went away closes its end: seen here before a send, so that the alarm is not
    // written into a connection nobody reads any more.
    bool PeerClosed() {
        pollfd state{m_fd, POLLIN | POLLRDHUP, 0};
        if (poll(&state, 1, 0) != 1) {
            return false;
        }
        if (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) {
            return true;
        }
        char ignored[512];
        return recv(m_fd, ignored, sizeof(ignored), MSG_DONTWAIT) == 0;
    }

    bool SendAll(const std::string& data) {
        std::size_t sent = 0;
        while (sent < data.size()) {
            ssize_t n = send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0 || !IsTcp()) {
                return n == static_cast<ssize_t>(data.size());
            }
            sent += static_cast<std::size_t>(n);
        }
        return true;
    }

    void Deliver() {
        bool reconnected = false;
        while (!m_backlog.Empty()) {
            if (m_fd >= 0 && IsTcp() && PeerClosed()) {
                Disconnect();
                if (reconnected) {
                    Failed(ECONNRESET);
                    return;
                }
            }
            if (m_fd < 0) {
                if (!Connect()) {
                    Failed(errno);
                    return;
                }
                reconnected = true;
            }
            AlarmBacklog::Entry& entry = m_backlog.Front();
            if (!SendAll(entry.data)) {
                int error = errno;
                if (error == EMSGSIZE) {
                    // No retry can send it; it must not hold up the alarms behind it.
                    SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                                 "[Report] Alarm of %z bytes too large for %s, dropped", entry.data.size(),
                                 m_label);
                    ConsumeFront();
                    continue;
                }
                // A stream may hold part of a frame, and a local syslog daemon that restarted has a new
                // socket: both start afresh. A UDP socket stays (its errors are the network's).
                if (m_config.transport != ReportSink::Transport::Udp) {
                    Disconnect();
                }
                Failed(error);
                return;
            }
            ConsumeFront();
        }
        if (m_failing) {
            m_failing = false;
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Sending alarms to %s again", m_label);
        }
        ReportDropped();
        m_backoffMs = kReconnectFirstMs;
        m_nextRetry = SinkClock::time_point::max();
    }

    // The oldest alarm has left the backlog; its bytes in the spool file are dead from now on.
    void ConsumeFront() {
        m_spoolDeadBytes += m_backlog.Front().stored ? m_backlog.Front().data.size() : 0;
        m_backlog.PopFront();
    }

    // Logged once per outage; the alarms wait in the backlog (and the spool).
    void Failed(int error) {
        if (!m_failing) {
            m_failing = true;
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot send alarms to %s: %s; keeping them%s",
                         m_label, std::string(std::strerror(error)),
                         m_config.spool.empty() ? std::string(" in memory") : " in spool " + m_config.spool);
        }
        if (IsTcp()) {
            m_nextRetry = SinkClock::now() + std::chrono::milliseconds(m_backoffMs);
            m_backoffMs = std::min(m_backoffMs * 2, kReconnectMaxMs);
        } else {
            m_nextRetry = SinkClock::now() + std::chrono::milliseconds(kSinkRetryMs);
        }
    }

    void ReportDropped() {
        if (std::size_t dropped = m_backlog.TakeDropped()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Report] Backlog for %s reached its bound of %z bytes: %z oldest alarm(s) dropped",
                         m_label,
                         IsTcp() && m_config.spoolMaxBytes > 0 ? m_config.spoolMaxBytes
                         : IsTcp()                             ? kDefaultSpoolMaxBytes
                                                               : kSinkBacklogBytes,
                         dropped);
        }
    }

    // The spool file holds every frame of the backlog, in order, possibly after frames that were
    // sent or dropped since ("dead" bytes). Emptied when the backlog empties; rewritten with the
    // backlog alone when `compact` or when the dead bytes exceed the bound, so it stays below twice
    // the bound.
    void StoreSpool(bool compact) {
        if (m_config.spool.empty() || m_spoolFd < 0) {
            return;
        }
        const std::size_t bound = m_config.spoolMaxBytes > 0 ? m_config.spoolMaxBytes : kDefaultSpoolMaxBytes;
        bool ok = true;
        if (m_backlog.Empty()) {
            if (m_spoolFileBytes > 0) {
                ok = ftruncate(m_spoolFd, 0) == 0;
                m_spoolFileBytes = 0;
                m_spoolDeadBytes = 0;
            }
        } else if (compact || m_spoolDeadBytes > bound) {
            ok = RewriteSpool();
        } else {
            std::string tail;
            for (AlarmBacklog::Entry& entry : m_backlog.Entries()) {
                if (!entry.stored) {
                    tail += entry.data;
                    entry.stored = true;
                }
            }
            if (!tail.empty()) {
                ok = ::write(m_spoolFd, tail.data(), tail.size()) == static_cast<ssize_t>(tail.size()) &&
                     fdatasync(m_spoolFd) == 0;
                m_spoolFileBytes += tail.size();
                if (!ok) {
                    // Whatever part landed is a torn frame: the next write rewrites the file whole.
                    m_spoolDeadBytes = bound + 1;
                }
            }
        }
        if (!ok && !m_spoolFailing) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Report] Cannot write spool %s: %s; alarms kept in memory", m_config.spool,
                         std::string(std::strerror(errno)));
        }
        m_spoolFailing = !ok;
    }

    bool RewriteSpool() {
        const std::string temporary = m_config.spool + ".new";
        int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::string all;
        for (const AlarmBacklog::Entry& entry : m_backlog.Entries()) {
            all += entry.data;
        }
        bool ok = fd >= 0 && ::write(fd, all.data(), all.size()) == static_cast<ssize_t>(all.size()) &&
                  fdatasync(fd) == 0;
        if (fd >= 0) {
            ::close(fd);
        }
        if (!ok || std::rename(temporary.c_str(), m_config.spool.c_str()) != 0) {
            int error = errno;
            ::unlink(temporary.c_str());
            errno = error;
            return false;
        }
        ::close(m_spoolFd);
        m_spoolFd = ::open(m_config.spool.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        for (AlarmBacklog::Entry& entry : m_backlog.Entries()) {
            entry.stored = true;
        }
        m_spoolFileBytes = all.size();
        m_spoolDeadBytes = 0;
        return m_spoolFd >= 0;
    }

    // Reads the frames a previous run left. A torn last frame (power loss while writing) is dropped
    // with a warning; frames beyond the bound are dropped oldest first.
    bool LoadSpool(std::string& error) {
        std::string text;
        {
            std::ifstream in(m_config.spool, std::ios::binary);
            text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        std::size_t at = 0;
        while (at < text.size()) {
            std::size_t space = text.find(' ', at);
            std::size_t length = 0;
            bool ok = space != std::string::npos && space > at && space - at <= 9 &&
                      text.find_first_not_of("0123456789", at) == space;
            if (ok) {
                length = std::stoul(text.substr(at, space - at));
                ok = length > 0 && text.size() - (space + 1) >= length;
            }
            if (!ok) {
                SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                             "[Report] Spool %s ends in a torn record: %z byte(s) ignored", m_config.spool,
                             text.size() - at);
                break;
            }
            m_backlog.Push(text.substr(at, space + 1 + length - at), true);
            at = space + 1 + length;
        }
        ReportDropped();
        m_spoolFd = ::open(m_config.spool.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        if (m_spoolFd < 0) {
            error = std::strerror(errno);
            return false;
        }
        m_spoolFileBytes = text.size();
        // Anything ignored or dropped above makes the file differ from the backlog: rewrite it.
        if (m_backlog.Empty()) {
            StoreSpool(false);
        } else if (at != text.size() || m_backlog.Bytes() != text.size()) {
            StoreSpool(true);
        }
        return true;
    }

    ReportSink m_config;
    std::string m_label;
    AlarmBacklog m_backlog;
    std::string m_hostName;
    std::string m_pid;
    int m_fd = -1;
    bool m_failing = false;
    long m_backoffMs = kReconnectFirstMs;
    SinkClock::time_point m_nextRetry = SinkClock::time_point::max();
    int m_spoolFd = -1;
    std::size_t m_spoolFileBytes = 0;
    std::size_t m_spoolDeadBytes = 0;
    bool m_spoolFailing = false;
};

}  // namespace

std::unique_ptr<AlarmSink> MakeSyslogSink(const ReportSink& config) {
    return std::make_unique<SyslogSink>(config);
}

}  // namespace Engine
