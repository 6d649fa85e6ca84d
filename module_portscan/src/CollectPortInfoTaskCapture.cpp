// The collection task's capture sockets: waiting, reading frames, building and binding the IPv4
// socket, and the IPv6 socket beside it.

#include "CollectPortInfoTaskInternal.h"

#include "IPUtil.h"
#include "SocketUtil.h"
#include "sdk/LoggerUtils.h"

#include <linux/if_packet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <poll.h>

#include <vector>

namespace Engine {

using namespace CollectTask;

// "drain_socket_queue": frames read per wake-up. A burst from one unpaced scanner (an nmap pass over
// the whole monitor list, at most 100 records) fits, while one wake-up still hands back to the minute
// tick, cancellation and the state machine within a few milliseconds; the per-minute packet budget,
// not this bound, is what limits the work of a flood.
const int CollectPortInfoTask::kMaxFramesPerWakeup = 128;

bool CollectPortInfoTask::DoPortScan(int& errCount, int& pktCount) {
    if (!m_socketReady) {
        return true;
    }
    epoll_event event{};
    const int ready = epoll_wait(m_epollFd, &event, 1, kEpollTimeoutMs);
    if (ready < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Epoll Error");
        if (++errCount > m_maxErrCount) {
            m_monitorStatus = MONITOR_LIST_ERROR;
            errCount = 0;
        }
        return false;
    }
    if (ready == 0) {
        ++m_idleCount;
        return false;
    }
    if ((event.events & EPOLLIN) == 0) {
        return true;
    }
    if (m_addressWatchFd != -1 && event.data.fd == m_addressWatchFd) {
        // Notices also come for changes of an address's flags or lifetimes: only a different list
        // rebuilds the filters (a rebuild drops the frames queued under the old ones).
        if (SocketUtil::TakeAddressChanges(m_addressWatchFd) && m_monitorStatus == MONITOR_LIST_NORMAL) {
            const std::string addresses = LocalAddressText();
            if (addresses != m_watchedAddresses) {
                PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION,
                             "[PortScan] Local addresses changed, reloading filters");
                m_watchedAddresses = addresses;
                m_monitorStatus = MONITOR_LIST_CHANGE;
            }
        }
        return true;
    }
    if (IsExtensionOn(&PortScanTaskPolicy::IsDrainSocketQueue)) {
        return DrainSocketQueue(event.data.fd, pktCount, errCount);
    }
    // The IPv6 socket shares the epoll set; every other event reads the IPv4 socket.
    const int sockFd = (m_sock6Fd != -1 && event.data.fd == m_sock6Fd) ? m_sock6Fd : m_sockFd;
    return HandleSocketBuffer(sockFd, pktCount, errCount);
}

bool CollectPortInfoTask::DrainSocketQueue(int sockFd, int& pktCount, int& errCount) {
    // The socket blocks: every read, the first included, comes after a look at the queue shows a
    // frame, so a drain never waits in recv.
    pollfd queued{sockFd, POLLIN, 0};
    bool result = true;
    for (int frames = 0; result && m_running && m_monitorStatus == MONITOR_LIST_NORMAL; ++frames) {
        queued.revents = 0;
        if (poll(&queued, 1, 0) <= 0 || (queued.revents & POLLIN) == 0) {
            return result;  // nothing left
        }
        if (frames == kMaxFramesPerWakeup) {
            // Edge-triggered: without a new frame the wait would not report the rest. Modifying the
            // registration makes the next wait look at the queue again.
            epoll_event event{};
            event.events = EPOLLIN | EPOLLET;
            event.data.fd = sockFd;
            epoll_ctl(m_epollFd, EPOLL_CTL_MOD, sockFd, &event);
            return result;
        }
        result = HandleSocketBuffer(sockFd, pktCount, errCount);
    }
    // Stopped by the packet budget, or the monitor list changed: the state machine reloads the
    // filter and drops what the old one queued, as it does without draining.
    return result;
}

