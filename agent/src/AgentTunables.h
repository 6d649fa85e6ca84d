#pragma once

#include <cstddef>

namespace HostAgent {

// Every tunable of the agent process, with the reason for its value.

// Policy files are followed through inotify; one whose folder cannot be watched (yet) is looked at
// this often instead: an edit is still delivered well within five seconds.
constexpr long kPolicyPollIntervalMs = 1000;

// Retired policies are freed at each delivery and, while some still wait for their tasks' marks,
// about this often, so a burst of deliveries does not pile them up; an idle agent does not look.
constexpr long kReclaimIntervalMs = 1000;

// The socket cache is rebuilt when it is read and older than this: the port-scan module reads it at
// most a few times a minute, and an idle agent then does no netlink dump or /proc walk at all.
constexpr long kNetProcRefreshMs = 5000;

// A policy is a small JSON document; anything larger than this is a mistake, not a policy.
constexpr std::size_t kMaxPolicyFileBytes = 4 * 1024 * 1024;

// Where a syslog sink without "address" sends: the local syslog daemon's socket on Debian.
constexpr const char* kSyslogSocket = "/dev/log";

// A TCP syslog spool is bounded by "spool_max_bytes" in this range: below 64 KiB it holds too few
// alarms to bridge an outage; above 1 GiB it would take a disk from the host it protects.
constexpr long long kMinSpoolBytes = 64 * 1024;
constexpr long long kMaxSpoolBytes = 1024LL * 1024 * 1024;

// Without "status_file" the status goes beside the log file under this name.
constexpr const char* kStatusFileName = "hostagent.status.json";

// Where `hostagent --status` looks for the config when none is named: the installed agent's.
constexpr const char* kDefaultConfigFile = "/etc/hostagent/agent.json";

// The status file is rewritten at least this often (and at every task start and stop), so a
// reader can tell a live agent from a stale file.
constexpr long kStatusIntervalMs = 60000;
// With "metrics_file" both files are rewritten this often instead: a Prometheus scrape interval.
constexpr long kMetricsIntervalMs = 15000;

// Restart back-off: each quick stop doubles the delay up to this cap (or the configured delay when
// that is longer); a task that ran this long without stopping starts from the configured delay again.
constexpr long kRestartDelayCapSeconds = 3600;
constexpr long kSteadyRunSeconds = 3600;

// A renewal waits for the module's minute work (it reads the socket cache then, and reports the
// alarms of the past minute): renewing right after it drops at most the alarms of those few
// seconds instead of up to a minute of them. The work counts as just done when the cache was read
// between these two bounds ago; the next is expected this long after the last (the module's minute
// plus its one-second loop); work that is late is looked for again this often.
constexpr long kRenewAfterWorkMinMs = 200;
constexpr long kRenewAfterWorkMaxMs = 3000;
constexpr long kMinuteWorkPeriodMs = 62000;
constexpr long kLateMinuteWorkRetryMs = 1000;
// A module that has not read the cache for this long does no minute work: renew at once.
constexpr long kNoMinuteWorkMs = 180000;

}  // namespace HostAgent
