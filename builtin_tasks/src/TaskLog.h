#pragma once

#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Channel.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>

namespace Engine {
namespace BuiltinLog {

// One log statement of the built-in tasks, through the agent's root logger: the level is tested
// before any formatting, the message carries the source file's base name and line, and logging
// never throws to its caller.
template <typename... Args>
void Write(Poco::Message::Priority prio, const char* path, int line, const char* fmt, const Args&... args) {
    try {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetRootLogger();
        if (logger == nullptr || !logger->is(prio) || logger->getChannel() == nullptr) {
            return;
        }
        std::string text;
        if constexpr (sizeof...(Args) == 0) {
            text = fmt;
        } else {
            text = Poco::format(std::string(fmt), args...);
        }
        logger->getChannel()->log(
            Poco::Message(logger->name(), text, prio, SDK::PathUtils::GetFileNameFromPath(path), line));
    } catch (const std::exception&) {
        // A failed log line must not take the task down.
    }
}

}  // namespace BuiltinLog
}  // namespace Engine

#define BUILTIN_LOG(prio, ...) ::Engine::BuiltinLog::Write(prio, __FILE__, __LINE__, __VA_ARGS__)
