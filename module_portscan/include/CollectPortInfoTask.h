#pragma once

#include "ComputeChain.h"
#include "SocketUtil.h"
#include "framework/NetProcCache.h"
#include "framework/Task.h"

#include <json/json.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

// State of the task's monitor list; decides when the capture socket is (re)built.
enum MONITOR_LIST_STATUS {
    MONITOR_LIST_CREATE = 0,  // list just created: build the socket
    MONITOR_LIST_CHANGE = 1,  // ports changed: reload the filter
    MONITOR_LIST_NORMAL = 2,  // ready: capture
    MONITOR_LIST_CLEAR = 3,   // no port left: close the socket
    MONITOR_LIST_ERROR = 4,   // too many socket errors in a minute: rebuild as for a change
};

namespace Engine {

class PortScanTaskPolicy;

// One packet that a classifier took for a scan.
struct AlarmInfo {
    std::string protocol;       // "TCP" or "UDP"
    std::string remoteAddress;  // dotted text of the source
    std::string localAddress;   // dotted text of the destination
    uint16_t remotePort;        // source port, host order
    std::string flag;           // TCP flag text, empty for UDP; reported as "app_protocol"
    int32_t alarmType;          // 1 common scan, anything else half-open
};

// One monitored port and protocol with its counters.
//
// Ordering: a < b when a.port < b.port OR a.type < b.type. Deliberately not lexicographic, so the
// position of a record in a std::set depends on insertion order and the set's own find() can miss a
// present record: look records up by a linear walk comparing port and type.
struct PortInfoNode {
    uint32_t port;                      // local port, host order
    uint32_t type;                      // 0 TCP, 1 UDP
    int32_t alarmNum;                   // packets a classifier took for a scan
    uint32_t ipNum;                     // distinct remote hosts of both families, == sum of the lists' sizes
    uint32_t pkgNum;                    // packets received
    bool isUsed;                        // a local program uses the port
    uint64_t auxValue;                  // carried value; 0 when created and in every copy
    std::vector<AlarmInfo> alarmInfos;  // alarms not yet reported, oldest first
    std::vector<in_addr> remoteIps;     // distinct sources, network order, first seen first
    std::vector<in6_addr> remoteIp6s;   // distinct IPv6 sources, first seen first (IPv6 capture)

    PortInfoNode();
    PortInfoNode(uint32_t port, uint32_t type);
    // Copies everything but auxValue, which starts at 0.
    PortInfoNode(const PortInfoNode& other);
    PortInfoNode& operator=(const PortInfoNode& other) = default;
    ~PortInfoNode();

    bool operator<(const PortInfoNode& other) const;
};

// "scan_summary": what one scanning source did in its current scan.
struct ScanSummary {
    std::string localAddress;         // destination of its first probe
    std::set<unsigned> ports;         // watched ports it probed
    std::set<std::string> protocols;  // "TCP", "UDP"
    std::set<std::string> kinds;      // TCP flag texts ("NONE" for no flag), "UDP"
    uint64_t probes = 0;
    long long firstMs = 0;  // epoch milliseconds of its first and last probe
    long long lastMs = 0;
};

// The summary document of `summary` for the source `remote`, without its "event_id" (see the
// report format: class "portscan_0003", at most `maxListedPorts` ports listed, all counted).
Json::Value BuildScanSummaryDocument(const std::string& remote, const ScanSummary& summary,
                                     std::size_t maxListedPorts);

// True when `ip` is in `list` (linear search by value).
bool ContainsIP(const std::vector<in_addr>& list, in_addr ip);
bool ContainsIP6(const std::vector<in6_addr>& list, const in6_addr& ip);

// "port_scan_task": owns the capture socket, the monitored ports, the frozen ports and the
// classifier chain, and runs the capture loop with its one-minute tick.
class CollectPortInfoTask : public Framework::Task {
public:
    using NetCacheMap = Framework::NetProcCache::CacheMap;

    CollectPortInfoTask();
    // Destroys maps and set only; descriptors and the chain are UnInit()'s.
    ~CollectPortInfoTask() override;

