#pragma once

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Channel.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>

namespace SDK {

// The one way the agent and its modules write a log line: fetch the logger with `getLogger`, do
// nothing when it is missing or its level does not admit `prio` (the text is not even formatted),
// format with Poco::format, fetch the logger again and hand its channel a Poco::Message carrying the
// logger's name, the text, the priority, the source file's base name and `line`. Any exception is
// dropped: logging never throws to its caller.
//
// Format arguments must match Poco::format's conversions: %s takes std::string, %hu unsigned short,
// %u unsigned int, %d int, %lu unsigned long, %z std::size_t.
template <typename GetLogger, typename... Args>
void LogStatement(GetLogger getLogger, Poco::Message::Priority prio, const char* path, int line,
                  const char* fmt, const Args&... args) {
    try {
        Poco::Logger* logger = getLogger();
        if (logger == nullptr || !logger->is(prio)) {
            return;
        }
        const char* file = PathUtils::GetFileNameFromPath(path);
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = fmt;
        } else {
            text = Poco::format(std::string(fmt), args...);
        }
        logger = getLogger();
        if (logger == nullptr || !logger->is(prio) || logger->getChannel() == nullptr) {
            return;
        }
        logger->getChannel()->log(Poco::Message(logger->name(), text, prio, file, line));
    } catch (const std::exception&) {
        // A failed log line must not take its caller down.
    }
}

// The agent's root logger, as a plain function for LogStatement.
inline Poco::Logger* RootLogger() {
    return LoggerUtils::GetInstance()->GetRootLogger();
}

}  // namespace SDK

// A log statement through the agent's root logger.
#define SDK_ROOT_LOG(prio, ...) ::SDK::LogStatement(&::SDK::RootLogger, prio, __FILE__, __LINE__, __VA_ARGS__)
