#pragma once

#include <memory>

namespace SDK {

// Where the agent reads wall-clock time. The default reads the system clock; tests install their
// own source to drive time (a day passes in a call), without any branch in the code that reads it.
class ClockSource {
public:
    virtual ~ClockSource() = default;
    // Seconds since the epoch.
    virtual long NowSeconds() = 0;
};

class TimeUtils {
public:
    // Seconds since the epoch, from the current clock source.
    static long GetCurrentTimestampS();

    // CPU time consumed by the calling thread, in milliseconds (CLOCK_THREAD_CPUTIME_ID).
    // The CPU governor compares two readings of this.
    static unsigned long GetCurrentSystemTickUsed();

    // Installs `source` for every thread of the process; null restores the system clock.
    // Not for use while other threads read the time unless the source itself is thread-safe.
    static void SetClockSource(std::shared_ptr<ClockSource> source);
};

}  // namespace SDK
