// The SDK's logger and JSON reader; the CPU governor is measured from /proc by AgentBoundsE2E.
#include "sdk/JsonUtils.h"
#include "sdk/LogStatement.h"
#include "sdk/LoggerUtils.h"
#include "support/NetLab.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

namespace {

using SDK::LoggerUtils;

TEST(LoggerUtilsTest, LineFormatAndLevelFiltering) {
    const std::regex stamp(R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )");
    const std::string text = "100% of %s (%zu) {kept} as is\\";  // written as is, never formatted
    const std::pair<int, std::string> priorities[] = {
        {3, "Error"}, {4, "Warning"}, {6, "Information"}, {7, "Debug"}};
    for (const auto& [level, admitted] :
         {std::pair{"error", 1u}, {"warning", 2u}, {"information", 3u}, {"debug", 4u}}) {
        SCOPED_TRACE(level);
        TestSupport::TempDir dir;
        std::string error;
        ASSERT_TRUE(LoggerUtils::GetInstance()->Configure({level, false, dir.File("agent.log")}, error))
            << error;
        Poco::Logger* module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
        ASSERT_NE(module, nullptr);
        for (const auto& [priority, name] : priorities) {
            module->log(Poco::Message(module->name(), text, static_cast<Poco::Message::Priority>(priority),
                                      "/src/module/CollectPortInfoTask.cpp", 120 + priority));
        }
        const std::vector<std::string> lines = TestSupport::ReadLines(dir.File("agent.log"));
        ASSERT_EQ(lines.size(), admitted);
        for (std::size_t i = 0; i < admitted; ++i) {
            const auto& [priority, name] = priorities[i];
            EXPECT_TRUE(std::regex_match(lines[i].substr(0, 24), stamp)) << lines[i];
            EXPECT_EQ(lines[i].substr(24), "[" + name + "] portscan_module CollectPortInfoTask.cpp:" +
                                               std::to_string(120 + priority) + ": " + text);
        }
    }
}

std::size_t Count(const std::vector<std::string>& lines, const std::string& part) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.find(part) != std::string::npos; });
}

// Exempt rows and distinct texts pass; a repeated text or a burst is capped and summarised at rotation,
// when its window closes, or at a flush.
TEST(LoggerUtilsTest, BudgetPassesBoundedLinesAndCapsAndSummarisesBursts) {
    using Poco::Message;
    TestSupport::TempDir dir;
    std::string error;
    const SDK::LogSettings settings{"debug", false, dir.File("agent.log")};
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    Poco::Logger* module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
    ASSERT_NE(module, nullptr);
    auto log = [&](const char* file, int line, const std::string& text, Message::Priority priority,
                   SDK::LogBudget budget = SDK::LogBudget::kPerSourceLine) {
        Message msg(module->name(), text, priority, file, line);
        SDK::SetLogBudget(msg, budget);
        module->log(msg);
    };
    for (int i = 0; i < 100; ++i) {
        log("/src/Task.cpp", 70, "  Port " + std::to_string(i), Message::PRIO_DEBUG, SDK::LogBudget::kExempt);
        log("/src/Task.cpp", 71, "Alarm found, port [" + std::to_string(i) + "]", Message::PRIO_DEBUG,
            SDK::LogBudget::kPerText);
        log("/src/Task.cpp", 72, "Alarm found, port [7]", Message::PRIO_DEBUG, SDK::LogBudget::kPerText);
    }
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    const std::vector<std::string> rotated = TestSupport::ReadLines(dir.File("agent.log"));
    EXPECT_EQ(Count(rotated, ":70:   Port "), 100u);
    EXPECT_EQ(Count(rotated, ":71: Alarm found"), 100u);
    EXPECT_EQ(Count(rotated, ":72: Alarm found"), 40u);
    EXPECT_EQ(Count(rotated, "[Log] 60 more line(s) from Task.cpp:72 suppressed"), 1u);

    module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
    // A failing source line beside a quiet one of its file; lines with no source are never held back.
    for (int i = 0; i < 400; ++i) {
        log("/src/SocketUtil.cpp", 60, "socket failed " + std::to_string(i),
            i == 7 ? Message::PRIO_ERROR : Message::PRIO_WARNING);
        if (i % 40 == 0) {
            log("/src/SocketUtil.cpp", 61, "other " + std::to_string(i), Message::PRIO_INFORMATION);
        }
        if (i < 80) {
            log(nullptr, 0, "sourceless", Message::PRIO_INFORMATION);
        }
    }
    // Due when the window closes, a minute after its first line; a full flush leaves nothing due.
    const auto due = LoggerUtils::GetInstance()->NextSummaryDue();
    const auto now = std::chrono::steady_clock::now();
    EXPECT_GT(due, now + std::chrono::seconds(50));
    EXPECT_LE(due, now + std::chrono::seconds(60));
    const std::vector<std::string> before = TestSupport::ReadLines(dir.File("agent.log"));
    LoggerUtils::GetInstance()->FlushSuppressedLines(true);
    EXPECT_EQ(LoggerUtils::GetInstance()->NextSummaryDue(), std::chrono::steady_clock::time_point::max());
    const std::vector<std::string> lines = TestSupport::ReadLines(dir.File("agent.log"));
    EXPECT_EQ(Count(before, ": socket failed "), 40u);  // the first forty, from the very first on
    EXPECT_EQ(Count(before, ": socket failed 0"), 1u);
    EXPECT_EQ(Count(before, ": other "), 10u);
    EXPECT_EQ(Count(before, "sourceless"), 80u);
    ASSERT_EQ(lines.size(), before.size() + 1);
    // One summary, at the worst priority held back, naming the source line and the count.
    EXPECT_NE(lines.back().find("[Warning] portscan_module SocketUtil.cpp:60: [Log] 360 more line(s) from "
                                "SocketUtil.cpp:60 suppressed"),
              std::string::npos)
        << lines.back();
}

TEST(JsonUtilsTest, ParseJsonStrResults) {
    const std::pair<std::string, int> cases[] = {
        {" {\"a\": [1, {\"b\": null}]}\n", 0},
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

}  // namespace