    bool Init() override;
    bool UnInit() override;
    int Run() override;
    // Frames read, watched, in-use and frozen ports, and the kernel's counts of the capture sockets.
    std::vector<Framework::TaskMetric> GetMetrics() const override;

    // Resets the fields and rebuilds the classifier chain (half-open first, then common).
    void InitFieldVars();

    // Main loop parts.
    bool CheckSocketInfo();
    bool DoPortScan(int& errCount, int& pktCount);
    bool HandleSocketBuffer(int sockFd, int& pktCount, int& errCount);
    // With "drain_socket_queue": after a wake-up of `sockFd` (registered edge-triggered in the
    // epoll set), reads the frames already queued, each through HandleSocketBuffer, until none is
    // left, HandleSocketBuffer returns false, the monitor list needs the state machine, or
    // kMaxFramesPerWakeup frames were read; frames left over are reported again by the next wait.
    // The last HandleSocketBuffer result.
    bool DrainSocketQueue(int sockFd, int& pktCount, int& errCount);
    static const int kMaxFramesPerWakeup;
    bool InitSocket();

    // Packet handling and freezing.
    void HandlePacket(const PacketNode& pkt, unsigned long len);
    bool CheckPortOccupied(const PacketNode& pkt);
    void HandleOccupiedPortPacket(const PacketNode& pkt);
    void FillAlarmInfo(PortInfoNode& node, const PacketNode& pkt, int alarmType);
    void FreezePort(unsigned short port);
    bool FreeBanPort();

    // Monitor list.
    bool GetMonitorPort();
    bool MergeMonitorPort();
    bool ComparePortList(std::set<PortInfoNode> list);
    bool PortCreated();
    bool PortChanged();
    bool PortCleared();
    void UpdateAndClearPolicyPort();

    // Occupancy (note the argument orders). With "dual_stack_occupancy" CheckPortStatus asks about
    // IPv6 sockets as well when no IPv4 socket holds the port.
    void CheckPortStatus(unsigned short port, int& status, int protocol);
    bool IsPortOccupied(int protocol, unsigned short port);
    void PortOccupied(int protocol, unsigned short port);
    bool IsPortInUse(unsigned int port, unsigned int protocol);
    // For an IPv6 probe: IPv6 sockets first, then IPv4 ones, which count as well (a dual-stack
    // client that tries IPv6 first is no scanner of a port an IPv4 service holds). Status as above.
    void CheckPortStatus6(unsigned short port, int& status, int protocol);

    // Alarms. With "prompt_alarms" the loop calls SendPortAlarm right after the wake-up in which a
    // port crossed the threshold, besides the minute tick.
    void SendPortAlarm();
    virtual bool BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map);
    int BuildSinglePortAlarmInfo(const PortInfoNode& node, Json::Value& alarm, int& eventCount,
                                 const std::map<unsigned short, std::string>& peers);
    // Names the document's class from `alarmType`, sets its "event_count", logs and sends it.
    void SendAlarmDocument(Json::Value& alarm, int alarmType, const Json::Value& eventCount);

    // Debug dump of the policy ports and the frozen ports.
    void PrintPortInfo();

    // "reportable_sources_only": the source is one the module reports (private, not white-listed).
    bool IsReportableSource(const PacketNode& pkt);
    // "alarm_per_source": SendPortAlarm's work, once per port, protocol and source in a run.
    void SendPerSourceAlarms();
    // "scan_summary": counts a probe that a classifier took for a scan, and sends the summaries of
    // sources quiet for "summary_quiet_s" (all of them with `all`, at the minute tick).
    void RecordSummaryProbe(const PacketNode& pkt);
    void SendScanSummaries(bool all);
    // Sources tracked at once; the ones beyond are counted as dropped.
    static const std::size_t kMaxSummarySources;
    // Ports a summary lists (all are counted).
    static const std::size_t kMaxSummaryPorts;

    // Binds the capture socket (or `fd`) to the master interface. True only when the bind failed.
    bool BindMasterInterface() const;
    bool BindMasterInterface(int fd) const;

