#pragma once

#include <cstddef>

namespace HostAgent {

// Every tunable of the agent process, with the reason for its value.

// Policy files are looked at once a second: an edit is delivered well within five seconds, and
// reading a few small files a second costs nothing.
constexpr long kPolicyPollIntervalMs = 1000;

// Retired policies are freed about once a second, so a burst of deliveries does not pile them up.
constexpr long kReclaimIntervalMs = 1000;

// The socket cache is rebuilt every five seconds: the port-scan module reads it at most once a
// minute, and a full netlink dump plus a /proc walk every five seconds stays far below 1% CPU.
constexpr long kNetProcRefreshMs = 5000;

// A policy is a small JSON document; anything larger than this is a mistake, not a policy.
constexpr std::size_t kMaxPolicyFileBytes = 4 * 1024 * 1024;

// Where a syslog sink without "address" sends: the local syslog daemon's socket on Debian.
constexpr const char* kSyslogSocket = "/dev/log";

// A TCP syslog spool is bounded by "spool_max_bytes" in this range: below 64 KiB it holds too few
// alarms to bridge an outage; above 1 GiB it would take a disk from the host it protects.
constexpr long long kMinSpoolBytes = 64 * 1024;
constexpr long long kMaxSpoolBytes = 1024LL * 1024 * 1024;

}  // namespace HostAgent
