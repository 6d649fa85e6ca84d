#include "CollectPortInfoTask.h"

#include "IPUtil.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/ThreadUtils.h"
#include "sdk/TimeUtils.h"

#include <Poco/Message.h>
#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <poll.h>

#include <cstdlib>
#include <vector>

// One failed step, logged at the caller's own line.
#define LOG_ACTION_FAILED(action) \
    PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Do action (%s) fail!", std::string(action))

namespace Engine {

namespace {

// Runtime tunables of the collection task, each with the reason for its value.
// A frozen port stays out of the capture filter for one full day.
constexpr int kBanTimeSeconds = 86400;
// Receive or wait errors per minute after which the capture socket is rebuilt.
constexpr int kMaxErrCount = 100;
// Bytes read per frame: enough for the Ethernet, IPv4 and TCP/UDP headers.
constexpr std::size_t kRecvBufferSize = 100;
// One-second waits keep the loop responsive to the minute tick and to cancellation.
constexpr int kEpollTimeoutMs = 1000;
// Counters are dumped and alarms sent once a minute.
constexpr long kTickSeconds = 60;
// Frozen ports are released and the monitor list rebuilt every thirty ticks (half an hour).
constexpr unsigned long kMonitorRefreshTicks = 30;
// Idle one-second waits (about 16.7 hours without a packet) after which the task ends.
constexpr int kMaxIdleCount = 60000;
// Pause after a failed state-machine step or an empty wait, so that a failure never spins.
constexpr long kRetryPauseMs = 10;

constexpr const char* kModuleName = "portscan_module";
constexpr const char* kNetProcTaskName = "netproc_full_task";
constexpr const char* kReportTaskName = "data_comm_report_task";
// Data-message type of an alarm event.
constexpr const char* kAlarmMessageType = "2";
constexpr int kCommonScanType = 1;
constexpr int kUdpType = 1;

// Last CPU-governor reading of each of the three call sites; written by the task thread only.
unsigned long g_loopTopTick = 0;
unsigned long g_afterWaitTick = 0;
unsigned long g_handlePacketTick = 0;

// Lets the agent's CPU governor slow this thread when it has used its share since `lastTick`.
void GovernCpu(unsigned long& lastTick, int line) {
    if (!SDK::InnerCpuCtrlUtils::IsEnabled()) {
        return;
    }
    const unsigned long now = SDK::TimeUtils::GetCurrentSystemTickUsed();
    const unsigned long used = now > lastTick ? now - lastTick : lastTick - now;
    if (used > SDK::InnerCpuCtrlUtils::GetSuggestedRunTick()) {
        SDK::InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, line, kModuleName, now, used);
        lastTick = now;
    }
}

// The first record for (port, type) by a linear walk: the set's ordering cannot be trusted for a search.
std::set<PortInfoNode>::const_iterator FindRecord(const std::set<PortInfoNode>& set, uint32_t port,
                                                  uint32_t type) {
    for (auto it = set.begin(); it != set.end(); ++it) {
        if (it->port == port && it->type == type) {
            return it;
        }
    }
    return set.end();
}

// A copy of the policy's port set; empty without a policy.
std::set<PortInfoNode> CopyPortSet(const PortScanTaskPolicy* policy) {
    if (policy == nullptr) {
        return {};
    }
    return policy->GetPolicyPortSet();
}

Engine::NetProcsFullTask* FindNetProcTask() {
    Framework::Engine* engine = Framework::Engine::Instance();
    if (engine == nullptr) {
        return nullptr;
    }
    return dynamic_cast<Engine::NetProcsFullTask*>(engine->FindTask(kNetProcTaskName));
}

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

std::vector<long> CollectPorts(const std::set<PortInfoNode>& set) {
    std::vector<long> ports;
    ports.reserve(set.size());
    for (const PortInfoNode& node : set) {
        ports.push_back(static_cast<long>(node.port));
    }
    return ports;
}

}  // namespace

// "drain_socket_queue": frames read per wake-up. A burst from one unpaced scanner (an nmap pass over
// the whole monitor list, at most 100 records) fits, while one wake-up still hands back to the minute
// tick, cancellation and the state machine within a few milliseconds; the per-minute packet budget,
// not this bound, is what limits the work of a flood.
const int CollectPortInfoTask::kMaxFramesPerWakeup = 128;

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
}

