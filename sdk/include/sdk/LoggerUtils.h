#pragma once

#include <chrono>
#include <string>

namespace Poco {
class Logger;
}

namespace SDK {

// Log settings of the agent, as its config file gives them.
struct LogSettings {
    std::string level = "information";  // error, warning, information or debug
    bool console = true;                // also write to standard error
    std::string file;                   // log file path; empty for none
};

// The agent's loggers. One instance per process (the shared SDK library holds it).
//
// Every line carries the time, the priority name, the logger name, the source file's base name
// and line (from the Poco::Message), and the text exactly as logged.
class LoggerUtils {
public:
    // A Poco::Message parameter that changes how the log budget counts the line (see LogBudget in
    // LogStatement.h): "" takes the line out of the budget, any other value counts it with the lines
    // of the same value from its source line instead of with all of them.
    static constexpr const char* kBudgetKeyParameter = "budget_key";

    static LoggerUtils* GetInstance();

    // Sets up the root logger and the common channel. Returns false, with `error` filled,
    // when the level name is unknown or the log file cannot be opened. May be called again
    // to change the settings; existing module loggers follow the new level and channel.
    bool Configure(const LogSettings& settings, std::string& error);

    // The root logger. Before Configure it is POCO's root logger writing to the console at
    // information level. Never null; owned by POCO, valid until process exit.
    Poco::Logger* GetRootLogger();

    // The logger called `name`, sharing the root's channel and level. With `separateFile` true it
    // writes to "<name>.log" beside the agent's log file instead (falls back to the common channel
    // when the agent logs to no file). Returns null until Configure has succeeded once. Owned by POCO.
    Poco::Logger* GetModuleLogger(const std::string& name, bool separateFile);

    // A burst from one source line is held back: past a budget per minute its lines are only
    // counted, and one summary line says how many were suppressed (kBudgetKeyParameter narrows or
    // lifts the budget of a line). Configure writes every pending summary before it reopens. The summary is
    // written when the next line of that source comes after its window, or here: for every window that has
    // closed, or for all of them with `all` (before the log is closed).
    void FlushSuppressedLines(bool all);
    // When FlushSuppressedLines(false) may next have a summary to write (a window closes);
    // time_point::max() while no window is open.
    std::chrono::steady_clock::time_point NextSummaryDue();

    // The configured level as a Poco::Message priority number (3 error ... 7 debug).
    int GetLevel() const;

    // Maps a level name of the config ("error", "warning", "information", "debug") to its
    // priority number; -1 for an unknown name.
    static int LevelFromName(const std::string& name);

private:
    LoggerUtils() = default;
};

}  // namespace SDK
