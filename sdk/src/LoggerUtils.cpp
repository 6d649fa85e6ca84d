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
#include <map>
#include <mutex>
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
Poco::AutoPtr<Poco::Channel> Formatted(const Poco::AutoPtr<Poco::Channel>& sink) {
    return new Poco::FormattingChannel(new LineFormatter, sink);
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

int LoggerUtils::GetLevel() const {
    return State().level.load();
}

}  // namespace SDK
