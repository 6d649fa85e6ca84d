#include "AlarmSinks.h"
#include "ReportTunables.h"
#include "SyslogSpool.h"
#include "builtin_tasks/HostPort.h"
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
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

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

// One address of a collector, as the resolver gave it.
struct CollectorAddress {
    int family, socketType, protocol;
    sockaddr_storage address;
    socklen_t length;
};

// A name lookup on a thread of its own, so that a resolver that does not answer holds up nothing:
// the sink only looks at the result. The thread owns a share of the result and finishes alone
// should the sink give up on it or go away.
struct Resolution {
    std::mutex lock;
    bool done = false;
    int result = 0;
    int systemError = 0;
    std::vector<CollectorAddress> addresses;

    bool Done() {
        std::lock_guard<std::mutex> guard(lock);
        return done;
    }
};

// getaddrinfo into `resolution` (under its lock).
void Resolve(Resolution& resolution, const std::string& host, const std::string& port, int socketType,
             int flags) {
    addrinfo hints{};
    hints.ai_socktype = socketType;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    int result = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    int systemError = errno;
    std::vector<CollectorAddress> addresses;
    for (addrinfo* at = result == 0 ? found : nullptr; at != nullptr; at = at->ai_next) {
        CollectorAddress address{at->ai_family, at->ai_socktype, at->ai_protocol, {}, at->ai_addrlen};
        std::memcpy(&address.address, at->ai_addr,
                    std::min<std::size_t>(at->ai_addrlen, sizeof(address.address)));
        addresses.push_back(address);
    }
    if (found != nullptr) {
        freeaddrinfo(found);
    }
    std::lock_guard<std::mutex> guard(resolution.lock);
    resolution.result = result;
    resolution.systemError = systemError;
    resolution.addresses = std::move(addresses);
    resolution.done = true;
}

std::shared_ptr<Resolution> StartResolution(const std::string& host, const std::string& port,
                                            int socketType) {
    auto resolution = std::make_shared<Resolution>();
    // An address in numbers needs no resolver: taken at once.
    Resolve(*resolution, host, port, socketType, AI_NUMERICHOST | AI_NUMERICSERV);
    if (resolution->result == 0) {
        return resolution;
    }
    resolution->done = false;
    try {
        std::thread([resolution, host, port, socketType] {
            Resolve(*resolution, host, port, socketType, 0);
        }).detach();
    } catch (const std::system_error& e) {
        resolution->result = EAI_SYSTEM;
        resolution->systemError = e.code().value();
        resolution->done = true;
    }
    return resolution;
}

class SyslogSink : public AlarmSink {
public:
    explicit SyslogSink(const ReportSink& config)
        : m_config(config),
          m_queue(config.transport == ReportSink::Transport::Tcp ? config.spool : std::string(),
                  BoundBytes(config)),
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
    ~SyslogSink() override { Disconnect(); }