bool CollectPortInfoTask::HandleSocketBuffer(int sockFd, int& pktCount, int& errCount) {
    char buffer[kRecvBufferSize] = {};
    const ssize_t received = recv(sockFd, buffer, sizeof(buffer), 0);
    if (received >= 1) {
        m_framesRead.fetch_add(1, std::memory_order_relaxed);
        PacketNode node{};
        const auto parse = [&] {
            return (m_sock6Fd != -1 && sockFd == m_sock6Fd)
                       ? SocketUtil::ParsePacket6(buffer, static_cast<unsigned long>(received), &node)
                       : SocketUtil::ParsePacket(buffer, kRecvBufferSize, &node);
        };
        const bool reportableOnly = IsExtensionOn(&PortScanTaskPolicy::IsReportableSourcesOnly);
        bool parsed = reportableOnly && parse();
        if (parsed && !IsReportableSource(node)) {
            return true;  // a source never reported (white-listed) counts toward no limit
        }
        ++pktCount;
        PortScanTaskPolicy* policy = GetPolicy();  // makes the activity mark
        if (policy != nullptr && static_cast<uint32_t>(pktCount) > policy->GetMaxPktCount()) {
            // A flood must not cost the host its CPU: the task stops for good.
            m_running = false;
            return false;
        }
        if (!reportableOnly) {
            parsed = parse();
        }
        if (parsed && !CheckPortOccupied(node)) {
            HandlePacket(node, kRecvBufferSize);
        }
        return true;
    }
    if (received == -1) {
        if (++errCount > m_maxErrCount) {
            m_monitorStatus = MONITOR_LIST_ERROR;
            errCount = 0;
        }
    }
    return true;
}

bool CollectPortInfoTask::InitSocket() {
    SocketUtil::CreateRawSocket(m_sockFd);
    if (m_sockFd == -1) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Create socket fail, return err!");
        return false;
    }
    PortScanTaskPolicy* policy = GetPolicy();  // makes the activity mark
    if (policy != nullptr && policy->IsBindMasterIntf() && BindMasterInterface()) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] bind master intf err!");
        close(m_sockFd);
        m_sockFd = -1;
        return false;
    }
    m_running = true;

    m_epollFd = epoll_create(1);
    if (m_epollFd == -1) {
        close(m_sockFd);
        m_sockFd = -1;
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.fd = m_sockFd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_sockFd, &event) == -1) {
        close(m_sockFd);
        m_sockFd = -1;
        close(m_epollFd);
        m_epollFd = -1;
        return false;
    }
    return true;
}

// Master interface binding

bool CollectPortInfoTask::BindMasterInterface() const {
    return BindMasterInterface(m_sockFd);
}

bool CollectPortInfoTask::BindMasterInterface(int fd) const {
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Binding master interface!");
    std::vector<unsigned int> addresses;
    std::vector<RouteTable> routes;
    std::string name;

    if (!IPUtil::GetMasterIpList(addresses)) {
        LOG_ACTION_FAILED("GetMasterIpList");
        return false;
    }
    if (!IPUtil::GetRouteTable(routes) || routes.empty()) {
        LOG_ACTION_FAILED("GetRouteTable");
        return false;
    }
    if (!IPUtil::GetInterfaceName(addresses, routes, name)) {
        LOG_ACTION_FAILED("GetInterfaceName");
        return false;
    }
    // Texts and results are exchanged on purpose: InitSocket reads true as "close and rebuild".
    if (SocketUtil::BindPort(fd, name) != 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Bind intf (%s) success!", name);
        return true;
    }
    LOG_ACTION_FAILED("GetInterfaceName");
    return false;
}

// IPv6 capture

void CollectPortInfoTask::OpenCapture6(const std::vector<long>& ports) {
    if (!IsExtensionOn(&PortScanTaskPolicy::IsIpv6Enable)) {
        return;
    }
    SocketUtil::CreateRawSocket6(m_sock6Fd);
    if (m_sock6Fd == -1) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Create ip6 socket fail, IPv4 capture only!");
        return;
    }
    if (IsExtensionOn(&PortScanTaskPolicy::IsBindMasterIntf) && BindMasterInterface(m_sock6Fd)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] bind master intf err! IPv4 capture only!");
        CloseCapture6();
        return;
    }
    if (!LoadCapture6Filter(ports)) {
        return;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLET;
    event.data.fd = m_sock6Fd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_sock6Fd, &event) == -1) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Epoll add ip6 socket fail, IPv4 capture only!");
        CloseCapture6();
    }
}

void CollectPortInfoTask::ReloadCapture6(const std::vector<long>& ports) {
    if (!IsExtensionOn(&PortScanTaskPolicy::IsIpv6Enable)) {
        CloseCapture6();  // turned off by a new policy
        return;
    }
    if (m_sock6Fd == -1) {
        OpenCapture6(ports);
        return;
    }
    LoadCapture6Filter(ports);
}

