// The collection task's packet handling: occupancy check, classification, evidence and freezing.

#include "CollectPortInfoTaskInternal.h"

#include "IPUtil.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

#include <arpa/inet.h>

#include <cstdlib>

namespace Engine {

using namespace CollectTask;

namespace {

// Last CPU-governor reading of the packet handler's call site; written by the task thread only.
unsigned long g_handlePacketTick = 0;

}  // namespace

bool CollectPortInfoTask::CheckPortOccupied(const PacketNode& pkt) {
    PortScanTaskPolicy* policy = GetPolicy();
    if (policy == nullptr || !policy->IsChkBeforAlarm()) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Chk before alarm is disable!");
        return true;
    }
    if (IsPortOccupied(pkt.type, pkt.localPort)) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port Occupied");
        HandleOccupiedPortPacket(pkt);
        return true;
    }
    int status = 1;  // a query that cannot even start must not hide scan evidence
    if (pkt.isIpv6) {
        CheckPortStatus6(pkt.localPort, status, pkt.type);
    } else {
        CheckPortStatus(pkt.localPort, status, pkt.type);
    }
    if (status != 0) {
        return false;
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port Occupied");
    HandleOccupiedPortPacket(pkt);
    PortOccupied(pkt.type, pkt.localPort);
    return true;
}

void CollectPortInfoTask::HandlePacket(const PacketNode& pkt, unsigned long len) {
    GovernCpu(g_handlePacketTick, __FILE__, kGovernorHandlePacketSite);

    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    const auto found = FindRecord(ports, pkt.localPort, static_cast<uint32_t>(pkt.type));
    if (found == ports.end()) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port not found.");
        return;
    }
    PortInfoNode record(*found);
    ++record.pkgNum;
    int alarmType = -1;

    if (m_computeChain == nullptr) {
        return;
    }
    bool alarmed = false;
    for (ComputeChain* element = m_computeChain; element != nullptr; element = element->next) {
        if (element->handle(pkt, alarmType, len)) {
            alarmed = true;
            break;
        }
    }
    if (alarmed) {
        ++record.alarmNum;
        // Budgeted per port and type: a new port's alarm always shows, one port's flood stays bounded.
        PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_WARNING, SDK::LogBudget::kPerText,
                              "[PortScan] Alarm found, port [%u], alarm type = [%d]",
                              static_cast<unsigned int>(pkt.localPort), alarmType);
        FillAlarmInfo(record, pkt, alarmType);
        if (IsExtensionOn(&PortScanTaskPolicy::IsPromptAlarms) && CrossedAlarmThreshold(record)) {
            m_alarmPending = true;
        }
        if (IsExtensionOn(&PortScanTaskPolicy::IsScanSummary)) {
            RecordSummaryProbe(pkt);
        }
    }

    // The chain made activity marks: the policy is read anew.
    PortScanTaskPolicy* policy = GetPolicy();
    if (policy != nullptr &&
        (record.pkgNum > policy->GetMaxPortPkgNum() || record.ipNum > policy->GetPortMaxIpNum())) {
        FreezePort(static_cast<unsigned short>(record.port));
    }
    policy = GetPolicy();
    if (policy != nullptr) {
        policy->RefreshAlarmInfo(record);
    }
}

void CollectPortInfoTask::FillAlarmInfo(PortInfoNode& node, const PacketNode& pkt, int alarmType) {
    AlarmInfo info;
    // Half-open and FIN probes are TCP by their nature; only a common scan can be UDP.
    info.protocol = (alarmType == kCommonScanType && pkt.type == kUdpType) ? "UDP" : "TCP";
    info.remoteAddress = pkt.isIpv6 ? IPUtil::Ip6Text(pkt.remoteAddress6) : inet_ntoa(pkt.remoteAddress);
    info.localAddress = pkt.isIpv6 ? IPUtil::Ip6Text(pkt.localAddress6) : inet_ntoa(pkt.localAddress);
    info.remotePort = pkt.remotePort;
    info.flag = pkt.flag;
    info.alarmType = alarmType;
    node.alarmInfos.push_back(info);

    // Hosts are counted across both families.
    if (pkt.isIpv6) {
        if (!ContainsIP6(node.remoteIp6s, pkt.remoteAddress6)) {
            node.remoteIp6s.push_back(pkt.remoteAddress6);
            ++node.ipNum;
        }
    } else if (!ContainsIP(node.remoteIps, pkt.remoteAddress)) {
        node.remoteIps.push_back(pkt.remoteAddress);
        ++node.ipNum;
    }

    // A port no longer monitored does not come back this way. The set's own search can miss a
    // present record when ports and protocols are numbered against each other.
    const auto it = IsExtensionOn(&PortScanTaskPolicy::IsExactPortLookup)
                        ? FindRecord(m_portSet, node.port, node.type)
                        : std::set<PortInfoNode>::const_iterator(m_portSet.find(node));
    if (it != m_portSet.end()) {
        m_portSet.erase(it);
        m_portSet.insert(node);
    }
}

void CollectPortInfoTask::HandleOccupiedPortPacket(const PacketNode& pkt) {
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    const auto found = FindRecord(ports, pkt.localPort, static_cast<uint32_t>(pkt.type));
    if (found == ports.end()) {
        return;
    }
    PortInfoNode record(*found);
    ++record.pkgNum;
    PortScanTaskPolicy* policy = GetPolicy();
    if (policy == nullptr) {
        return;
    }
    policy->RefreshAlarmInfo(record);
    const uint32_t limit = policy->GetMaxPortPkgNum();
    if (record.pkgNum > limit) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port recv pkts over max: %u, port [%u] freezed.",
                     limit, record.port);
        FreezePort(static_cast<unsigned short>(record.port));
    }
}

void CollectPortInfoTask::FreezePort(unsigned short port) {
    if (m_banPortMap.find(port) != m_banPortMap.end()) {
        return;  // the first freeze time stays
    }
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Freeze port [%hu]", port);
    m_banPortMap[port] = SDK::TimeUtils::GetCurrentTimestampS();
    m_frozenPorts.store(m_banPortMap.size(), std::memory_order_relaxed);
    // Rebuilding the list leaves the port out, so the filter is reloaded without it.
    GetMonitorPort();
    PrintPortInfo();
}

bool CollectPortInfoTask::FreeBanPort() {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Free baned port.");
    for (auto it = m_banPortMap.begin(); it != m_banPortMap.end();) {
        if (std::labs(SDK::TimeUtils::GetCurrentTimestampS() - it->second) >= m_banTime) {
            it = m_banPortMap.erase(it);
        } else {
            ++it;
        }
    }
    m_frozenPorts.store(m_banPortMap.size(), std::memory_order_relaxed);
    return true;
}

}  // namespace Engine
