#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {
class Engine;
}

namespace PortScanTest {

// Keeps every message logged through it, for tests that check log lines.
class RecordingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override;

    void Clear();
    std::vector<Poco::Message> Messages() const;
    // Messages whose text is exactly `text`.
    std::size_t Count(const std::string& text) const;
    // Messages of priority `prio` logged by the logger called `source`.
    std::vector<std::string> Texts(const std::string& source, Poco::Message::Priority prio) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Poco::Message> m_messages;
};

// Sets up the agent's logging once per process at debug level and routes the root logger and the
// module logger "portscan_module" into one recording channel, which is returned.
RecordingChannel& Recorder();

// The process's one runtime application, created on first use and destroyed at exit.
Framework::Engine& TestEngine();

// Name of the module logger, and of the root logger as POCO calls it.
extern const char* const kModuleLogger;
extern const char* const kRootLogger;

}  // namespace PortScanTest
