#include "SyslogSpool.h"

#include "ReportTunables.h"
#include "sdk/LogStatement.h"

#include <Poco/Path.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace Engine {

namespace {

// "<digits> " of an octet-counted frame: its whole length, 0 when `text` starts no frame the
// agent could have written.
std::size_t ParseFrameLength(const char* text, std::size_t size) {
    std::size_t digits = 0;
    std::size_t length = 0;
    while (digits < size && digits < 9 && text[digits] >= '0' && text[digits] <= '9') {
        length = length * 10 + static_cast<std::size_t>(text[digits] - '0');
        ++digits;
    }
    if (digits == 0 || digits >= size || text[digits] != ' ' || length == 0 || length > kMaxSpoolFrameBytes) {
        return 0;
    }
    return digits + 1 + length;
}

bool SyncFolderOf(const std::string& path) {
    std::string folder = Poco::Path(path).parent().toString();
    int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    bool ok = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0) {
        ::close(fd);
    }
    return ok;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

bool ReadAllAt(int fd, char* data, std::size_t size, std::uint64_t offset) {
    while (size > 0) {
        ssize_t n = pread(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        data += n;
        size -= static_cast<std::size_t>(n);
        offset += static_cast<std::uint64_t>(n);
    }
    return true;
}

}  // namespace

SyslogSpool::SyslogSpool(std::string path, std::size_t maxBytes)
    : m_path(std::move(path)), m_recordPath(m_path + ".offset"), m_maxBytes(maxBytes) {}

SyslogSpool::~SyslogSpool() {
    for (int fd : {m_fd, m_recordFd}) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

bool SyslogSpool::Open(std::string& error) {
    if (m_path.empty()) {
        return true;
    }
    m_fd = ::open(m_path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    struct stat info {};
    if (m_fd < 0 || fstat(m_fd, &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    m_inode = info.st_ino;
    m_fileSize = static_cast<std::uint64_t>(info.st_size);
    bool created = ::access(m_recordPath.c_str(), F_OK) != 0;
    m_recordFd = ::open(m_recordPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (m_recordFd < 0) {
        error = m_recordPath + ": " + std::strerror(errno);
        return false;
    }
    if (created) {
        SyncFolderOf(m_recordPath);
    }
    // A record of another inode was left by a crash right after a rewrite: the file is all unsent.
    char record[64] = {};
    unsigned long long inode = 0, offset = 0;
    ssize_t n = pread(m_recordFd, record, sizeof(record) - 1, 0);
    if (n > 0 && std::sscanf(record, "%llu %llu", &inode, &offset) == 2 && inode == m_inode) {
        m_headSynced = offset;
        m_head = std::min<std::uint64_t>(offset, m_fileSize);
    }
    // Counts the frames after the head; a torn last frame (power loss while appending) is cut off.
    std::uint64_t at = m_head;
    while (at < m_fileSize) {
        std::size_t length = FrameLengthAt(at);
        if (length == 0 || length > m_fileSize - at) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Report] Spool %s ends in a torn record: %z byte(s) ignored", m_path,
                         static_cast<std::size_t>(m_fileSize - at));
            if (ftruncate(m_fd, static_cast<off_t>(at)) != 0 || fsync(m_fd) != 0) {
                error = std::strerror(errno);
                return false;
            }
            m_fileSize = at;
            break;
        }
        at += length;
        ++m_unreadCount;
    }
    m_readAt = m_head;
    Bound();
    if (!Persist()) {
        error = std::strerror(errno);
        return false;
    }
    return true;
}

void SyslogSpool::Push(std::string frame) {
    if (HasFile() && frame.size() > kMaxSpoolFrameBytes) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Report] Alarm of %z bytes too large for spool %s, dropped",
                     frame.size(), m_path);
        return;
    }
    m_tailBytes += frame.size();
    m_tail.push_back(std::move(frame));
    Bound();
}

bool SyslogSpool::Empty() const {
    return m_window.empty() && m_readAt >= m_fileSize && m_tail.empty();
}

std::size_t SyslogSpool::Size() const {
    return m_window.size() + m_unreadCount + m_tail.size();
}

std::size_t SyslogSpool::Bytes() const {
    return m_windowBytes + static_cast<std::size_t>(m_fileSize - m_readAt) + m_tailBytes;
}

const std::string& SyslogSpool::Front() {
    if (m_window.empty() && m_readAt < m_fileSize) {
        Refill();
    }
    return m_window.empty() ? m_tail.front() : m_window.front().data;
}

