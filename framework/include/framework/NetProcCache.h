#pragma once

#include <map>
#include <memory>
#include <string>

namespace Framework {

// One socket of this host, as the kernel reports it.
struct NetProcInfo {
    unsigned int localPort = 0;   // host order
    unsigned int protocol = 0;    // 0 TCP, 1 UDP (the numbering the modules use)
    std::string localAddress;     // text form, IPv4 or IPv6
    std::string remoteAddress;    // peer address text; "0.0.0.0" / "::" when not connected
    unsigned int remotePort = 0;  // host order; 0 when not connected
    unsigned int state = 0;       // kernel socket state (TCP_LISTEN = 10, ...)
    unsigned long inode = 0;      // socket inode, the cache key
    int pid = -1;                 // owning process, -1 when it cannot be found
    std::string processName;      // comm of the owning process, "" when unknown
};

// The host's socket table as the agent keeps it. The agent's task "netproc_full_task" implements
// it; a module finds that task by name (Engine::FindTask) and reads the table through this
// interface only, so no module depends on the agent's own tasks.
class NetProcCache {
public:
    using CacheMap = std::map<long, std::shared_ptr<NetProcInfo>>;

    virtual ~NetProcCache() = default;
    // Replaces `out` with a snapshot of the table: socket inode -> socket. Safe from any thread; the
    // records are shared and never modified after publication.
    virtual void GetNetCacheMap(CacheMap& out) = 0;
};

}  // namespace Framework