PortInfoNode::~PortInfoNode() {
    // Release the storage explicitly, not only the elements.
    std::vector<AlarmInfo>().swap(alarmInfos);
    std::vector<in_addr>().swap(remoteIps);
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
      m_computeChain(nullptr),
      m_lastTickTime(0),
      m_alarmPending(false) {}

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
    m_idleCount = 0;
    int errCount = 0;  // receive and wait errors in the current minute
    int pktCount = 0;  // packets in the current minute
    unsigned long tickCount = 0;

    while (m_running) {
        if (m_idleCount >= kMaxIdleCount || state() == TASK_CANCELLING) {
            return 0;
        }
        GovernCpu(g_loopTopTick, 61);

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
        if (!DoPortScan(errCount, pktCount)) {
            sleep(kRetryPauseMs);
        }
        if (m_alarmPending) {  // only ever set with "prompt_alarms"
            m_alarmPending = false;
            SendPortAlarm();
        }
        GovernCpu(g_afterWaitTick, 85);
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
    if (IsExtensionOn(&PortScanTaskPolicy::IsDrainSocketQueue)) {
        return DrainSocketQueue(event.data.fd, pktCount, errCount);
    }
    return HandleSocketBuffer(m_sockFd, pktCount, errCount);
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
        ++pktCount;
        PortScanTaskPolicy* policy = GetPolicy();  // makes the activity mark
        if (policy != nullptr && static_cast<uint32_t>(pktCount) > policy->GetMaxPktCount()) {
            // A flood must not cost the host its CPU: the task stops for good.
            m_running = false;
            return false;
        }
        PacketNode node{};
        if (SocketUtil::ParsePacket(buffer, kRecvBufferSize, &node) && !CheckPortOccupied(node)) {
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

// ---------------------------------------------------------------------------------------------
// Packet handling and scan detection

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
    CheckPortStatus(pkt.localPort, status, pkt.type);
    if (status != 0) {
        return false;
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port Occupied");
    HandleOccupiedPortPacket(pkt);
    PortOccupied(pkt.type, pkt.localPort);
    return true;
}

void CollectPortInfoTask::HandlePacket(const PacketNode& pkt, unsigned long len) {
    GovernCpu(g_handlePacketTick, 448);

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
        PORTSCAN_LOG(Poco::Message::PRIO_WARNING, "[PortScan] Alarm found, port [%u], alarm type = [%d]",
                     static_cast<unsigned int>(pkt.localPort), alarmType);
        FillAlarmInfo(record, pkt, alarmType);
        if (IsExtensionOn(&PortScanTaskPolicy::IsPromptAlarms) && CrossedAlarmThreshold(record)) {
            m_alarmPending = true;
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
    info.remoteAddress = inet_ntoa(pkt.remoteAddress);
    info.localAddress = inet_ntoa(pkt.localAddress);
    info.remotePort = pkt.remotePort;
    info.flag = pkt.flag;
    info.alarmType = alarmType;
    node.alarmInfos.push_back(info);

    if (!ContainsIP(node.remoteIps, pkt.remoteAddress)) {
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
    return true;
}

// ---------------------------------------------------------------------------------------------
// Monitor port list

bool CollectPortInfoTask::GetMonitorPort() {
    PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Generate monitor port.");
    Engine::NetProcsFullTask* netProcTask = FindNetProcTask();
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
    for (const PortInfoNode& node : policyPorts) {
        if (m_banPortMap.find(node.port) != m_banPortMap.end() || IsPortInUse(node.port, node.type)) {
            continue;
        }
        monitored.insert(node);
    }

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
    if (!SocketUtil::LoadPortBpfRules(m_sockFd, ports)) {
        close(m_sockFd);
        m_sockFd = -1;
        close(m_epollFd);
        m_epollFd = -1;
        return false;
    }
    SocketUtil::ClearSocketBuff(m_sockFd);
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
    if (!SocketUtil::LoadPortBpfRules(m_sockFd, ports)) {
        return false;  // old filter kept; the next check retries
    }
    // Frames admitted by the old filter must not count under the new port set.
    SocketUtil::ClearSocketBuff(m_sockFd);
    m_monitorStatus = MONITOR_LIST_NORMAL;
    return true;
}

bool CollectPortInfoTask::PortCleared() {
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Monitor port clear!");
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

// ---------------------------------------------------------------------------------------------
// Port occupancy

void CollectPortInfoTask::CheckPortStatus(unsigned short port, int& status, int protocol) {
    QueryPortStatus(port, status, protocol, AF_INET);
    if (status == 0 || !IsExtensionOn(&PortScanTaskPolicy::IsDualStackOccupancy)) {
        return;
    }
    // An IPv6 wildcard socket serves IPv4 clients too. In use when either family holds the port;
    // otherwise a failed query of either family shows.
    int ipv6Status = 1;
    QueryPortStatus(port, ipv6Status, protocol, AF_INET6);
    if (ipv6Status != 1) {
        status = ipv6Status;
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

// ---------------------------------------------------------------------------------------------
// Alarm reporting

bool CollectPortInfoTask::BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map) {
    Engine::NetProcsFullTask* netProcTask = FindNetProcTask();
    if (netProcTask == nullptr) {
        LOG_ACTION_FAILED("GetNetProcPtr");
        return false;
    }
    NetCacheMap cache;
    netProcTask->GetNetCacheMap(cache);
    for (const auto& entry : cache) {
        if (!entry.second) {
            continue;
        }
        // emplace keeps the first entry for a port.
        map.emplace(static_cast<unsigned short>(entry.second->localPort), entry.second->remoteAddress);
    }
    return true;
}

bool CollectPortInfoTask::CrossedAlarmThreshold(const PortInfoNode& record) const {
    const auto* policy = dynamic_cast<const PortScanTaskPolicy*>(GetTaskPolicy());
    return policy != nullptr && static_cast<uint32_t>(record.alarmNum) > policy->GetMaxLogNum() &&
           m_logLimitPortMap.find(record.port) == m_logLimitPortMap.end();
}

void CollectPortInfoTask::SendPortAlarm() {
    // Shared by every port of this call: the document is never cleared and the count runs on.
    Json::Value alarm;
    int eventCount = 0;
    std::map<unsigned short, std::string> peers;
    BuildPortRemoteIpMap(peers);

    for (const PortInfoNode& node : m_portSet) {
        if (node.alarmInfos.empty()) {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port :[%d] no alarmed, ignore",
                         static_cast<int>(node.port));
            continue;
        }
        if (m_logLimitPortMap.find(node.port) != m_logLimitPortMap.end()) {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port :[%d] already alarmed, ignore",
                         static_cast<int>(node.port));
            continue;
        }
        PortScanTaskPolicy* policy = GetPolicy();
        if (policy == nullptr || static_cast<uint32_t>(node.alarmNum) <= policy->GetMaxLogNum()) {
            continue;
        }
        m_logLimitPortMap[node.port] = SDK::TimeUtils::GetCurrentTimestampS();

        const int alarmType = BuildSinglePortAlarmInfo(node, alarm, eventCount, peers);
        if (eventCount < 1) {
            continue;
        }
        const bool common = alarmType == kCommonScanType;
        alarm["event_count"] = eventCount;
        alarm["event_classid"] = common ? "portscan_0001" : "portscan_0002";
        alarm["event_name"] = common ? "Common port scan" : "Secret port scan";

        const std::string text = SDK::JsonUtils::JsonToString(alarm);
        PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Sending alarm [%s]", text);
        SendDirectMsg(kReportTaskName, new Framework::DataMessage(kAlarmMessageType, text));
    }
}

int CollectPortInfoTask::BuildSinglePortAlarmInfo(const PortInfoNode& node, Json::Value& alarm,
                                                  int& eventCount,
                                                  const std::map<unsigned short, std::string>& peers) {
    const auto peer = peers.find(static_cast<unsigned short>(node.port));
    for (const AlarmInfo& info : node.alarmInfos) {
        // Traffic from the peer a local program talks to through this port is no scan.
        if (peer != peers.end() && peer->second == info.remoteAddress) {
            continue;
        }
        alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
        alarm["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
        alarm["event_category"] = 6000;
        alarm["event_type"] = 6002;
        alarm["severity"] = 1;
        alarm["attack_phase"] = 1;
        alarm["attack_tag"] = 1;
        alarm["confidence"] = 60;
        alarm["detect_module"] = kModuleName;

        Json::Value network(Json::objectValue);
        network["local_address"] = info.localAddress;
        network["local_port"] = static_cast<Json::UInt>(node.port);
        network["remote_address"] = info.remoteAddress;
        network["remote_port"] = static_cast<Json::Int>(info.remotePort);
        network["protocol"] = info.protocol;
        network["app_protocol"] = info.flag;  // the TCP flag text, under this key on purpose
        alarm["network_info"] = network;

        ++eventCount;
        return info.alarmType;
    }
    // Nothing written: the caller may resend an earlier port's document; call it half-open.
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Port info dump

void CollectPortInfoTask::PrintPortInfo() {
    if (SDK::LoggerUtils::GetInstance()->GetLevel() <= Poco::Message::PRIO_INFORMATION) {
        return;
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------Print Policy Port-------------------------");
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    for (const PortInfoNode& node : ports) {
        if (!IsPortInUse(node.port, node.type)) {
            // The packet figure is alarmNum too; pkgNum is not shown.
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                         "  Port %5u [%u]: Got %2d packet from %zu hosts. Alarm:%d", node.port, node.type,
                         node.alarmNum, node.remoteIps.size(), node.alarmNum);
        } else {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "  Port %5u: IS BEING USED.Alarm:%d", node.port,
                         node.alarmNum);
        }
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------Print Ban Port-------------------------");
    for (const auto& entry : m_banPortMap) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, " Port:%u BAN!", entry.first);
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------End of Port info-------------------------");
}

// ---------------------------------------------------------------------------------------------
// Master interface binding

bool CollectPortInfoTask::BindMasterInterface() const {
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
    if (SocketUtil::BindPort(m_sockFd, name) != 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_INFORMATION, "[PortScan] Bind intf (%s) success!", name);
        return true;
    }
    LOG_ACTION_FAILED("GetInterfaceName");
    return false;
}

}  // namespace Engine