void SyslogSpool::PopFront() {
    m_frontSent = 0;
    if (m_window.empty() && m_readAt < m_fileSize) {
        Refill();
    }
    if (!m_window.empty()) {
        m_windowBytes -= m_window.front().data.size();
        m_window.pop_front();
        UpdateHead();
    } else if (!m_tail.empty()) {
        m_tailBytes -= m_tail.front().size();
        m_tail.pop_front();
    }
}

std::size_t SyslogSpool::TakeDropped() {
    std::size_t dropped = m_dropped;
    m_dropped = 0;
    return dropped;
}

std::size_t SyslogSpool::FrameLengthAt(std::uint64_t offset) {
    char header[10];
    ssize_t n = pread(m_fd, header, sizeof(header), static_cast<off_t>(offset));
    return n > 0 ? ParseFrameLength(header, static_cast<std::size_t>(n)) : 0;
}

void SyslogSpool::Refill() {
    while (m_windowBytes < kSpoolWindowBytes && m_readAt < m_fileSize) {
        std::size_t length = FrameLengthAt(m_readAt);
        if (length == 0 || length > m_fileSize - m_readAt) {
            GiveUpUnread("not a frame");
            return;
        }
        std::string data(length, '\0');
        if (!ReadAllAt(m_fd, &data[0], length, m_readAt)) {
            GiveUpUnread(std::strerror(errno));
            return;
        }
        m_window.push_back(Frame{m_readAt, std::move(data)});
        m_windowBytes += length;
        m_readAt += length;
        --m_unreadCount;
    }
    UpdateHead();
}

// Only a file changed behind the agent's back or a failing disk gets here.
void SyslogSpool::GiveUpUnread(const char* why) {
    SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                 "[Report] Spool %s cannot be read at offset %?u (%s): %?u byte(s) lost", m_path, m_readAt,
                 std::string(why), m_fileSize - m_readAt);
    m_readAt = m_fileSize;
    m_unreadCount = 0;
    UpdateHead();
}

// The head follows the oldest frame not yet sent; a frame in flight holds it even when frames
// behind it were dropped (those come back only if the agent dies before the front is out).
void SyslogSpool::UpdateHead() {
    if (m_frontSent > 0 && !m_window.empty()) {
        return;
    }
    m_head = m_window.empty() ? m_readAt : m_window.front().offset;
}

bool SyslogSpool::DropOldest() {
    // The front is never dropped once part of it went out: the stream would be left torn.
    const bool inFlight = m_frontSent > 0;
    if (m_window.size() > (inFlight ? 1u : 0u)) {
        auto oldest = m_window.begin() + (inFlight ? 1 : 0);
        m_windowBytes -= oldest->data.size();
        m_window.erase(oldest);
        UpdateHead();
        return true;
    }
    if (m_readAt < m_fileSize) {
        std::size_t length = FrameLengthAt(m_readAt);
        if (length == 0 || length > m_fileSize - m_readAt) {
            GiveUpUnread("not a frame");
            return true;
        }
        m_readAt += length;
        --m_unreadCount;
        UpdateHead();
        return true;
    }
    const bool tailInFlight = inFlight && m_window.empty();
    if (m_tail.size() > (tailInFlight ? 1u : 0u)) {
        auto oldest = m_tail.begin() + (tailInFlight ? 1 : 0);
        m_tailBytes -= oldest->size();
        m_tail.erase(oldest);
        return true;
    }
    return false;
}

void SyslogSpool::Bound() {
    // The newest frame always stays.
    while (Bytes() > m_maxBytes && Size() > 1 && DropOldest()) {
        ++m_dropped;
    }
    // With a file, memory holds only what could not be written to it (a full disk), within a
    // bound of its own.
    while (HasFile() && m_tailBytes > kSinkBacklogBytes && m_tail.size() > 1 && DropOldest()) {
        ++m_dropped;
    }
}

bool SyslogSpool::WriteRecord(std::uint64_t offset) {
    char record[64];
    int length = std::snprintf(record, sizeof(record), "%20" PRIu64 " %20" PRIu64 "\n",
                               static_cast<std::uint64_t>(m_inode), offset);
    if (pwrite(m_recordFd, record, static_cast<std::size_t>(length), 0) != length ||
        fdatasync(m_recordFd) != 0) {
        return false;
    }
    m_headSynced = offset;
    return true;
}

