#pragma once

#include <cstddef>

namespace Engine {

// Every tunable of the report task, with the reason for its value.

// With nothing to retry the task sleeps on its queue; this only bounds that wait, it is no timer.
constexpr long kReportIdleWaitMs = 24L * 3600 * 1000;

// A sink that failed (disk full, folder gone, socket missing) is tried again once a second: soon
// enough that a freed disk takes the backlog at once, rare enough to cost nothing.
constexpr long kSinkRetryMs = 1000;

// Alarms a file or datagram sink keeps while it cannot write: about 8,000 typical alarm documents,
// far more than a module raises in an hour, and a bounded amount of memory.
constexpr std::size_t kSinkBacklogBytes = 8 * 1024 * 1024;

// Reconnects to a collector back off from one second to half a minute: a restarting collector is
// reached quickly, one that is down for long is not hammered by a fleet.
constexpr long kReconnectFirstMs = 1000;
constexpr long kReconnectMaxMs = 30000;

// A connect that is not done after this, or a collector that takes no byte for this long, counts as
// a collector that is down; the alarm stays in the spool.
constexpr int kCollectorTimeoutMs = 5000;

// A collector's name that the resolver has not answered within this counts as unresolved for this
// attempt (resolver time-outs reach half a minute); the lookup goes on beside the report thread and
// the next attempt uses its answer.
constexpr long kResolveTimeoutMs = 10000;

// While a name is looked up, a connect is under way or a collector's socket is full, the sink looks
// again this often: nothing on the report thread waits for the network.
constexpr long kSinkPollMs = 50;

// A spool is read back this many bytes at a time: memory stays small whatever the spool's bound,
// and one read holds about a thousand alarms.
constexpr std::size_t kSpoolWindowBytes = 256 * 1024;

// An alarm document is a few hundred bytes; a spooled frame above this is damage, not an alarm, and
// is never read into memory (an alarm that large is not spooled, with an error line).
constexpr std::size_t kMaxSpoolFrameBytes = 1024 * 1024;

// Frames appended to a spool are fsync'd at most this often, and at a stop: a burst of alarms for a
// collector that is down costs a few fsyncs, not one each.
constexpr long kSpoolSyncMs = 200;

// At a stop the spool is rewritten without its sent part only when what is left is at most this
// much: the copy takes well under a second of the stop; a larger one waits for the bound.
constexpr std::size_t kSpoolCompactOnStopBytes = 8 * 1024 * 1024;

}  // namespace Engine
