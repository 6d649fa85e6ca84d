#pragma once

// What the source files of the collection task share: its tunables, the record helpers and the CPU
// governor hook. Private to the module.

#include "CollectPortInfoTask.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"

#include <Poco/Message.h>

#include <cstddef>
#include <set>
#include <string>
#include <vector>

// One failed step, logged at the caller's own line.
#define LOG_ACTION_FAILED(action) \
    PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Do action (%s) fail!", std::string(action))

namespace Engine {
namespace CollectTask {

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

// The governor names its three call sites by these fixed numbers in what it reports, whatever line
// of which file the call stands on.
constexpr int kGovernorLoopTopSite = 61;
constexpr int kGovernorAfterWaitSite = 85;
constexpr int kGovernorHandlePacketSite = 448;

// Lets the agent's CPU governor slow this thread when it has used its share since `lastTick`, the
// last reading of call site `site` (a process-wide variable written by the task thread only).
void GovernCpu(unsigned long& lastTick, const char* file, int site);

// The first record for (port, type) by a linear walk: the set's ordering cannot be trusted for a
// search.
std::set<PortInfoNode>::const_iterator FindRecord(const std::set<PortInfoNode>& set, uint32_t port,
                                                  uint32_t type);

// A copy of the policy's port set; empty without a policy.
std::set<PortInfoNode> CopyPortSet(const PortScanTaskPolicy* policy);

// The agent's socket table (its task "netproc_full_task"), or null when that is not registered.
Framework::NetProcCache* FindNetProcTask();

// The port numbers of `set`, in set order.
std::vector<long> CollectPorts(const std::set<PortInfoNode>& set);

}  // namespace CollectTask
}  // namespace Engine
