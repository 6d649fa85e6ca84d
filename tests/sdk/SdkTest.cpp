#include "sdk/InnerCpuCtrlUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace {

using SDK::InnerCpuCtrlUtils;
using SDK::TimeUtils;

TEST(JsonUtilsTest, ParseJsonStrResults) {
    const std::pair<std::string, int> cases[] = {
        {" {\"a\": [1, {\"b\": null}]}\n", 0},
        {"[1,2]", -2},
        {"not json", -1},
        {R"({"a":1} tail)", -1},
        {R"({"a":1,})", -1},
        {R"({"a":/* c */1})", -1},
        {"{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}", -1},  // too deep
        {"", -3},
    };
    for (const auto& [text, result] : cases) {
        Json::Value root(123);
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root), result) << text.substr(0, 20);
        EXPECT_TRUE(result == 0 ? root.isObject() : root.isNull()) << text.substr(0, 20);
    }
    const char unterminated[] = {'{', '}', 'x'};  // only the counted bytes are read
    Json::Value root;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(unterminated, 2, root), 0);
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(nullptr, 10, root), -3);
}

TEST(InnerCpuCtrlUtilsTest, BusyThreadKeepsNearTheLimit) {
    InnerCpuCtrlUtils::SetCpuLimitPercent(20);
    double share = 0;
    std::thread([&] {
        unsigned long last = TimeUtils::GetCurrentSystemTickUsed();
        const unsigned long startCpu = last;
        const auto startWall = std::chrono::steady_clock::now();
        const auto deadline = startWall + std::chrono::seconds(30);  // bounded whatever happens
        while (last - startCpu < 400 && std::chrono::steady_clock::now() < deadline) {
            const unsigned long now = TimeUtils::GetCurrentSystemTickUsed();
            if (now - last > InnerCpuCtrlUtils::GetSuggestedRunTick()) {
                InnerCpuCtrlUtils::AdjustThreadCpu(__FILE__, __LINE__, "burner", now, now - last);
                last = now;
            }
        }
        const std::chrono::duration<double, std::milli> wall = std::chrono::steady_clock::now() - startWall;
        share = (TimeUtils::GetCurrentSystemTickUsed() - startCpu) / wall.count();
    }).join();
    InnerCpuCtrlUtils::SetCpuLimitPercent(0);
    // Generous bounds: a loaded machine only lowers the share; the governor must cap it.
    EXPECT_LT(share, 0.30);
    EXPECT_GT(share, 0.05);
}

}  // namespace
