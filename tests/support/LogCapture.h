#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

// Keeps every message logged through it, for tests that check log lines.
class RecordingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override;

    void Clear();
    std::vector<Poco::Message> Messages() const;
    // Texts of all messages, in order.
    std::vector<std::string> Texts() const;
    // Messages whose text is exactly `text`.
    std::size_t Count(const std::string& text) const;
    // Messages whose text contains `part`.
    std::size_t CountContaining(const std::string& part) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Poco::Message> m_messages;
};

// Configures the agent's logging once per process at `level` (after creating the test engine,
// whose construction would otherwise reset every channel) and routes the root logger and every
// logger named in `loggers` into one recording channel, which is returned (cleared).
RecordingChannel& CaptureLogs(const std::vector<std::string>& loggers = {},
                              const std::string& level = "debug");

}  // namespace TestSupport
