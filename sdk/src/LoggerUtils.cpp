#include "sdk/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/Formatter.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/NullChannel.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SplitterChannel.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <map>
#include <mutex>
#include <tuple>
#include <utility>
#include <vector>

namespace SDK {

namespace {

// ---- Tunables of the agent's logging -------------------------------------------------------
// POCO's own default level, so lines logged before Configure behave as POCO users expect.
constexpr int kDefaultLevel = Poco::Message::PRIO_INFORMATION;
// Local time to the millisecond, priority name, logger name, source base name and line, text.
const char* const kPatternWithSource = "%L%Y-%m-%d %H:%M:%S.%i [%p] %s %O:%u: %t";
// The same for messages that carry no source file, so they do not print " :0:".
const char* const kPatternWithoutSource = "%L%Y-%m-%d %H:%M:%S.%i [%p] %s: %t";
// POCO's root logger is called ""; printed as nothing it would leave a gap that breaks parsers.
const char* const kRootDisplayName = "root";
// A module logger with its own file writes to "<name><suffix>" in the agent log's folder.
const char* const kModuleFileSuffix = ".log";
// Lines one source line may write per window before the rest are counted instead of written. A
// failing socket build (three source lines, about 400 lines a second each) then writes at most
// 3 * 40 lines and 3 summaries a window, so any 60 s (which may straddle two windows) stays well
// under 300 lines, while every per-packet alarm line of a paced scan of 20 to 40 ports shows.
constexpr int kLinesPerSourceLine = 40;
constexpr std::chrono::seconds kBudgetWindow(60);
// Windows that closed with lines suppressed are summarised at most this often without a caller
// asking (FlushSuppressedLines), so the sweep costs nothing per line.
constexpr std::chrono::seconds kSweepInterval(1);

using BudgetClock = std::chrono::steady_clock;

// Holds back bursts from one source line: past kLinesPerSourceLine lines in a window only a count
// is kept, and one summary line (at the priority of the worst line held back) is written when the
// window closes. Lines without a source file are never held back.
class BudgetChannel : public Poco::Channel {
public:
    explicit BudgetChannel(const Poco::AutoPtr<Poco::Channel>& next) : m_next(next) {}

    void log(const Poco::Message& msg) override {
        const bool keyed = msg.getSourceFile() != nullptr && msg.has(LoggerUtils::kBudgetKeyParameter);
        const std::string keyText = keyed ? msg.get(LoggerUtils::kBudgetKeyParameter) : std::string();
        if (msg.getSourceFile() == nullptr || (keyed && keyText.empty())) {
            m_next->log(msg);
            return;
        }
        const BudgetClock::time_point now = BudgetClock::now();
        std::vector<Summary> summaries;
        bool pass = true;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (now >= m_nextSweep) {
                CloseWindows(now, false, summaries);
                m_nextSweep = now + kSweepInterval;
            }
            Key key(msg.getSourceFile(), msg.getSourceLine(), keyText);
            Window& window = m_windows[key];
            if (window.lines == 0 || now - window.start >= kBudgetWindow) {
                if (window.suppressed > 0) {
                    summaries.push_back(MakeSummary(key, window, now));
                }
                window = Window{};
                window.start = now;
                window.source = msg.getSource();
            }
            if (++window.lines > kLinesPerSourceLine) {
                ++window.suppressed;
                window.worst = std::min(window.worst, static_cast<int>(msg.getPriority()));
                pass = false;
            }
        }
        Write(summaries);
        if (pass) {
            m_next->log(msg);
        }
    }

    // Writes the summary of every window that has closed (of all of them with `all`).
    void Flush(bool all) {
        std::vector<Summary> summaries;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            CloseWindows(BudgetClock::now(), all, summaries);
        }
        Write(summaries);
    }

    // When the first open window closes; its summary, if it has one, is due then.
    BudgetClock::time_point NextClose() {
        std::lock_guard<std::mutex> lock(m_mutex);
        BudgetClock::time_point next = BudgetClock::time_point::max();
        for (const auto& entry : m_windows) {
            next = std::min(next, entry.second.start + kBudgetWindow);
        }
        return next;
    }

private:
    // The file name is copied: a module's library (where its __FILE__ text lives) may be closed
    // while a window is still open. The third part is the line's budget key ("" for most).
    using Key = std::tuple<std::string, int, std::string>;
    struct Window {
        BudgetClock::time_point start;
        int lines = 0;
        int suppressed = 0;
        int worst = Poco::Message::PRIO_TRACE;
        std::string source;
    };
    struct Summary {
        Key key;
        std::string source;
        std::string text;
        int priority;
    };

