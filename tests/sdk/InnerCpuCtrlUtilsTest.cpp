#include "sdk/InnerCpuCtrlUtils.h"

#include "TestDir.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using SDK::InnerCpuCtrlUtils;
using SDK::TimeUtils;

// The governor reports its pauses on the root logger at debug level; this sends them to a file.
class InnerCpuCtrlUtilsTest : public testing::Test {
protected:
    void SetUp() override {
        SDK::LogSettings settings{"debug", false, m_dir.Join("agent.log")};
        std::string error;
        ASSERT_TRUE(SDK::LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    }
    void TearDown() override { InnerCpuCtrlUtils::SetCpuLimitPercent(0); }
    std::vector<std::string> Pauses() const { return Grep(m_dir.Join("agent.log"), "[CpuCtrl]"); }

    TestDir m_dir;
};

// Each call runs on a new thread, so it starts without a previous adjustment.
void AdjustOnFreshThread(unsigned long now, unsigned long used, int line) {
    std::thread([=] {
        InnerCpuCtrlUtils::AdjustThreadCpu("/src/m/CollectPortInfoTask.cpp", line, "portscan_module", now,
                                           used);
        // A second call site with its own stale reading: this thread used no CPU since.
        InnerCpuCtrlUtils::AdjustThreadCpu("/src/m/CollectPortInfoTask.cpp", 99, "portscan_module", now,
                                           used + 60);
    }).join();
}

TEST_F(InnerCpuCtrlUtilsTest, PausesOnlyWhenOnAndNamesTheCallSite) {
    for (const auto& [set, stored] : {std::pair{0, 0}, {-5, 0}, {100, 0}, {250, 0}, {1, 1}, {99, 99}}) {
        InnerCpuCtrlUtils::SetCpuLimitPercent(set);
        EXPECT_EQ(InnerCpuCtrlUtils::GetCpuLimitPercent(), stored) << set;
        EXPECT_EQ(InnerCpuCtrlUtils::IsEnabled(), stored != 0) << set;
    }
    InnerCpuCtrlUtils::SetCpuLimitPercent(0);
    AdjustOnFreshThread(5000, 5000, 60);
    EXPECT_TRUE(Pauses().empty());

    InnerCpuCtrlUtils::SetCpuLimitPercent(20);
    AdjustOnFreshThread(1000, 10, 61);  // 10 ms taken as 10 ms busy: 10 / (10 + 40) = 20 %
    InnerCpuCtrlUtils::SetCpuLimitPercent(50);
    AdjustOnFreshThread(1500, 1500, 62);  // would need 1500 ms; one pause stops at the cap
    const std::vector<std::string> pauses = Pauses();
    ASSERT_EQ(pauses.size(), 2u);
    EXPECT_NE(pauses[0].find("[Debug] root"), std::string::npos) << pauses[0];
    EXPECT_NE(pauses[0].find("portscan_module at CollectPortInfoTask.cpp:61 used 10 ms CPU in 10 ms, "
                             "pause 40 ms (limit 20%)"),
              std::string::npos)
        << pauses[0];
    EXPECT_NE(pauses[1].find("CollectPortInfoTask.cpp:62 used 1500 ms CPU in 1500 ms, pause 1000 ms"),
              std::string::npos)
        << pauses[1];
}

TEST_F(InnerCpuCtrlUtilsTest, BusyThreadKeepsNearTheLimit) {
    InnerCpuCtrlUtils::SetCpuLimitPercent(20);
    double share = 0;
    std::thread([&] {
        unsigned long last = TimeUtils::GetCurrentSystemTickUsed();
        const unsigned long startCpu = last;
        const auto startWall = std::chrono::steady_clock::now();
        const auto deadline = startWall + std::chrono::seconds(30);  // bounded whatever happens
        volatile unsigned long sink = 0;
        while (last - startCpu < 400 && std::chrono::steady_clock::now() < deadline) {
            for (unsigned long i = 0; i < 100000; ++i) {
                sink = sink + i;
            }
            const unsigned long now = TimeUtils::GetCurrentSystemTickUsed();
            if (InnerCpuCtrlUtils::IsEnabled() && now - last > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
                InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "burner", now, now - last);
                last = now;
            }
        }
        const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - startWall;
        share = (TimeUtils::GetCurrentSystemTickUsed() - startCpu) / wall.count();
    }).join();
    // Generous bounds: a loaded machine only lowers the share; the governor must cap it.
    EXPECT_LT(share, 0.30);
    EXPECT_GT(share, 0.05);
    EXPECT_GE(Pauses().size(), 3u);
}

}  // namespace