bool SyslogSpool::Persist(bool stopping) {
    if (!HasFile()) {
        return true;
    }
    // 1. What was sent is recorded before anything else changes the file.
    if (m_head != m_headSynced && !WriteRecord(m_head)) {
        return false;
    }
    if (m_head == m_fileSize && m_fileSize > 0) {
        // 2. Everything in the file was sent: empty it. Until the record says 0 its old offset lies
        // beyond the end, which reads as "all sent"; frames are appended only after that.
        if (ftruncate(m_fd, 0) != 0 || fsync(m_fd) != 0) {
            return false;
        }
        m_fileSize = m_head = m_readAt = 0;
        m_unsyncedSince.reset();
        if (!WriteRecord(0)) {
            return false;
        }
    } else if (m_head > 0 && ((stopping && Bytes() <= kSpoolCompactOnStopBytes) || m_head > m_maxBytes) &&
               !Compact()) {
        return false;
    }
    // 3. Frames that did not go out at once. A power cut before their fsync loses them (a torn
    // last one is cut off at the next start); it never makes a sent frame look unsent.
    if (!AppendTail()) {
        return false;
    }
    if (m_unsyncedSince && (stopping || SyncDue() <= std::chrono::steady_clock::now())) {
        if (fdatasync(m_fd) != 0) {
            return false;
        }
        m_unsyncedSince.reset();
    }
    return true;
}

std::chrono::steady_clock::time_point SyslogSpool::SyncDue() const {
    return m_unsyncedSince ? *m_unsyncedSince + std::chrono::milliseconds(kSpoolSyncMs)
                           : std::chrono::steady_clock::time_point::max();
}

// Writes the unsent part to "<file>.new", fsyncs it, renames it over the file and fsyncs the
// folder, then records offset 0 with the new inode. The record named the old file when this
// started (step 1 of Persist succeeded), so a crash in between is told apart by the inode.
bool SyslogSpool::Compact() {
    const std::string temporary = m_path + ".new";
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok = fd >= 0;
    std::string chunk;
    for (std::uint64_t at = m_head; ok && at < m_fileSize;) {
        chunk.resize(static_cast<std::size_t>(std::min<std::uint64_t>(kSpoolWindowBytes, m_fileSize - at)));
        ok = ReadAllAt(m_fd, &chunk[0], chunk.size(), at) && WriteAll(fd, chunk.data(), chunk.size());
        at += chunk.size();
    }
    ok = ok && fdatasync(fd) == 0;
    int error = errno;
    if (fd >= 0) {
        ::close(fd);
    }
    if (!ok || std::rename(temporary.c_str(), m_path.c_str()) != 0) {
        error = ok ? errno : error;
        ::unlink(temporary.c_str());
        errno = error;
        return false;
    }
    SyncFolderOf(m_path);
    int reopened = ::open(m_path.c_str(), O_RDWR | O_APPEND | O_CLOEXEC);
    struct stat info {};
    if (reopened < 0 || fstat(reopened, &info) != 0) {
        error = errno;
        if (reopened >= 0) {
            ::close(reopened);
        }
        errno = error;
        return false;
    }
    ::close(m_fd);
    m_fd = reopened;
    m_inode = info.st_ino;
    for (Frame& frame : m_window) {
        frame.offset -= m_head;
    }
    m_readAt -= m_head;
    m_fileSize -= m_head;
    m_head = 0;
    m_unsyncedSince.reset();
    return WriteRecord(0);
}

bool SyslogSpool::AppendTail() {
    if (m_tail.empty()) {
        return true;
    }
    std::string all;
    for (const std::string& frame : m_tail) {
        all += frame;
    }
    if (!WriteAll(m_fd, all.data(), all.size())) {
        // Whatever part landed is a torn frame: cut it off, the frames stay in memory.
        int error = errno;
        if (ftruncate(m_fd, static_cast<off_t>(m_fileSize)) != 0) {
            GiveUpUnread(std::strerror(errno));
        }
        errno = error;
        return false;
    }
    if (!m_unsyncedSince) {
        m_unsyncedSince = std::chrono::steady_clock::now();
    }
    std::uint64_t at = m_fileSize;
    m_fileSize += all.size();
    // A front already partly sent keeps its place at the head of the window.
    if (m_frontSent > 0 && m_window.empty() && m_readAt == at) {
        m_window.push_back(Frame{at, std::move(m_tail.front())});
        m_windowBytes += m_window.back().data.size();
        m_tail.pop_front();
        m_readAt = at + m_window.back().data.size();
        m_head = at;
    }
    m_unreadCount += m_tail.size();
    m_tail.clear();
    m_tailBytes = 0;
    return true;
}

}  // namespace Engine
