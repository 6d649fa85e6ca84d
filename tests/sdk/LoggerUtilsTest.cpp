#include "sdk/LoggerUtils.h"

#include "TestDir.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

using SDK::LoggerUtils;

SDK::LogSettings FileOnly(const std::string& file, const std::string& level) {
    SDK::LogSettings settings;
    settings.level = level;
    settings.console = false;
    settings.file = file;
    return settings;
}

void Configure(const SDK::LogSettings& settings) {
    std::string error;
    ASSERT_TRUE(LoggerUtils::GetInstance()->Configure(settings, error)) << error;
}

void Log(Poco::Logger* logger, int priority, const std::string& text, const char* file = "x.cpp",
         int line = 1) {
    logger->log(
        Poco::Message(logger->name(), text, static_cast<Poco::Message::Priority>(priority), file, line));
}

// Declared first: it needs a process in which nothing has configured logging yet.
TEST(LoggerUtilsTest, BeforeConfigureOnlyTheRootLoggerWritesToStandardError) {
    LoggerUtils* utils = LoggerUtils::GetInstance();
    EXPECT_EQ(utils->GetModuleLogger("portscan_module", false), nullptr);
    EXPECT_EQ(utils->GetLevel(), 6);
    ASSERT_NE(utils->GetRootLogger(), nullptr);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    Log(utils->GetRootLogger(), 6, "early line");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("[Information] root x.cpp:1: early line\n"),
              std::string::npos);
}

TEST(LoggerUtilsTest, BadSettingsAreRejectedAndChangeNothing) {
    for (const auto& [name, level] : {std::pair{"error", 3},
                                      {"warning", 4},
                                      {"information", 6},
                                      {"debug", 7},
                                      {"Debug", 7},
                                      {"info", -1},
                                      {"", -1}}) {
        EXPECT_EQ(LoggerUtils::LevelFromName(name), level) << name;
    }
    TestDir dir;
    Configure(FileOnly(dir.Join("agent.log"), "warning"));
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Channel* before = utils->GetRootLogger()->getChannel().get();
    std::string error;
    EXPECT_FALSE(utils->Configure(FileOnly(dir.Join("other.log"), "verbose"), error));
    EXPECT_NE(error.find("verbose"), std::string::npos) << error;
    std::ofstream(dir.Join("plain")) << "x";  // a file where a folder is needed fails even for root
    EXPECT_FALSE(utils->Configure(FileOnly(dir.Join("plain/agent.log"), "debug"), error));
    EXPECT_NE(error.find(dir.Join("plain/agent.log")), std::string::npos) << error;
    EXPECT_EQ(utils->GetLevel(), 4);
    EXPECT_EQ(utils->GetRootLogger()->getChannel().get(), before);
}

TEST(LoggerUtilsTest, LinesCarrySourceAndExactTextAndLevelFilters) {
    const std::string stamp = R"(\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3} )";
    const std::string text = "[PortScan] 100% of %s (%zu) {kept} as is\\";
    for (const auto& [level, lines] :
         {std::pair{"error", 1u}, {"warning", 2u}, {"information", 3u}, {"debug", 4u}}) {
        SCOPED_TRACE(level);
        TestDir dir;
        const std::string file = dir.Join("deep/er/agent.log");  // missing parents are created
        Configure(FileOnly(file, level));
        Poco::Logger* module = LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false);
        ASSERT_NE(module, nullptr);
        for (int priority : {3, 4, 6, 7}) {
            EXPECT_EQ(module->is(priority), priority <= LoggerUtils::GetInstance()->GetLevel());
            Log(module, priority, text, "/src/module/CollectPortInfoTask.cpp", 120 + priority);
        }
        EXPECT_EQ(Grep(file).size(), lines);
        EXPECT_EQ(Grep(file, "[Debug]").size(), lines == 4u ? 1u : 0u);
    }
    TestDir dir;
    Configure(FileOnly(dir.Join("agent.log"), "information"));
    Log(LoggerUtils::GetInstance()->GetModuleLogger("portscan_module", false), 6, text,
        "/src/module/CollectPortInfoTask.cpp", 123);
    Log(LoggerUtils::GetInstance()->GetRootLogger(), 4, "from root", "IPUtil.cpp", 7);
    LoggerUtils::GetInstance()->GetRootLogger()->error("no source");
    const std::vector<std::string> lines = Grep(dir.Join("agent.log"));
    ASSERT_EQ(lines.size(), 3u);
    const std::string head = "[Information] portscan_module CollectPortInfoTask.cpp:123: ";
    EXPECT_TRUE(std::regex_match(lines[0].substr(0, 24), std::regex(stamp))) << lines[0];
    EXPECT_EQ(lines[0].substr(24), head + text);
    EXPECT_TRUE(
        std::regex_match(lines[1], std::regex(stamp + R"(\[Warning\] root IPUtil\.cpp:7: from root)")))
        << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], std::regex(stamp + R"(\[Error\] root: no source)"))) << lines[2];
}

TEST(LoggerUtilsTest, ModuleLoggersFollowReconfigure) {
    TestDir dir;
    Configure(FileOnly(dir.Join("one/agent.log"), "information"));
    LoggerUtils* utils = LoggerUtils::GetInstance();
    Poco::Logger* module = utils->GetModuleLogger("follow_module", false);
    Poco::Logger* separate = utils->GetModuleLogger("own_module", true);
    ASSERT_TRUE(module != nullptr && separate != nullptr);
    Log(module, 7, "suppressed");
    Log(module, 6, "common one");
    Log(separate, 6, "own one");
    Configure(FileOnly(dir.Join("two/agent.log"), "debug"));
    Log(module, 7, "common two");
    Log(separate, 7, "own two");
    EXPECT_EQ(Grep(dir.Join("one/agent.log"), "common one").size(), 1u);
    EXPECT_EQ(Grep(dir.Join("one/agent.log")).size(), 1u);
    EXPECT_EQ(Grep(dir.Join("two/agent.log"), "[Debug] follow_module x.cpp:1: common two").size(), 1u);
    EXPECT_EQ(Grep(dir.Join("two/agent.log")).size(), 1u);
    // The own file sits beside the agent's log and moves with it.
    EXPECT_EQ(Grep(dir.Join("one/own_module.log"), "own one").size(), 1u);
    EXPECT_EQ(Grep(dir.Join("two/own_module.log"), "own two").size(), 1u);

    Configure(SDK::LogSettings());  // console only: the own file falls back to the common channel
    EXPECT_EQ(separate->getChannel().get(), utils->GetRootLogger()->getChannel().get());
    EXPECT_EQ(separate->getLevel(), 6);
}

}  // namespace
