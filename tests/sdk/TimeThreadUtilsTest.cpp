#include "sdk/CryptoCodeUtils.h"
#include "sdk/ThreadUtils.h"
#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <regex>
#include <set>
#include <thread>

namespace {

using SDK::TimeUtils;

class FixedClock : public SDK::ClockSource {
public:
    explicit FixedClock(long seconds) : m_seconds(seconds) {}
    long NowSeconds() override { return m_seconds; }
    std::atomic<long> m_seconds;
};

TEST(TimeUtilsTest, ClockSourceSwapsSafelyAndNullRestoresTheSystemClock) {
    auto clock = std::make_shared<FixedClock>(1000);
    TimeUtils::SetClockSource(clock);
    clock->m_seconds += 86400;
    EXPECT_EQ(TimeUtils::GetCurrentTimestampS(), 87400);

    TimeUtils::SetClockSource(std::make_shared<FixedClock>(1));
    std::atomic<bool> stop{false};
    std::atomic<int> strange{0};
    std::thread reader([&] {
        while (!stop) {
            const long value = TimeUtils::GetCurrentTimestampS();
            strange += value == 1 || value == 2 ? 0 : 1;
        }
    });
    for (int i = 0; i < 2000; ++i) {  // each swap frees the previous source once unread
        TimeUtils::SetClockSource(std::make_shared<FixedClock>(1 + i % 2));
    }
    stop = true;
    reader.join();
    EXPECT_EQ(strange, 0);

    TimeUtils::SetClockSource(nullptr);
    const long before = std::time(nullptr);
    const long now = TimeUtils::GetCurrentTimestampS();
    EXPECT_TRUE(now >= before && now <= std::time(nullptr)) << now;
}

// Spins until the calling thread used `ms` more CPU (or 10 s passed); returns the CPU used.
unsigned long Spin(unsigned long ms) {
    const unsigned long begin = TimeUtils::GetCurrentSystemTickUsed();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (TimeUtils::GetCurrentSystemTickUsed() - begin < ms &&
           std::chrono::steady_clock::now() < deadline) {
    }
    return TimeUtils::GetCurrentSystemTickUsed() - begin;
}

TEST(TimeUtilsTest, SystemTickCountsOnlyTheCallingThreadsCpu) {
    const unsigned long start = TimeUtils::GetCurrentSystemTickUsed();
    unsigned long other = 0;
    std::thread([&] { other = Spin(150); }).join();
    EXPECT_GE(other, 150u);
    EXPECT_LT(TimeUtils::GetCurrentSystemTickUsed() - start, 100u);
    EXPECT_GE(Spin(60), 60u);
}

TEST(ThreadUtilsTest, ThreadIdIsTheKernelThreadId) {
    EXPECT_EQ(SDK::ThreadUtils::GetThreadId(), static_cast<unsigned long>(::getpid()));
    unsigned long other = 0;
    std::thread([&] { other = SDK::ThreadUtils::GetThreadId(); }).join();
    EXPECT_TRUE(other != 0 && other != SDK::ThreadUtils::GetThreadId());
}

TEST(CryptoCodeUtilsTest, UuidsAreRandomVersionFourLowercaseAndDistinct) {
    const std::regex form("[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        const std::string uuid = SDK::CryptoCodeUtils::GenerateUUID();
        ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
