#include "FuzzSupport.h"

#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <cstdio>
#include <cstdlib>

namespace FuzzSupport {

void QuietLogs(void (*createLoggers)()) {
    // No console and no file: the agent's logging would otherwise write to standard error.
    SDK::LogSettings settings;
    settings.level = "error";
    settings.console = false;
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(settings, error)) {
        Fail("logging: " + error);
    }
    if (createLoggers != nullptr) {
        createLoggers();
    }
    Poco::Logger::setLevel("", Poco::Message::PRIO_FATAL);
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "WRONG RESULT: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace FuzzSupport
