// The collection task's monitor list: which policy ports are watched, and the capture socket
// states that follow from changes of that list.

#include "CollectPortInfoTaskInternal.h"

#include "SocketUtil.h"
#include "sdk/LoggerUtils.h"

#include <unistd.h>

#include <utility>
#include <vector>

namespace Engine {

using namespace CollectTask;

bool CollectPortInfoTask::GetMonitorPort() {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Generate monitor port.");
    Framework::NetProcCache* netProcTask = FindNetProcTask();
    if (netProcTask == nullptr) {
        LOG_ACTION_FAILED("GetFullTaskPtr");
        return false;
    }
    m_netCacheMap.clear();
    netProcTask->GetNetCacheMap(m_netCacheMap);

    const bool merged = MergeMonitorPort();
    if (!merged) {
        LOG_ACTION_FAILED("MergeMonitorPort");
    }
    return merged;
}

bool CollectPortInfoTask::MergeMonitorPort() {
    const std::set<PortInfoNode> policyPorts = CopyPortSet(GetPolicy());
    if (policyPorts.empty()) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR,
                     "[PortScan] GenerateMonitorPortList ERR! PolicyList is EMPTY!");
        return false;
    }
    std::set<PortInfoNode> monitored;
    std::uint64_t inUse = 0;
    for (const PortInfoNode& node : policyPorts) {
        const bool used = IsPortInUse(node.port, node.type);
        inUse += used ? 1 : 0;
        if (m_banPortMap.find(node.port) != m_banPortMap.end() || used) {
            continue;
        }
        monitored.insert(node);
    }
    m_inUsePorts.store(inUse, std::memory_order_relaxed);
    m_watchedPorts.store(monitored.size(), std::memory_order_relaxed);

    if (m_portSet.empty()) {
        m_monitorStatus = MONITOR_LIST_CREATE;
    } else if (ComparePortList(monitored)) {
        m_monitorStatus = monitored.empty() ? MONITOR_LIST_CLEAR : MONITOR_LIST_NORMAL;
    } else {
        m_monitorStatus = MONITOR_LIST_CHANGE;
    }
    m_portSet.swap(monitored);
    return true;
}

bool CollectPortInfoTask::ComparePortList(std::set<PortInfoNode> list) {
    if (list.size() != m_portSet.size()) {
        return false;
    }
    // Only the port numbers count: a protocol move or new counters is no change of the filter.
    for (const PortInfoNode& node : m_portSet) {
        bool found = false;
        for (const PortInfoNode& candidate : list) {
            if (candidate.port == node.port) {
                found = true;
                break;
            }
        }
        if (!found) {
            return false;
        }
    }
    return true;
}

bool CollectPortInfoTask::PortCreated() {
    const std::vector<long> ports = CollectPorts(m_portSet);
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScam] Find monitor port list create! size = (%zu)",
                 m_portSet.size());
    if (m_socketReady) {
        m_monitorStatus = MONITOR_LIST_NORMAL;
        return true;
    }
    if (!InitSocket()) {
        LOG_ACTION_FAILED("InitSocket");
        return false;  // state stays CREATE: the next check builds everything again
    }
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Reload BPF rules , port size = (%z)",
                 ports.size());
    if (!SocketUtil::LoadPortBpfRules(m_sockFd, ports,
                                      IsExtensionOn(&PortScanTaskPolicy::IsReportableSourcesOnly))) {
        close(m_sockFd);
        m_sockFd = -1;
        close(m_epollFd);
        m_epollFd = -1;
        return false;
    }
    SocketUtil::ClearSocketBuff(m_sockFd);
    OpenCapture6(ports);
    m_socketReady = true;
    m_monitorStatus = MONITOR_LIST_NORMAL;
    return true;
}

bool CollectPortInfoTask::PortChanged() {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Monitor port changed!");
    if (m_portSet.empty()) {
        m_monitorStatus = MONITOR_LIST_CLEAR;
        return false;
    }
    const std::vector<long> ports = CollectPorts(m_portSet);
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Reload BPF rules , port size = (%z)",
                 ports.size());
    if (!SocketUtil::LoadPortBpfRules(m_sockFd, ports,
                                      IsExtensionOn(&PortScanTaskPolicy::IsReportableSourcesOnly))) {
        return false;  // old filter kept; the next check retries
    }
    // Frames admitted by the old filter must not count under the new port set.
    SocketUtil::ClearSocketBuff(m_sockFd);
    ReloadCapture6(ports);
    m_monitorStatus = MONITOR_LIST_NORMAL;
    return true;
}

bool CollectPortInfoTask::PortCleared() {
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Monitor port clear!");
    CloseCapture6();
    CloseAddressWatch();
    if (m_socketReady) {
        close(m_sockFd);
        m_sockFd = -1;
        close(m_epollFd);
        m_epollFd = -1;
        m_socketReady = false;
    }
    m_monitorStatus = MONITOR_LIST_NORMAL;
    return true;
}

void CollectPortInfoTask::UpdateAndClearPolicyPort() {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Refresh policy port list.");
    std::vector<std::pair<uint32_t, uint32_t>> keys;
    keys.reserve(m_portSet.size());
    for (const PortInfoNode& node : m_portSet) {
        keys.emplace_back(node.port, node.type);
    }
    // Each record is replaced in its place by one that keeps only its port and protocol.
    for (const auto& key : keys) {
        const auto it = FindRecord(m_portSet, key.first, key.second);
        if (it == m_portSet.end()) {
            continue;
        }
        // No position hint: with this ordering a hinted insert can overwrite a child link and drop
        // records from the tree.
        m_portSet.erase(it);
        m_portSet.insert(PortInfoNode(key.first, key.second));
    }
}

}  // namespace Engine