    bool Open(std::string& error) override {
        if (m_config.spool.empty()) {
            return true;
        }
        if (!CreateParentFolder(m_config.spool, error)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot create the folder of spool %s: %s",
                         m_config.spool, error);
            return false;
        }
        if (!m_queue.Open(error)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot open spool %s: %s", m_config.spool,
                         error);
            return false;
        }
        ReportDropped();
        if (!m_queue.Empty()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] %z alarm(s) from spool %s to send to %s",
                         m_queue.Size(), m_config.spool, m_label);
            m_nextRetry = SinkClock::now();  // sent by the task's thread, not while the agent starts
        }
        return true;
    }

    void Write(const AlarmLine& alarm) override {
        // The local daemon (journald, rsyslog's socket input) reads the local form; collectors RFC 5424.
        std::string message = m_config.transport == ReportSink::Transport::Local
                                  ? LocalSyslogHeader(kPri, kAppName, m_pid, std::time(nullptr)) + alarm.line
                                  : std::string(kPri) + "1 " + Timestamp() + " " + m_hostName + " " +
                                        kAppName + " " + m_pid + " " + HeaderField(alarm.classId, 32) +
                                        " - " + alarm.line;
        if (IsTcp()) {
            // RFC 6587 octet counting: "<length> <message>".
            message = std::to_string(message.size()) + " " + message;
        }
        m_queue.Push(std::move(message));
        // While backing off from a collector that is down, the alarm only goes to the spool.
        if (!m_failing || SinkClock::now() >= m_nextRetry) {
            Deliver();
        }
        StoreSpool(false);
    }

    std::size_t PendingBytes() const override { return m_queue.Bytes(); }

    SinkClock::time_point NextRetry() const override {
        return std::min(m_queue.Empty() ? SinkClock::time_point::max() : m_nextRetry, m_queue.SyncDue());
    }

    void Retry() override {
        // Also called when only the spool's fsync is due: a collector that is down is not tried
        // before its back-off ends.
        if (!m_queue.Empty() && SinkClock::now() >= m_nextRetry) {
            Deliver();
        }
        StoreSpool(false);
    }

    void Close() override {
        // One last try over a working connection, without waiting for it and without a new
        // connection that would hold up the stop.
        m_closing = true;
        if (m_fd >= 0 && !m_connecting) {
            Deliver();
        }
        ReportDropped();
        StoreSpool(true);
        if (m_queue.Empty()) {
            // nothing left
        } else if (!m_config.spool.empty()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Report] %z alarm(s) for %s kept in spool %s for the next start", m_queue.Size(),
                         m_label, m_config.spool);
        } else {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Report] %z alarm(s) could not be sent to %s and are lost", m_queue.Size(),
                         m_label);
        }
        Disconnect();
    }

