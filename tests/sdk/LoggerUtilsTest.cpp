#include "sdk/LoggerUtils.h"

#include "support/NetLab.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

using SDK::LoggerUtils;

// Declared first: run as the binary's first case, nothing has configured logging yet.
TEST(LoggerUtilsTest, ModuleLoggerIsNullBeforeConfigure) {
    EXPECT_EQ(LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false), nullptr);
    EXPECT_NE(LoggerUtils::GetInstance()->GetRootLogger(), nullptr);
}

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

}  // namespace
