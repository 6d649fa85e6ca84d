// The collection task: its records, life cycle and main loop.

#include "CollectPortInfoTaskInternal.h"

#include "framework/Engine.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/ThreadUtils.h"
#include "sdk/TimeUtils.h"

#include <cstdlib>
#include <vector>

namespace Engine {

using namespace CollectTask;

namespace CollectTask {

void GovernCpu(unsigned long& lastTick, const char* file, int site) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long used = now > lastTick ? now - lastTick : lastTick - now;
    if (used > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(file, site, kModuleName, now, used);
        lastTick = now;
    }
}

std::set<PortInfoNode>::const_iterator FindRecord(const std::set<PortInfoNode>& set, uint32_t port,
                                                  uint32_t type) {
    for (auto it = set.begin(); it != set.end(); ++it) {
        if (it->port == port && it->type == type) {
            return it;
        }
    }
    return set.end();
}

std::set<PortInfoNode> CopyPortSet(const PortScanTaskPolicy* policy) {
    if (policy == nullptr) {
        return {};
    }
    return policy->GetPolicyPortSet();
}

Framework::NetProcCache* FindNetProcTask() {
    Framework::Engine* engine = Framework::Engine::Instance();
    if (engine == nullptr) {
        return nullptr;
    }
    return dynamic_cast<Framework::NetProcCache*>(engine->FindTask(kNetProcTaskName));
}

std::vector<long> CollectPorts(const std::set<PortInfoNode>& set) {
    std::vector<long> ports;
    ports.reserve(set.size());
    for (const PortInfoNode& node : set) {
        ports.push_back(static_cast<long>(node.port));
    }
    return ports;
}

}  // namespace CollectTask

namespace {

// Last CPU-governor reading of the loop's two call sites; written by the task thread only.
unsigned long g_loopTopTick = 0;
unsigned long g_afterWaitTick = 0;

}  // namespace

// ---------------------------------------------------------------------------------------------
// Records

PortInfoNode::PortInfoNode() : PortInfoNode(0, 0) {}

PortInfoNode::PortInfoNode(uint32_t port, uint32_t type)
    : port(port), type(type), alarmNum(0), ipNum(0), pkgNum(0), isUsed(false), auxValue(0) {}

PortInfoNode::PortInfoNode(const PortInfoNode& other)
    : port(other.port),
      type(other.type),
      alarmNum(other.alarmNum),
      ipNum(other.ipNum),
      pkgNum(other.pkgNum),
      isUsed(other.isUsed),
      auxValue(0) {
    alarmInfos = other.alarmInfos;
    remoteIps = other.remoteIps;
    remoteIp6s = other.remoteIp6s;
}

PortInfoNode::~PortInfoNode() {
    // Release the storage explicitly, not only the elements.
    std::vector<AlarmInfo>().swap(alarmInfos);
    std::vector<in_addr>().swap(remoteIps);
    std::vector<in6_addr>().swap(remoteIp6s);
}

bool PortInfoNode::operator<(const PortInfoNode& other) const {
    // Deliberately not lexicographic: see the header.
    return port < other.port || type < other.type;
}

bool ContainsIP(const std::vector<in_addr>& list, in_addr ip) {
    for (const in_addr& entry : list) {
        if (entry.s_addr == ip.s_addr) {
            return true;
        }
    }
    return false;
}