private:
    enum class Step { Ready, Pending, Failed };

    static std::size_t BoundBytes(const ReportSink& config) {
        if (config.transport != ReportSink::Transport::Tcp) {
            return kSinkBacklogBytes;
        }
        return config.spoolMaxBytes > 0 ? config.spoolMaxBytes : ReportSink::kDefaultSpoolMaxBytes;
    }

    bool IsTcp() const { return m_config.transport == ReportSink::Transport::Tcp; }

    Step ConnectLocal(std::string& reason) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (m_config.path.size() >= sizeof(address.sun_path)) {
            reason = std::strerror(ENAMETOOLONG);
            return Step::Failed;
        }
        std::memcpy(address.sun_path, m_config.path.c_str(), m_config.path.size());
        // Non-blocking: a reader that stops reading makes a send fail at once instead of holding
        // the report thread.
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (m_fd >= 0 && ::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) {
            return Step::Ready;
        }
        reason = std::strerror(errno);
        Disconnect();
        return Step::Failed;
    }

    // One step towards a connection; never waits. Names are looked up on a thread of their own,
    // connects are non-blocking and looked at again after kSinkPollMs.
    Step Connect(std::string& reason) {
        if (m_fd >= 0 && !m_connecting) {
            return Step::Ready;
        }
        if (m_config.transport == ReportSink::Transport::Local) {
            return ConnectLocal(reason);
        }
        return ConnectRemote(reason);
    }

    // A connect under way is looked at (done, failed: the next address, or pending); without one the
    // name is looked up (or its lookup looked at) and the next address connected.
    Step ConnectRemote(std::string& reason) {
        if (m_connecting) {
            pollfd wait{m_fd, POLLOUT, 0};
            int error = 0;
            if (poll(&wait, 1, 0) == 1) {
                socklen_t size = sizeof(error);
                getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &error, &size);
            } else if (SinkClock::now() < m_connectDeadline) {
                return Step::Pending;
            } else {
                error = ETIMEDOUT;
            }
            if (error == 0) {
                m_connecting = false;
                SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Connected to %s", m_label);
                return Step::Ready;
            }
            m_lastError = error;
            Disconnect();
            ++m_nextAddress;
        } else if (m_addresses.empty()) {
            std::string host;
            unsigned short portNumber = 0;
            if (!ParseHostPort(m_config.address, host, portNumber)) {
                reason = "\"" + m_config.address + "\" is not host:port";
                return Step::Failed;
            }
            const std::string port = std::to_string(portNumber);
            if (!m_resolution) {
                m_resolution = StartResolution(host, port, IsTcp() ? SOCK_STREAM : SOCK_DGRAM);
                m_resolveDeadline = SinkClock::now() + std::chrono::milliseconds(kResolveTimeoutMs);
            } else if (m_resolveTimedOut) {
                // The last attempt gave up on this lookup; it may still answer: wait for it again.
                m_resolveDeadline = SinkClock::now() + std::chrono::milliseconds(kResolveTimeoutMs);
            }
            m_resolveTimedOut = false;
            if (!m_resolution->Done()) {
                if (SinkClock::now() < m_resolveDeadline) {
                    return Step::Pending;
                }
                m_resolveTimedOut = true;
                reason = "cannot resolve \"" + host + "\": no answer from the resolver within " +
                         std::to_string(kResolveTimeoutMs / 1000) + " s";
                return Step::Failed;
            }
            std::shared_ptr<Resolution> resolution = std::move(m_resolution);
            std::lock_guard<std::mutex> guard(resolution->lock);
            if (resolution->result != 0 || resolution->addresses.empty()) {
                reason =
                    "cannot resolve \"" + host + "\": " +
                    (resolution->result == EAI_SYSTEM ? std::string(std::strerror(resolution->systemError))
                     : resolution->result != 0        ? std::string(gai_strerror(resolution->result))
                                                      : std::string("no address"));
                return Step::Failed;
            }
            m_addresses = resolution->addresses;
            m_nextAddress = 0;
            m_lastError = EHOSTUNREACH;
        }
        while (m_nextAddress < m_addresses.size()) {
            const CollectorAddress& at = m_addresses[m_nextAddress];
            m_fd = socket(at.family, at.socketType | SOCK_CLOEXEC | SOCK_NONBLOCK, at.protocol);
            if (m_fd >= 0 &&
                ::connect(m_fd, reinterpret_cast<const sockaddr*>(&at.address), at.length) == 0) {
                if (IsTcp()) {
                    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Connected to %s", m_label);
                }
                return Step::Ready;
            }
            if (m_fd >= 0 && errno == EINPROGRESS) {
                m_connecting = true;
                m_connectDeadline = SinkClock::now() + std::chrono::milliseconds(kCollectorTimeoutMs);
                return ConnectRemote(reason);  // a connect over loopback is often done already
            }
            m_lastError = errno;
            Disconnect();
            ++m_nextAddress;
        }
        // Every address failed; the next attempt looks the name up again.
        m_addresses.clear();
        reason = std::strerror(m_lastError);
        return Step::Failed;
    }

    void Disconnect() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
        m_connecting = false;
        m_queue.ResetFront();
        m_stalledSince.reset();
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

    // Sends what the socket takes now; never waits for it.
    void Deliver() {
        bool reconnected = false;
        while (!m_queue.Empty()) {
            if (m_fd >= 0 && !m_connecting && IsTcp() && m_queue.FrontSent() == 0 && PeerClosed()) {
                Disconnect();
                if (reconnected) {
                    Failed(std::strerror(ECONNRESET));
                    return;
                }
            }
            if (m_fd < 0 || m_connecting) {
                if (m_closing) {
                    return;
                }
                std::string reason;
                Step step = Connect(reason);
                if (step == Step::Pending) {
                    m_nextRetry = SinkClock::now() + std::chrono::milliseconds(kSinkPollMs);
                    return;
                }
                if (step == Step::Failed) {
                    Failed(reason);
                    return;
                }
                reconnected = true;
            }
            const std::string& data = m_queue.Front();
            const std::size_t sent = m_queue.FrontSent();
            ssize_t n = send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
                if (IsTcp()) {
                    // The collector reads slower than alarms come: the rest waits in the spool; one
                    // that takes nothing for kCollectorTimeoutMs counts as down.
                    if (!m_stalledSince) {
                        m_stalledSince = SinkClock::now();
                    }
                    if (SinkClock::now() - *m_stalledSince < std::chrono::milliseconds(kCollectorTimeoutMs)) {
                        m_nextRetry = SinkClock::now() + std::chrono::milliseconds(kSinkPollMs);
                        return;
                    }
                    Disconnect();
                    Failed("it took nothing for " + std::to_string(kCollectorTimeoutMs / 1000) + " s");
                    return;
                }
                // A datagram reader whose queue is full: the alarms wait in memory, tried again.
                Disconnect();
                Failed("its reader does not keep up (" + std::string(std::strerror(EAGAIN)) + ")");
                return;
            }
            if (n < 0 || (!IsTcp() && static_cast<std::size_t>(n) != data.size())) {
                int error = n < 0 ? errno : EMSGSIZE;
                if (error == EMSGSIZE) {
                    // No retry can send it; it must not hold up the alarms behind it.
                    SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                                 "[Report] Alarm of %z bytes too large for %s, dropped", data.size(),
                                 m_label);
                    m_queue.PopFront();
                    continue;
                }
                // A stream may hold part of a frame, and a local syslog daemon that restarted has a new
                // socket: both start afresh. A UDP socket stays (its errors are the network's).
                if (m_config.transport != ReportSink::Transport::Udp) {
                    Disconnect();
                }
                Failed(std::strerror(error));
                return;
            }
            m_stalledSince.reset();
            m_queue.AddFrontSent(static_cast<std::size_t>(n));
            if (m_queue.FrontSent() == data.size()) {
                m_queue.PopFront();
            }
        }
        if (m_failing) {
            m_failing = false;
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Report] Sending alarms to %s again", m_label);
        }
        ReportDropped();
        m_backoffMs = kReconnectFirstMs;
        m_nextRetry = SinkClock::time_point::max();
    }

    // Logged once per outage; the alarms wait in the backlog (and the spool).
    void Failed(const std::string& reason) {
        if (!m_failing) {
            m_failing = true;
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Cannot send alarms to %s: %s; keeping them%s",
                         m_label, reason,
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
        if (std::size_t dropped = m_queue.TakeDropped()) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Report] Backlog for %s reached its bound of %z bytes: %z oldest alarm(s) dropped",
                         m_label, BoundBytes(m_config), dropped);
        }
    }

    // What was sent is recorded and what is left goes to the spool file (see SyslogSpool).
    void StoreSpool(bool stopping) {
        bool ok = m_queue.Persist(stopping);
        if (!ok && !m_spoolFailing) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Report] Cannot write spool %s: %s; alarms kept in memory", m_config.spool,
                         std::string(std::strerror(errno)));
        }
        m_spoolFailing = !ok;
    }

    ReportSink m_config;
    std::string m_label;
    SyslogSpool m_queue;
    std::string m_hostName;
    std::string m_pid;
    int m_fd = -1;
    bool m_connecting = false;
    bool m_closing = false;
    SinkClock::time_point m_connectDeadline;
    std::shared_ptr<Resolution> m_resolution;
    SinkClock::time_point m_resolveDeadline;
    bool m_resolveTimedOut = false;
    std::vector<CollectorAddress> m_addresses;
    std::size_t m_nextAddress = 0;
    int m_lastError = EHOSTUNREACH;
    std::optional<SinkClock::time_point> m_stalledSince;
    bool m_failing = false;
    long m_backoffMs = kReconnectFirstMs;
    SinkClock::time_point m_nextRetry = SinkClock::time_point::max();
    bool m_spoolFailing = false;
};

}  // namespace

std::string LocalSyslogHeader(const std::string& pri, const std::string& tag, const std::string& pid,
                              std::time_t when) {
    static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                          "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    localtime_r(&when, &local);
    char text[64];
    // The day of the month is padded with a space, not a zero ("Nov  3").
    std::snprintf(text, sizeof(text), "%s %2d %02d:%02d:%02d ", kMonths[local.tm_mon], local.tm_mday,
                  local.tm_hour, local.tm_min, local.tm_sec);
    return pri + text + tag + "[" + pid + "]: ";
}

std::unique_ptr<AlarmSink> MakeSyslogSink(const ReportSink& config) {
    return std::make_unique<SyslogSink>(config);
}

}  // namespace Engine
