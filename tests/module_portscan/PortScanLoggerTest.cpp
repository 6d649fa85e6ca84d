#include "PortScanModule.h"
#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <string>

namespace {

// Runs alone in its binary: the module logger must not have been asked for before this test.
TEST(PortScanLogger, ModuleLoggerIsAskedForAgainUntilLoggingIsSetUp) {
    EXPECT_EQ(nullptr, Engine::PortScan::GetLoggerPtr());
    EXPECT_EQ(nullptr, Engine::PortScan::GetLoggerPtr());

    SDK::LogSettings settings;
    settings.console = false;
    std::string error;
    ASSERT_TRUE(SDK::LoggerUtils::GetInstance()->Configure(settings, error)) << error;

    Poco::Logger* logger = Engine::PortScan::GetLoggerPtr();
    ASSERT_NE(nullptr, logger);
    EXPECT_EQ("portscan_module", logger->name());
    EXPECT_EQ(logger, Engine::PortScan::GetLoggerPtr());
    EXPECT_EQ(SDK::LoggerUtils::GetInstance()->GetRootLogger(), Engine::PortScan::GetRootLoggerPtr());
}

}  // namespace
