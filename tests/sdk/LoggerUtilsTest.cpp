#include "sdk/LogStatement.h"
#include "sdk/LoggerUtils.h"

#include "support/NetLab.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

using SDK::LoggerUtils;

// Declared first: run as the binary's first case, it starts before anything configured logging.
TEST(LoggerUtilsTest, NoModuleLoggerBeforeConfigureThenLineFormatAndLevelFiltering) {
    EXPECT_EQ(LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false), nullptr);
    EXPECT_NE(LoggerUtils::GetInstance()->GetRootLogger(), nullptr);
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

// Lines bounded by what they report pass the budget: table rows (exempt) and distinct texts of one
// source line (alarm lines of distinct ports, distinct findings); one text repeated is held back,
// and reopening the log (a rotation) first writes the summary of what was held back. A burst from
// one source line is capped, and summarised once its window closes or a flush closes every window.
TEST(LoggerUtilsTest, BudgetPassesBoundedLinesAndCapsAndSummarisesBursts) {
    TestSupport::TempDir dir;
    std::string error;
    const SDK::LogSettings settings{"debug", false, dir.File("agent.log")};
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    Poco::Logger* module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
    ASSERT_NE(module, nullptr);
    auto budgeted = [&](const std::string& text, int line, SDK::LogBudget budget) {
        Poco::Message msg(module->name(), text, Poco::Message::PRIO_DEBUG, "/src/Task.cpp", line);
        SDK::SetLogBudget(msg, budget);
        module->log(msg);
    };
    for (int i = 0; i < 100; ++i) {
        budgeted("  Port " + std::to_string(i), 70, SDK::LogBudget::kExempt);
        budgeted("Alarm found, port [" + std::to_string(i) + "]", 71, SDK::LogBudget::kPerText);
        budgeted("Alarm found, port [7]", 72, SDK::LogBudget::kPerText);
    }
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings, error)) << error;
    std::size_t rows = 0, distinct = 0, repeated = 0, summaries = 0;
    for (const std::string& line : TestSupport::ReadLines(dir.File("agent.log"))) {
        rows += line.find(":70:   Port ") != std::string::npos;
        distinct += line.find(":71: Alarm found") != std::string::npos;
        repeated += line.find(":72: Alarm found") != std::string::npos;
        summaries += line.find("[Log] 60 more line(s) from Task.cpp:72 suppressed") != std::string::npos;
    }
    EXPECT_EQ(rows, 100u);
    EXPECT_EQ(distinct, 100u);
    EXPECT_EQ(repeated, 40u);
    EXPECT_EQ(summaries, 1u);

    module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
    auto log = [&](const std::string& text, Poco::Message::Priority priority, int line) {
        module->log(Poco::Message(module->name(), text, priority, "/src/SocketUtil.cpp", line));
    };
    // A failing source line interleaved with two quiet ones, one of them on the same file.
    for (int i = 0; i < 400; ++i) {
        log("socket failed " + std::to_string(i),
            i == 7 ? Poco::Message::PRIO_ERROR : Poco::Message::PRIO_WARNING, 60);
        if (i % 40 == 0) {
            log("other " + std::to_string(i), Poco::Message::PRIO_INFORMATION, 61);
        }
    }
    // No source file: never held back.
    for (int i = 0; i < 80; ++i) {
        module->log(Poco::Message(module->name(), "sourceless", Poco::Message::PRIO_INFORMATION));
    }
    // The summary falls due when the window closes, a minute after its first line; a flush that
    // closes every window leaves nothing due.
    const auto due = LoggerUtils::GetInstance()->NextSummaryDue();
    const auto now = std::chrono::steady_clock::now();
    EXPECT_GT(due, now + std::chrono::seconds(50));
    EXPECT_LE(due, now + std::chrono::seconds(60));
    const std::vector<std::string> before = TestSupport::ReadLines(dir.File("agent.log"));
    LoggerUtils::GetInstance()->FlushSuppressedLines(true);
    EXPECT_EQ(LoggerUtils::GetInstance()->NextSummaryDue(), std::chrono::steady_clock::time_point::max());
    const std::vector<std::string> lines = TestSupport::ReadLines(dir.File("agent.log"));

    std::vector<std::string> failing;
    std::size_t others = 0;
    std::size_t sourceless = 0;
    for (const std::string& line : before) {
        if (line.find("socket failed ") != std::string::npos) {
            failing.push_back(line.substr(line.find("socket failed ")));
        }
        others += line.find(": other ") != std::string::npos;
        sourceless += line.find("sourceless") != std::string::npos;
    }
    ASSERT_EQ(failing.size(), 40u);
    EXPECT_EQ(failing.front(), "socket failed 0");  // the first lines pass exactly as logged
    EXPECT_EQ(failing.back(), "socket failed 39");
    EXPECT_EQ(others, 10u);
    EXPECT_EQ(sourceless, 80u);
    ASSERT_EQ(lines.size(), before.size() + 1);
    // One summary, at the worst priority held back, naming the source line and the count.
    EXPECT_NE(lines.back().find("[Warning] portscan_module SocketUtil.cpp:60: [Log] 360 more line(s) from "
                                "SocketUtil.cpp:60 suppressed"),
              std::string::npos)
        << lines.back();
}

}  // namespace
