#pragma once

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <algorithm>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace TestSupport {

// Keeps every message logged through it, for tests that check log lines.
class RecordingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.push_back(msg);
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_messages.clear();
    }
    std::vector<Poco::Message> Messages() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const Poco::Message& msg : Messages()) {
            texts.push_back(msg.getText());
        }
        return texts;
    }
    // Messages whose text is exactly `text`, or contains `part`.
    std::size_t Count(const std::string& text) const {
        const auto texts = Texts();
        return std::count(texts.begin(), texts.end(), text);
    }
    std::size_t CountContaining(const std::string& part) const {
        const auto texts = Texts();
        return std::count_if(texts.begin(), texts.end(),
                             [&](const std::string& t) { return t.find(part) != std::string::npos; });
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Poco::Message> m_messages;
};

// Sets the agent's logging to `level` (after making the test engine, which resets every channel) and
// routes the root logger and `loggers` into one recording channel, returned cleared.
RecordingChannel& CaptureLogs(const std::vector<std::string>& loggers = {},
                              const std::string& level = "debug");

}  // namespace TestSupport
