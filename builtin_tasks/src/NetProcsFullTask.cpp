#include "builtin_tasks/NetProcsFullTask.h"

#include "SockDiagDump.h"
#include "SocketOwners.h"
#include "sdk/LogStatement.h"

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

namespace Engine {

namespace {

// A kernel that does not answer a dump within this time is treated as failing, so a refresh
// never blocks the task (or its cancellation) for long.
constexpr long kNetlinkTimeoutSeconds = 2;

// The task's thread only waits for its cancellation; this bounds one wait, it is no timer.
constexpr long kIdleWaitMs = 24L * 3600 * 1000;

struct Table {
    int family;
    int protocol;
    const char* label;
};

const Table kTables[] = {
    {AF_INET, IPPROTO_TCP, "tcp"},
    {AF_INET6, IPPROTO_TCP, "tcp6"},
    {AF_INET, IPPROTO_UDP, "udp"},
    {AF_INET6, IPPROTO_UDP, "udp6"},
};

// Reads all four socket tables. False, with `error` set, when one of them could not be read; a
// table the kernel does not have (IPv6 disabled, diag module missing) counts as empty.
bool ReadSocketTables(std::vector<NetProcsMessage::netProcInfo>& sockets, std::string& error) {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        error = std::string("netlink socket: ") + std::strerror(errno);
        return false;
    }
    timeval timeout{};
    timeout.tv_sec = kNetlinkTimeoutSeconds;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));

    bool ok = true;
    unsigned int seq = 0;
    for (const Table& table : kTables) {
        std::string tableError;
        bool unsupported = false;
        if (SockDiag::DumpSockets(fd, table.family, table.protocol, ++seq, sockets, tableError,
                                  unsupported)) {
            continue;
        }
        if (unsupported) {
            SDK_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[NetProcs] No %s socket table: %s",
                         std::string(table.label), tableError);
            continue;
        }
        error = std::string(table.label) + " dump: " + tableError;
        ok = false;
        break;
    }
    close(fd);
    return ok;
}

}  // namespace

NetProcsFullTask::NetProcsFullTask(long refreshPeriodMs)
    : Framework::Task(kTaskName, "builtin", 0, 16), m_refreshPeriodMs(refreshPeriodMs) {}

NetProcsFullTask::~NetProcsFullTask() = default;

void NetProcsFullTask::GetNetCacheMap(CacheMap& out) {
    const auto now = std::chrono::steady_clock::now();
    m_lastRead.store(now.time_since_epoch().count(), std::memory_order_relaxed);
    {
        // A reader refreshes a cache that is too old; a reader that waited here for another's
        // refresh finds it fresh and takes it as it is.
        std::lock_guard<std::mutex> refreshing(m_refreshMutex);
        if (now - m_refreshedAt >= std::chrono::milliseconds(m_refreshPeriodMs)) {
            RefreshLocked();
        }
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    out = m_cache;
}

std::chrono::steady_clock::time_point NetProcsFullTask::GetLastReadTime() const {
    return std::chrono::steady_clock::time_point(
        std::chrono::steady_clock::duration(m_lastRead.load(std::memory_order_relaxed)));
}

bool NetProcsFullTask::RefreshNow() {
    std::lock_guard<std::mutex> refreshing(m_refreshMutex);
    return RefreshLocked();
}

bool NetProcsFullTask::RefreshLocked() {
    // A failed refresh counts too: a kernel that cannot be asked is asked again a period later.
    m_refreshedAt = std::chrono::steady_clock::now();
    std::vector<NetProcsMessage::netProcInfo> sockets;
    std::string error;
    if (!ReadSocketTables(sockets, error)) {
        if (error != m_refreshProblem) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[NetProcs] Cannot read the socket tables, cache kept: %s; trying again at a read "
                         "%ld ms later",
                         error, m_refreshPeriodMs);
            m_refreshProblem = error;
        }
        return false;
    }
    if (!m_refreshProblem.empty()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[NetProcs] Socket tables readable again");
        m_refreshProblem.clear();
    }

    std::set<unsigned long> inodes;
    for (const auto& info : sockets) {
        if (info.inode != 0) {
            inodes.insert(info.inode);
        }
    }
    std::map<unsigned long, SocketOwner> owners = FindSocketOwners(inodes);

    CacheMap fresh;
    for (auto& info : sockets) {
        if (info.inode == 0) {
            continue;
        }
        auto owner = owners.find(info.inode);
        if (owner != owners.end()) {
            info.pid = owner->second.pid;
            info.processName = owner->second.processName;
        }
        fresh.emplace(static_cast<long>(info.inode), std::make_shared<NetProcsMessage::netProcInfo>(info));
    }

    std::size_t count = fresh.size();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_cache.swap(fresh);
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_DEBUG,
                 "[NetProcs] Socket cache refreshed: %z socket(s), %z with a known owner", count,
                 owners.size());
    return true;
}

bool NetProcsFullTask::Init() {
    RefreshNow();
    return true;
}

int NetProcsFullTask::Run() {
    // Readers refresh the cache when they find it old, so the thread has nothing to do but wait
    // for its cancellation (sleep() returns true at once then).
    while (!isCancelled() && !sleep(kIdleWaitMs)) {
    }
    return 0;
}

}  // namespace Engine
