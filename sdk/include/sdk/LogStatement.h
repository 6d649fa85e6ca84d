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

// How the log budget (LoggerUtils) counts a line. kPerSourceLine: with every line of its source line,
// the default. kPerText: with the lines of the same text only, so each distinct text has a budget of
// its own (alarm lines of distinct ports, distinct policy findings). kExempt: never held back; only
// for lines bounded by what they report, such as the rows of the minute port table.
enum class LogBudget { kPerSourceLine, kPerText, kExempt };

// Sets on `msg` how the budget counts it (the parameter LoggerUtils::kBudgetKeyParameter).
inline void SetLogBudget(Poco::Message& msg, LogBudget budget) {
    if (budget == LogBudget::kExempt) {
        msg.set(LoggerUtils::kBudgetKeyParameter, "");
    } else if (budget == LogBudget::kPerText) {
        msg.set(LoggerUtils::kBudgetKeyParameter, msg.getText());
    }
}

// The one way the agent and its modules write a log line: fetch the logger with `getLogger`, do
// nothing when it is missing or its level does not admit `prio` (the text is not even formatted),
// format with Poco::format, fetch the logger again and hand its channel a Poco::Message carrying the
// logger's name, the text, the priority, the source file's base name and `line`. Any exception is
// dropped: logging never throws to its caller.
//
// Format arguments must match Poco::format's conversions: %s takes std::string, %hu unsigned short,
// %u unsigned int, %d int, %lu unsigned long, %z std::size_t.
template <typename GetLogger, typename... Args>
void LogStatementBudgeted(GetLogger getLogger, Poco::Message::Priority prio, const char* path, int line,
                          LogBudget budget, const char* fmt, const Args&... args) {
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
        Poco::Message msg(logger->name(), text, prio, file, line);
        SetLogBudget(msg, budget);
        logger->getChannel()->log(msg);
    } catch (const std::exception&) {
        // A failed log line must not take its caller down.
    }
}

template <typename GetLogger, typename... Args>
void LogStatement(GetLogger getLogger, Poco::Message::Priority prio, const char* path, int line,
                  const char* fmt, const Args&... args) {
    LogStatementBudgeted(getLogger, prio, path, line, LogBudget::kPerSourceLine, fmt, args...);
}

// The agent's root logger, as a plain function for LogStatement.
inline Poco::Logger* RootLogger() {
    return LoggerUtils::GetInstance()->GetRootLogger();
}

}  // namespace SDK

// A log statement through the agent's root logger.
#define SDK_ROOT_LOG(prio, ...) ::SDK::LogStatement(&::SDK::RootLogger, prio, __FILE__, __LINE__, __VA_ARGS__)

// A log statement through the agent's root logger that the log budget counts as `budget` says.
#define SDK_ROOT_LOG_BUDGETED(prio, budget, ...) \
    ::SDK::LogStatementBudgeted(&::SDK::RootLogger, prio, __FILE__, __LINE__, budget, __VA_ARGS__)
