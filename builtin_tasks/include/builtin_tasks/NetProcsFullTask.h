#pragma once

#include "framework/NetProcCache.h"
#include "framework/Task.h"

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace Engine {

struct NetProcsMessage {
    // One socket of this host, as the kernel reports it.
    using netProcInfo = Framework::NetProcInfo;
};

// "netproc_full_task": a cache of this host's TCP and UDP sockets (IPv4 and IPv6), refreshed from
// the kernel (socket diagnostics over netlink, owners from /proc/<pid>/fd) when it is read and is
// older than the refresh period, so nothing runs while nobody reads it.
// Sockets without an inode (TIME_WAIT, half-open requests) belong to no program and are left out.
class NetProcsFullTask : public Framework::Task, public Framework::NetProcCache {
public:
    using CacheMap = Framework::NetProcCache::CacheMap;

    static constexpr const char* kTaskName = "netproc_full_task";

    explicit NetProcsFullTask(long refreshPeriodMs = 5000);
    ~NetProcsFullTask() override;

    // Replaces `out` with a snapshot of the cache: socket inode -> socket, refreshed first on the
    // caller's thread when older than the refresh period. Safe from any thread; the records are
    // shared and never modified after publication.
    void GetNetCacheMap(CacheMap& out) override;
    // When GetNetCacheMap was last called (steady clock); the epoch when never. Readers do their
    // periodic work around that call, so the agent can tell when that work is done.
    std::chrono::steady_clock::time_point GetLastReadTime() const;

    // Re-reads the kernel's socket tables now. False when the kernel could not be asked (the
    // previous cache is kept).
    bool RefreshNow();

    // Fills the cache once, so it is ready as soon as the task is registered. Always true: a
    // kernel that cannot be asked leaves the cache empty (with an error line) until a later refresh.
    bool Init() override;
    // Waits for cancellation: the readers refresh the cache.
    int Run() override;

private:
    bool RefreshLocked();  // RefreshNow with m_refreshMutex held

    long m_refreshPeriodMs;
    std::mutex m_refreshMutex;  // one refresh at a time; guards m_refreshedAt and m_refreshProblem
    std::chrono::steady_clock::time_point m_refreshedAt;
    std::mutex m_mutex;
    CacheMap m_cache;
    std::atomic<std::chrono::steady_clock::rep> m_lastRead{0};
    // Why the last refresh failed ("" after a good one): a lasting fault is logged once, not per
    // refresh, and its end is logged too.
    std::string m_refreshProblem;
};

}  // namespace Engine