    static Summary MakeSummary(const Key& key, const Window& window, BudgetClock::time_point now) {
        const long seconds =
            static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(now - window.start).count());
        return Summary{key, window.source,
                       "[Log] " + std::to_string(window.suppressed) + " more line(s) from " +
                           std::get<0>(key).substr(std::get<0>(key).rfind('/') + 1) + ":" +
                           std::to_string(std::get<1>(key)) + " suppressed in " + std::to_string(seconds) +
                           " s (more than " + std::to_string(kLinesPerSourceLine) + " a minute)",
                       window.worst};
    }

    void CloseWindows(BudgetClock::time_point now, bool all, std::vector<Summary>& summaries) {
        for (auto it = m_windows.begin(); it != m_windows.end();) {
            const bool closed = all || now - it->second.start >= kBudgetWindow;
            if (closed && it->second.suppressed > 0) {
                summaries.push_back(MakeSummary(it->first, it->second, now));
            }
            it = closed ? m_windows.erase(it) : std::next(it);
        }
    }

    void Write(const std::vector<Summary>& summaries) {
        for (const Summary& summary : summaries) {
            m_next->log(Poco::Message(summary.source, summary.text,
                                      static_cast<Poco::Message::Priority>(summary.priority),
                                      std::get<0>(summary.key).c_str(), std::get<1>(summary.key)));
        }
    }

    Poco::AutoPtr<Poco::Channel> m_next;
    std::mutex m_mutex;
    std::map<Key, Window> m_windows;
    BudgetClock::time_point m_nextSweep;
};

// Formats one line. The channels are synchronous: Poco::Message holds only a raw pointer to the
// source file name, so a message must be written before its caller returns.
class LineFormatter : public Poco::Formatter {
public:
    LineFormatter()
        : m_withSource(new Poco::PatternFormatter(kPatternWithSource)),
          m_withoutSource(new Poco::PatternFormatter(kPatternWithoutSource)) {}

    void format(const Poco::Message& msg, std::string& text) override {
        Poco::PatternFormatter& pattern = msg.getSourceFile() != nullptr ? *m_withSource : *m_withoutSource;
        if (!msg.getSource().empty()) {
            pattern.format(msg, text);
            return;
        }
        Poco::Message named(msg);
        named.setSource(kRootDisplayName);
        pattern.format(named, text);
    }

private:
    Poco::AutoPtr<Poco::PatternFormatter> m_withSource;
    Poco::AutoPtr<Poco::PatternFormatter> m_withoutSource;
};

// Raw pointers handed to POCO's Ptr parameters are adopted without a new reference, so channels
// travel as AutoPtr everywhere below.
// Every channel the loggers write to passes through a budget first.
Poco::AutoPtr<Poco::Channel> Formatted(const Poco::AutoPtr<Poco::Channel>& sink) {
    Poco::AutoPtr<Poco::Channel> formatted(new Poco::FormattingChannel(new LineFormatter, sink));
    return new BudgetChannel(formatted);
}

BudgetClock::time_point NextBudgetClose(Poco::AutoPtr<Poco::Channel> channel) {
    auto* budget = dynamic_cast<BudgetChannel*>(channel.get());
    return budget != nullptr ? budget->NextClose() : BudgetClock::time_point::max();
}

void FlushBudget(Poco::AutoPtr<Poco::Channel> channel, bool all) {
    if (auto* budget = dynamic_cast<BudgetChannel*>(channel.get())) {
        budget->Flush(all);
    }
}

// Opens `path` for appending, creating missing parent folders. Null with `error` filled when
// that fails, so a bad path is reported by Configure instead of by the first log line.
Poco::AutoPtr<Poco::Channel> OpenFileSink(const std::string& path, std::string& error) {
    try {
        const Poco::Path parent = Poco::Path(path).parent();
        if (!parent.toString().empty()) {
            Poco::File(parent).createDirectories();
        }
        Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(path));
        file->open();
        return file;
    } catch (const Poco::Exception& e) {
        error = "cannot open log file \"" + path + "\": " + e.displayText();
    } catch (const std::exception& e) {
        error = "cannot open log file \"" + path + "\": " + e.what();
    }
    return nullptr;
}