bool CollectPortInfoTask::LoadCapture6Filter(const std::vector<long>& ports) {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Reload ip6 BPF rules , port size = (%z)",
                 ports.size());
    if (!SocketUtil::LoadPort6BpfRules(m_sock6Fd, ports,
                                       IsExtensionOn(&PortScanTaskPolicy::IsReportableSourcesOnly))) {
        // Not kept open: an old filter may still admit a port that was frozen or taken since, and a new
        // socket without one admits every IPv6 frame.
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Load ip6 BPF rules fail, IPv4 capture only!");
        CloseCapture6();
        return false;
    }
    // Frames admitted before (by no filter, or by the old one) must not count under this port set.
    SocketUtil::ClearSocketBuff(m_sock6Fd);
    return true;
}

void CollectPortInfoTask::CloseCapture6() {
    if (m_sock6Fd == -1) {
        return;
    }
    // Closing the descriptor also takes it out of the epoll set.
    close(m_sock6Fd);
    m_sock6Fd = -1;
}

// Switches followed at every pass

void CollectPortInfoTask::FollowSwitches() {
    if (m_sock6Fd != -1 && !IsExtensionOn(&PortScanTaskPolicy::IsIpv6Enable)) {
        PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] ipv6 turned off, closing the ip6 socket");
        CloseCapture6();
    }
    const bool follow = IsExtensionOn(&PortScanTaskPolicy::IsFollowAddressChanges);
    if (!follow || !m_socketReady) {
        CloseAddressWatch();
        return;
    }
    if (m_addressWatchFd != -1) {
        return;
    }
    m_addressWatchFd = SocketUtil::OpenAddressWatch();
    if (m_addressWatchFd == -1) {
        return;  // logged; tried again at the next pass after the next socket build
    }
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = m_addressWatchFd;
    if (epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_addressWatchFd, &event) == -1) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Epoll add address watch fail!");
        CloseAddressWatch();
        return;
    }
    // The filters were built in this pass or before: with the addresses as they are now.
    m_watchedAddresses = LocalAddressText();
}

std::string CollectPortInfoTask::LocalAddressText() {
    std::vector<unsigned int> addresses;
    std::vector<in6_addr> addresses6;
    IPUtil::GetLocalhostIp(addresses);
    IPUtil::GetLocalhostIp6(addresses6);
    std::string text;
    for (unsigned int address : addresses) {
        text += std::to_string(address) + ",";
    }
    for (const in6_addr& address : addresses6) {
        text += IPUtil::Ip6Text(address) + ",";
    }
    return text;
}

void CollectPortInfoTask::CloseAddressWatch() {
    if (m_addressWatchFd == -1) {
        return;
    }
    close(m_addressWatchFd);  // also leaves the epoll set
    m_addressWatchFd = -1;
}

void CollectPortInfoTask::TakePacketStatistics() {
    for (int fd : {m_socketReady ? m_sockFd : -1, m_sock6Fd}) {
        tpacket_stats stats{};
        socklen_t length = sizeof(stats);
        if (fd >= 0 && getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &length) == 0) {
            m_kernelPackets.fetch_add(stats.tp_packets, std::memory_order_relaxed);
            m_kernelDrops.fetch_add(stats.tp_drops, std::memory_order_relaxed);
        }
    }
}

std::vector<Framework::TaskMetric> CollectPortInfoTask::GetMetrics() const {
    auto number = [](const std::atomic<std::uint64_t>& value) {
        return static_cast<double>(value.load(std::memory_order_relaxed));
    };
    return {
        {"hostagent_capture_frames_total", "counter",
         "Frames the port-scan task read from its capture sockets.", "", number(m_framesRead)},
        {"hostagent_watched_ports", "gauge",
         "Policy ports the capture filters watch (unused and not frozen).", "", number(m_watchedPorts)},
        {"hostagent_in_use_ports", "gauge", "Policy ports a local program uses, left out of the filters.", "",
         number(m_inUsePorts)},
        {"hostagent_frozen_ports", "gauge", "Ports frozen for a day after too many packets or hosts.", "",
         number(m_frozenPorts)},
        {"hostagent_capture_kernel_frames_total", "counter",
         "Frames the kernel filters admitted (PACKET_STATISTICS), counted at the minute tick.", "",
         number(m_kernelPackets)},
        {"hostagent_capture_kernel_drops_total", "counter",
         "Admitted frames the kernel dropped on a full socket queue (PACKET_STATISTICS), counted at the "
         "minute tick.",
         "", number(m_kernelDrops)},
    };
}

}  // namespace Engine
