#pragma once

#include "framework/Module.h"

#include <json/json.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace Engine {

// The task policy's limits and codes, shared by its parser and its schema.
// "monitor_list" holds at most this many entries; a longer list fails the policy.
constexpr unsigned kMaxMonitorEntries = 50;
// Defaults of the limits when the policy leaves them out.
constexpr int kDefaultPortPkgNum = 20;
constexpr int kDefaultPortIpNum = 4;
constexpr int kDefaultPktCount = 1000;
constexpr int kDefaultLogNum = 1;
// "summary_quiet_s": a scanner quiet this long has ended its scan. Five seconds outlast nmap's
// retransmission waits; ten minutes is as long as a summary may wait before the minute tick sends it
// anyway (the tick comes first).
constexpr int kDefaultSummaryQuietS = 5;
constexpr int kMinSummaryQuietS = 1;
constexpr int kMaxSummaryQuietS = 600;
// Protocol codes of "monitor_list" entries; kProtocolBoth stands for a TCP and a UDP record.
constexpr unsigned kProtocolTcp = 0;
constexpr unsigned kProtocolUdp = 1;
constexpr int kProtocolBoth = 2;

// The keys of "port_scan_task", in the order the task policy reads them: the one place that names
// them. The parser reads the opt-in switches from it, the lint finds unknown keys with it, and the
// agent shows and documents it through the module (Framework::Module::GetPolicySchema).
const std::vector<Framework::PolicyKeyInfo>& TaskPolicyKeys();

// True when `key` is a row of the table.
bool IsTaskPolicyKey(const std::string& key);

// Settings of the task policy `task` (the "port_scan_task" object) that the module accepts but
// that make detection ineffective or surprising, one line each: "<what happens>; <how to fix it>".
// `localAddressCount` is the host's IPv4 address count without loopback, which the capture filter
// tests one by one. With "ipv6" on, `ipv6FilterFits` (when given) answers whether the kernel takes
// the IPv6 filter for the watched ports and sets the host's IPv6 address count
// (SocketUtil::Port6FilterFitsOptionMemory).
using Ipv6FilterProbe = std::function<bool(const std::vector<long>& ports, bool reportableSourcesOnly,
                                           std::size_t& addressCount)>;
std::vector<std::string> LintTaskPolicy(const Json::Value& task, std::size_t localAddressCount,
                                        const Ipv6FilterProbe& ipv6FilterFits = nullptr);

}  // namespace Engine