std::string ModuleFilePath(const std::string& agentLogFile, const std::string& moduleName) {
    std::string fileName = moduleName;
    // A logger name is no path: keep its file inside the agent's log folder.
    std::replace(fileName.begin(), fileName.end(), '/', '_');
    Poco::Path path(agentLogFile);
    path.setFileName(fileName + kModuleFileSuffix);
    return path.toString();
}

struct ModuleEntry {
    bool separateFile = false;
    Poco::AutoPtr<Poco::Channel> ownChannel;  // set when the module writes to its own file
};

struct LoggerState {
    std::mutex mutex;
    bool configured = false;
    std::atomic<int> level{kDefaultLevel};
    std::string logFile;
    Poco::AutoPtr<Poco::Channel> common;
    std::map<std::string, ModuleEntry> modules;
    // Channels replaced by the latest Configure. Another thread may be inside log() on one of
    // them while it is swapped out (Poco::Logger reads its channel without a lock), so they live
    // one more generation instead of being destroyed at once.
    std::vector<Poco::AutoPtr<Poco::Channel>> retired;
};

LoggerState& State() {
    static LoggerState state;
    return state;
}

void SetChannelIfChanged(Poco::Logger& logger, const Poco::AutoPtr<Poco::Channel>& channel) {
    if (logger.getChannel().get() != channel.get()) {
        logger.setChannel(channel);
    }
}

// Gives `name` its channel under the state lock. Returns an error text when the module's own
// file cannot be opened; it then shares the common channel.
std::string AttachModule(LoggerState& state, const std::string& name, ModuleEntry& entry) {
    Poco::Logger& logger = Poco::Logger::get(name);
    std::string error;
    Poco::AutoPtr<Poco::Channel> channel = state.common;
    if (entry.separateFile && !state.logFile.empty()) {
        if (entry.ownChannel.isNull()) {
            Poco::AutoPtr<Poco::Channel> sink = OpenFileSink(ModuleFilePath(state.logFile, name), error);
            if (!sink.isNull()) {
                entry.ownChannel = Formatted(sink);
            }
        }
        if (!entry.ownChannel.isNull()) {
            channel = entry.ownChannel;
        }
    } else if (!entry.ownChannel.isNull()) {
        state.retired.push_back(entry.ownChannel);
        entry.ownChannel = nullptr;
    }
    SetChannelIfChanged(logger, channel);
    logger.setLevel(state.level.load());
    return error;
}

void WarnOnRoot(const std::string& text) {
    Poco::Logger& root = Poco::Logger::root();
    if (root.is(Poco::Message::PRIO_WARNING)) {
        root.log(Poco::Message(root.name(), text, Poco::Message::PRIO_WARNING, __FILE__, __LINE__));
    }
}

}  // namespace

LoggerUtils* LoggerUtils::GetInstance() {
    static LoggerUtils instance;
    static std::once_flag defaultsOnce;
    // POCO's root logger starts without a channel; until Configure, lines go to standard error in
    // the agent's line format.
    std::call_once(defaultsOnce, [] {
        LoggerState& state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.configured) {
            state.common = Formatted(Poco::AutoPtr<Poco::Channel>(new Poco::ConsoleChannel));
            Poco::Logger::root().setChannel(state.common);
            Poco::Logger::root().setLevel(kDefaultLevel);
        }
    });
    return &instance;
}

int LoggerUtils::LevelFromName(const std::string& name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (lower == "error") {
        return Poco::Message::PRIO_ERROR;
    }
    if (lower == "warning") {
        return Poco::Message::PRIO_WARNING;
    }
    if (lower == "information") {
        return Poco::Message::PRIO_INFORMATION;
    }
    if (lower == "debug") {
        return Poco::Message::PRIO_DEBUG;
    }
    return -1;
}

