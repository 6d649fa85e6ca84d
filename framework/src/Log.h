#pragma once

// Log statements of the runtime: all go to the agent's root logger.

#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

namespace Framework {
namespace Detail {

// Writes one line when the root logger admits `priority`; the text is formatted only then.
// Logging never throws to its caller.
template <typename... Args>
void Log(int priority, const char* file, int line, const std::string& format, const Args&... args) {
    try {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetRootLogger();
        if (logger == nullptr || !logger->is(priority)) {
            return;
        }
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = format;
        } else {
            text = Poco::format(format, args...);
        }
        logger->log(Poco::Message(logger->name(), text, static_cast<Poco::Message::Priority>(priority),
                                  SDK::PathUtils::GetFileNameFromPath(file), line));
    } catch (const std::exception&) {
    }
}

}  // namespace Detail
}  // namespace Framework

#define FW_LOG_ERROR(...) ::Framework::Detail::Log(Poco::Message::PRIO_ERROR, __FILE__, __LINE__, __VA_ARGS__)
#define FW_LOG_WARNING(...) \
    ::Framework::Detail::Log(Poco::Message::PRIO_WARNING, __FILE__, __LINE__, __VA_ARGS__)
#define FW_LOG_INFO(...) \
    ::Framework::Detail::Log(Poco::Message::PRIO_INFORMATION, __FILE__, __LINE__, __VA_ARGS__)
#define FW_LOG_DEBUG(...) ::Framework::Detail::Log(Poco::Message::PRIO_DEBUG, __FILE__, __LINE__, __VA_ARGS__)