bool ContainsIP6(const std::vector<in6_addr>& list, const in6_addr& ip) {
    for (const in6_addr& entry : list) {
        if (IN6_ARE_ADDR_EQUAL(&entry, &ip)) {
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Life cycle and main loop

CollectPortInfoTask::CollectPortInfoTask()
    : Framework::Task("port_scan_task", "portscan_info_collect", 0, 1024),
      m_banPortMap{{0u, 0L}},  // placeholder entry; Init removes it
      m_socketReady(false),
      m_maxErrCount(kMaxErrCount),
      m_banTime(kBanTimeSeconds),
      m_monitorStatus(MONITOR_LIST_CREATE),
      m_idleCount(0),
      m_running(false),
      m_firstRun(false),
      m_sockFd(0),
      m_epollFd(0),
      m_sock6Fd(-1),
      m_addressWatchFd(-1),
      m_computeChain(nullptr),
      m_lastTickTime(0),
      m_alarmPending(false),
      m_summariesDropped(0) {}

CollectPortInfoTask::~CollectPortInfoTask() = default;

PortScanTaskPolicy* CollectPortInfoTask::GetPolicy() {
    MarkActivity();
    return dynamic_cast<PortScanTaskPolicy*>(GetTaskPolicy());
}

bool CollectPortInfoTask::IsExtensionOn(bool (PortScanTaskPolicy::*isOn)() const) const {
    const auto* policy = dynamic_cast<const PortScanTaskPolicy*>(GetTaskPolicy());
    return policy != nullptr && (policy->*isOn)();
}

namespace {

// Deletes a classifier chain element by element, tail first.
void DeleteChain(ComputeChain*& head) {
    std::vector<ComputeChain*> elements;
    for (ComputeChain* element = head; element != nullptr; element = element->next) {
        elements.push_back(element);
    }
    for (auto it = elements.rbegin(); it != elements.rend(); ++it) {
        delete *it;
    }
    head = nullptr;
}

}  // namespace

bool CollectPortInfoTask::Init() {
    InitFieldVars();
    return Framework::Task::Init();
}

void CollectPortInfoTask::InitFieldVars() {
    m_portSet.clear();
    m_banPortMap.clear();
    m_netCacheMap.clear();
    DeleteChain(m_computeChain);

    m_running = true;
    m_firstRun = true;
    m_monitorStatus = MONITOR_LIST_NORMAL;
    m_sockFd = -1;
    m_epollFd = -1;
    m_sock6Fd = -1;
    m_addressWatchFd = -1;
    m_lastTickTime = 0;
    m_alarmPending = false;

    // The half-open test must see a packet before the common test takes it.
    m_computeChain = new HFConnectChain();
    m_computeChain->next = new CommonComputeChain();
}

bool CollectPortInfoTask::UnInit() {
    m_portSet.clear();
    m_banPortMap.clear();
    m_netCacheMap.clear();
    DeleteChain(m_computeChain);
    PortCleared();
    return Framework::Task::UnInit();
}

int CollectPortInfoTask::Run() {
    if (m_firstRun) {
        PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] first run port_scan_task, tid(%lu)",
                     SDK::ThreadUtils::GetThreadId());
    }
    m_firstRun = false;

    m_logLimitPortMap.clear();
    m_alarmedSources.clear();
    m_scanSummaries.clear();
    m_idleCount = 0;
    int errCount = 0;  // receive and wait errors in the current minute
    int pktCount = 0;  // packets in the current minute
    unsigned long tickCount = 0;

    while (m_running) {
        if (m_idleCount >= kMaxIdleCount || state() == TASK_CANCELLING) {
            return 0;
        }
        GovernCpu(g_loopTopTick, __FILE__, kGovernorLoopTopSite);

        // Absolute difference: a clock set back by more than a minute ticks as well.
        if (std::labs(SDK::TimeUtils::GetCurrentTimestampS() - m_lastTickTime) > kTickSeconds) {
            if (tickCount % kMonitorRefreshTicks == 0) {
                FreeBanPort();
                GetMonitorPort();
                UpdateAndClearPolicyPort();
            }
            ++tickCount;
            PrintPortInfo();
            SendPortAlarm();
            TakePacketStatistics();
            if (!m_scanSummaries.empty() || m_summariesDropped > 0) {  // only ever with "scan_summary"
                SendScanSummaries(true);
            }
            m_lastTickTime = SDK::TimeUtils::GetCurrentTimestampS();
            errCount = 0;
            pktCount = 0;
        }

        if (!CheckSocketInfo()) {
            sleep(kRetryPauseMs);
            if (!m_running) {
                return 0;
            }
            continue;
        }
        FollowSwitches();
        if (!DoPortScan(errCount, pktCount)) {
            sleep(kRetryPauseMs);
        }
        if (m_alarmPending) {  // only ever set with "prompt_alarms"
            m_alarmPending = false;
            SendPortAlarm();
        }
        if (!m_scanSummaries.empty()) {  // only ever filled with "scan_summary"
            SendScanSummaries(false);
        }
        GovernCpu(g_afterWaitTick, __FILE__, kGovernorAfterWaitSite);
    }
    return 0;
}

bool CollectPortInfoTask::CheckSocketInfo() {
    switch (m_monitorStatus) {
        case MONITOR_LIST_CREATE:
            return PortCreated();
        case MONITOR_LIST_CHANGE:
            return PortChanged();
        case MONITOR_LIST_NORMAL:
            return true;
        case MONITOR_LIST_CLEAR:
            return PortCleared();
        case MONITOR_LIST_ERROR:
            return PortChanged();
        default:
            PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Check monitor status err! Cur stat is (%d)",
                         static_cast<int>(m_monitorStatus));
            return false;
    }
}

}  // namespace Engine