bool LoggerUtils::Configure(const LogSettings& settings, std::string& error) {
    const int level = LevelFromName(settings.level);
    if (level < 0) {
        error =
            "unknown log level \"" + settings.level + "\" (expected error, warning, information or debug)";
        return false;
    }

    // Summaries pending in the channels about to be replaced are written to them first: a reopen
    // after a rotation must not lose the count of what was held back.
    FlushSuppressedLines(true);

    // Build the whole new channel before touching any logger: a failure changes nothing.
    std::vector<Poco::AutoPtr<Poco::Channel>> sinks;
    if (settings.console) {
        sinks.emplace_back(new Poco::ConsoleChannel);  // std::clog: standard error
    }
    if (!settings.file.empty()) {
        Poco::AutoPtr<Poco::Channel> file = OpenFileSink(settings.file, error);
        if (file.isNull()) {
            return false;
        }
        sinks.push_back(file);
    }
    Poco::AutoPtr<Poco::Channel> sink;
    if (sinks.empty()) {
        sink = new Poco::NullChannel;
    } else if (sinks.size() == 1) {
        sink = sinks.front();
    } else {
        Poco::AutoPtr<Poco::SplitterChannel> splitter(new Poco::SplitterChannel);
        for (const Poco::AutoPtr<Poco::Channel>& each : sinks) {
            splitter->addChannel(each);
        }
        sink = splitter;
    }

    std::vector<std::string> moduleErrors;
    {
        LoggerState& state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        state.retired.clear();
        if (!state.common.isNull()) {
            state.retired.push_back(state.common);
        }
        state.common = Formatted(sink);
        state.logFile = settings.file;
        state.level.store(level);
        Poco::Logger& root = Poco::Logger::root();
        root.setChannel(state.common);
        root.setLevel(level);
        for (auto& [name, entry] : state.modules) {
            if (!entry.ownChannel.isNull()) {
                // The agent's log folder may have moved: reopen beside the new file.
                state.retired.push_back(entry.ownChannel);
                entry.ownChannel = nullptr;
            }
            std::string moduleError = AttachModule(state, name, entry);
            if (!moduleError.empty()) {
                moduleErrors.push_back(moduleError);
            }
        }
        state.configured = true;
    }
    for (const std::string& text : moduleErrors) {
        WarnOnRoot(text + "; the module logs to the common channel");
    }
    error.clear();
    return true;
}

Poco::Logger* LoggerUtils::GetRootLogger() {
    return &Poco::Logger::root();
}

Poco::Logger* LoggerUtils::GetModuleLogger(const std::string& name, bool separateFile) {
    std::string moduleError;
    Poco::Logger* logger = nullptr;
    {
        LoggerState& state = State();
        std::lock_guard<std::mutex> lock(state.mutex);
        if (!state.configured) {
            return nullptr;
        }
        if (name.empty()) {
            // "" is POCO's root logger; it keeps the common channel.
            return &Poco::Logger::root();
        }
        const auto known = state.modules.find(name);
        if (known != state.modules.end() && known->second.separateFile == separateFile) {
            // Set up already, and Configure keeps it in step: a lookup changes nothing.
            return &Poco::Logger::get(name);
        }
        ModuleEntry& entry = state.modules[name];
        entry.separateFile = separateFile;
        moduleError = AttachModule(state, name, entry);
        logger = &Poco::Logger::get(name);
    }
    if (!moduleError.empty()) {
        WarnOnRoot(moduleError + "; the module logs to the common channel");
    }
    return logger;
}

namespace {

// The channels with a budget: the common one and every module's own.
std::vector<Poco::AutoPtr<Poco::Channel>> BudgetedChannels() {
    std::vector<Poco::AutoPtr<Poco::Channel>> channels;
    LoggerState& state = State();
    std::lock_guard<std::mutex> lock(state.mutex);
    channels.push_back(state.common);
    for (const auto& entry : state.modules) {
        if (!entry.second.ownChannel.isNull()) {
            channels.push_back(entry.second.ownChannel);
        }
    }
    return channels;
}

}  // namespace

void LoggerUtils::FlushSuppressedLines(bool all) {
    for (const auto& channel : BudgetedChannels()) {
        FlushBudget(channel, all);
    }
}

std::chrono::steady_clock::time_point LoggerUtils::NextSummaryDue() {
    BudgetClock::time_point next = BudgetClock::time_point::max();
    for (const auto& channel : BudgetedChannels()) {
        next = std::min(next, NextBudgetClose(channel));
    }
    return next;
}

int LoggerUtils::GetLevel() const {
    return State().level.load();
}

}  // namespace SDK
