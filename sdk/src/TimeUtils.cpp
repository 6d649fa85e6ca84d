#include "sdk/TimeUtils.h"

#include <ctime>

namespace SDK {

namespace {

class SystemClockSource : public ClockSource {
public:
    long NowSeconds() override { return static_cast<long>(std::time(nullptr)); }
};

std::shared_ptr<ClockSource> MakeSystemClock() {
    return std::make_shared<SystemClockSource>();
}

// The slot is read and replaced only through std::atomic_load/atomic_store, so a swap from a test
// never tears a reader's copy; readers keep the old source alive until their call returns.
std::shared_ptr<ClockSource>& ClockSlot() {
    static std::shared_ptr<ClockSource> slot = MakeSystemClock();
    return slot;
}

}  // namespace

long TimeUtils::GetCurrentTimestampS() {
    const std::shared_ptr<ClockSource> source = std::atomic_load(&ClockSlot());
    return source->NowSeconds();
}

unsigned long TimeUtils::GetCurrentSystemTickUsed() {
    struct timespec ts {};
    if (::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts) != 0) {
        return 0;
    }
    return static_cast<unsigned long>(ts.tv_sec) * 1000UL +
           static_cast<unsigned long>(ts.tv_nsec) / 1000000UL;
}

void TimeUtils::SetClockSource(std::shared_ptr<ClockSource> source) {
    if (!source) {
        source = MakeSystemClock();
    }
    std::atomic_store(&ClockSlot(), std::move(source));
}

}  // namespace SDK
