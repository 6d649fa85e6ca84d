#include "support/LogCapture.h"

#include "sdk/LoggerUtils.h"
#include "support/TestEngine.h"

#include <Poco/Logger.h>

#include <stdexcept>

namespace TestSupport {

RecordingChannel& CaptureLogs(const std::vector<std::string>& loggers, const std::string& level) {
    static Poco::AutoPtr<RecordingChannel> channel(new RecordingChannel);
    TestEngine();
    const SDK::LogSettings settings{level, false, ""};
    std::string error;
    SDK::LoggerUtils* const utils = SDK::LoggerUtils::GetInstance();
    if (!utils->Configure(settings, error)) {
        throw std::runtime_error("logging set-up failed: " + error);
    }
    utils->GetRootLogger()->setChannel(channel);
    for (const std::string& name : loggers) {
        Poco::Logger* logger = utils->GetModuleLogger(name, false);
        if (logger == nullptr) {
            throw std::runtime_error("logger missing after set-up: " + name);
        }
        logger->setChannel(channel);
    }
    channel->Clear();
    return *channel;
}

}  // namespace TestSupport
