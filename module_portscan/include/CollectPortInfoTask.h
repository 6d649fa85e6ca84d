#pragma once

#include "ComputeChain.h"
#include "SocketUtil.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "framework/Task.h"

#include <json/json.h>
#include <netinet/in.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
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
    uint32_t ipNum;                     // distinct remote hosts, == remoteIps.size()
    uint32_t pkgNum;                    // packets received
    bool isUsed;                        // a local program uses the port
    uint64_t auxValue;                  // carried value; 0 when created and in every copy
    std::vector<AlarmInfo> alarmInfos;  // alarms not yet reported, oldest first
    std::vector<in_addr> remoteIps;     // distinct sources, network order, first seen first

    PortInfoNode();
    PortInfoNode(uint32_t port, uint32_t type);
    // Copies everything but auxValue, which starts at 0.
    PortInfoNode(const PortInfoNode& other);
    PortInfoNode& operator=(const PortInfoNode& other) = default;
    ~PortInfoNode();

    bool operator<(const PortInfoNode& other) const;
};

// True when `ip` is in `list` (linear search by value).
bool ContainsIP(const std::vector<in_addr>& list, in_addr ip);

// "port_scan_task": owns the capture socket, the monitored ports, the frozen ports and the
// classifier chain, and runs the capture loop with its one-minute tick.
class CollectPortInfoTask : public Framework::Task {
public:
    using NetCacheMap = std::map<long, std::shared_ptr<Engine::NetProcsMessage::netProcInfo>>;

    CollectPortInfoTask();
    // Destroys maps and set only; descriptors and the chain are UnInit()'s.
    ~CollectPortInfoTask() override;

    bool Init() override;
    bool UnInit() override;
    int Run() override;

    // Resets the fields and rebuilds the classifier chain (half-open first, then common).
    void InitFieldVars();

    // Main loop parts.
    bool CheckSocketInfo();
    bool DoPortScan(int& errCount, int& pktCount);
    bool HandleSocketBuffer(int sockFd, int& pktCount, int& errCount);
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

    // Occupancy (note the argument orders).
    void CheckPortStatus(unsigned short port, int& status, int protocol);
    bool IsPortOccupied(int protocol, unsigned short port);
    void PortOccupied(int protocol, unsigned short port);
    bool IsPortInUse(unsigned int port, unsigned int protocol);

    // Alarms.
    void SendPortAlarm();
    virtual bool BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map);
    int BuildSinglePortAlarmInfo(const PortInfoNode& node, Json::Value& alarm, int& eventCount,
                                 const std::map<unsigned short, std::string>& peers);

    // Debug dump of the policy ports and the frozen ports.
    void PrintPortInfo();

    // Binds the capture socket to the master interface. True only when the bind failed.
    bool BindMasterInterface() const;

private:
    // The task policy, read anew at each use (with the activity mark made first).
    PortScanTaskPolicy* GetPolicy();

    // Lets unit tests read and set the state they check.
    friend class CollectPortInfoTaskPeer;

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
    ComputeChain* m_computeChain;  // owning, head of the classifier chain
    long m_lastTickTime;           // last one-minute tick (s)
};

}  // namespace Engine