    // IPv6 capture ("ipv6"): the second packet socket, in the same epoll set, built right after the
    // IPv4 socket's filter, reloaded and closed with it. A failure costs IPv6 capture only (error
    // line, socket closed); the next reload tries again.
    void OpenCapture6(const std::vector<long>& ports);
    void ReloadCapture6(const std::vector<long>& ports);
    void CloseCapture6();
    // Attaches the IPv6 filter for `ports` and drops what was queued; on failure closes the socket.
    bool LoadCapture6Filter(const std::vector<long>& ports);

    // Follows the switches of the current policy at every loop pass: a policy that turns "ipv6" off
    // closes the IPv6 socket at once; "follow_address_changes" keeps an rtnetlink socket in the epoll
    // set while the capture sockets exist, and an address added or removed rebuilds the filters (the
    // state machine's reload) with the host's addresses read anew.
    void FollowSwitches();
    // Adds the kernel's counts of the capture sockets since the last call (PACKET_STATISTICS, which
    // a read resets) to the task's metrics.
    void TakePacketStatistics();
    void CloseAddressWatch();
    // The host's IPv4 and IPv6 addresses as the filters take them, as one text for comparison.
    static std::string LocalAddressText();

    // The monitor list as the capture loop sees it; read on the task's thread or while it is stopped.
    MONITOR_LIST_STATUS GetMonitorStatus() const { return m_monitorStatus; }
    const std::set<PortInfoNode>& GetMonitorPortSet() const { return m_portSet; }
    bool IsPortFrozen(unsigned int port) const { return m_banPortMap.count(port) != 0; }

private:
    // The task policy, read anew at each use (with the activity mark made first).
    PortScanTaskPolicy* GetPolicy();
    // Reads one opt-in switch of the task policy without an activity mark, so that a switch that is
    // off leaves every call of the task as it is without it.
    bool IsExtensionOn(bool (PortScanTaskPolicy::*isOn)() const) const;
    // True when `record` has more scan packets than SendPortAlarm requires and its port has not been
    // alarmed in this run.
    bool CrossedAlarmThreshold(const PortInfoNode& record) const;

    std::map<unsigned int, long> m_banPortMap;       // frozen port -> freeze time (s)
    std::set<PortInfoNode> m_portSet;                // monitored ports as last seen
    std::map<unsigned int, long> m_logLimitPortMap;  // port -> time it was taken up for alarming
    bool m_socketReady;                              // socket and epoll exist
    int m_maxErrCount;                               // socket errors tolerated per minute
    int m_banTime;                                   // seconds a port stays frozen
    MONITOR_LIST_STATUS m_monitorStatus;
    NetCacheMap m_netCacheMap;  // copy of the network-process cache
    int m_idleCount;            // idle one-second waits since Run began
    bool m_running;
    bool m_firstRun;
    int m_sockFd;
    int m_epollFd;
    int m_sock6Fd;                   // IPv6 capture socket, -1 when there is none
    int m_addressWatchFd;            // "follow_address_changes": rtnetlink address notices, or -1
    std::string m_watchedAddresses;  // LocalAddressText() when the filters were last built for it
    ComputeChain* m_computeChain;    // owning, head of the classifier chain
    long m_lastTickTime;             // last one-minute tick (s)
    bool m_alarmPending;             // "prompt_alarms": a port crossed the threshold since the last send
    // "alarm_per_source": (port, protocol, source) alarmed in this run.
    std::set<std::tuple<uint32_t, uint32_t, std::string>> m_alarmedSources;
    std::map<std::string, ScanSummary> m_scanSummaries;  // "scan_summary": by source address text
    std::size_t m_summariesDropped;                      // sources not tracked since the last tick
    // Metrics, written by the task thread, read by any.
    std::atomic<std::uint64_t> m_framesRead{0};
    std::atomic<std::uint64_t> m_watchedPorts{0};
    std::atomic<std::uint64_t> m_inUsePorts{0};
    std::atomic<std::uint64_t> m_frozenPorts{0};
    std::atomic<std::uint64_t> m_kernelPackets{0};
    std::atomic<std::uint64_t> m_kernelDrops{0};
};

}  // namespace Engine
