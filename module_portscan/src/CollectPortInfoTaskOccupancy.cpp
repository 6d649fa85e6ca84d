// The collection task's port occupancy: whether a local program holds a watched port.

#include "CollectPortInfoTaskInternal.h"

#include "SocketUtil.h"
#include "sdk/LoggerUtils.h"

#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Engine {

using namespace CollectTask;

namespace {

// One socket-diagnostics query for the sockets of `family` bound to `port`: `status` 0 in use,
// 1 free, 2 the query failed; unchanged when no netlink socket could be made.
void QueryPortStatus(unsigned short port, int& status, int protocol, int family) {
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Create Netlink sock err!");
        return;
    }
    bool answered = SocketUtil::SendNetlinkMsgQuery(fd, port, protocol, SOCK_DIAG_BY_FAMILY, family);
    if (answered) {
        answered = SocketUtil::RecvNetLinkMsgQuery(fd, status, protocol);
    }
    if (!answered) {
        status = 2;
    }
    close(fd);
}

// Adds the answer for `family` to the `status` of a first query: in use when either family holds the
// port; otherwise a failed query of either family shows.
void MergeFamilyStatus(unsigned short port, int& status, int protocol, int family) {
    int familyStatus = 1;
    QueryPortStatus(port, familyStatus, protocol, family);
    if (familyStatus != 1) {
        status = familyStatus;
    }
}

}  // namespace

void CollectPortInfoTask::CheckPortStatus(unsigned short port, int& status, int protocol) {
    QueryPortStatus(port, status, protocol, AF_INET);
    if (status == 0 || !IsExtensionOn(&PortScanTaskPolicy::IsDualStackOccupancy)) {
        return;
    }
    // An IPv6 socket serves IPv4 clients too when it is bound to the wildcard (or an IPv4-mapped
    // address) and not IPv6-only; any other IPv6 socket leaves the port free for IPv4 probes.
    int dualStack = 1;
    if (!SocketUtil::QueryDualStackPort(port, protocol, dualStack)) {
        status = 2;
    } else if (dualStack == 0) {
        status = 0;
    }
}

void CollectPortInfoTask::CheckPortStatus6(unsigned short port, int& status, int protocol) {
    QueryPortStatus(port, status, protocol, AF_INET6);
    if (status != 0) {
        MergeFamilyStatus(port, status, protocol, AF_INET);
    }
}

bool CollectPortInfoTask::IsPortOccupied(int protocol, unsigned short port) {
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    const auto found = FindRecord(ports, port, static_cast<uint32_t>(protocol));
    return found != ports.end() && found->isUsed;
}

void CollectPortInfoTask::PortOccupied(int protocol, unsigned short port) {
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    const auto found = FindRecord(ports, port, static_cast<uint32_t>(protocol));
    if (found == ports.end()) {
        return;  // a pair the policy does not name stays unknown
    }
    PortInfoNode record(*found);
    record.isUsed = true;
    PortScanTaskPolicy* policy = GetPolicy();
    if (policy != nullptr) {
        policy->RefreshAlarmInfo(record);
    }
}

bool CollectPortInfoTask::IsPortInUse(unsigned int port, unsigned int protocol) {
    for (const auto& entry : m_netCacheMap) {
        if (entry.second && entry.second->protocol == protocol && entry.second->localPort == port) {
            return true;
        }
    }
    return false;
}

}  // namespace Engine
