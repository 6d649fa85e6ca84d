#include "support/LogCapture.h"

#include "sdk/LoggerUtils.h"
#include "support/TestEngine.h"

#include <Poco/Logger.h>

#include <stdexcept>

namespace TestSupport {

void RecordingChannel::log(const Poco::Message& msg) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.push_back(msg);
}

void RecordingChannel::Clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

std::vector<Poco::Message> RecordingChannel::Messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

std::vector<std::string> RecordingChannel::Texts() const {
    std::vector<std::string> texts;
    for (const Poco::Message& msg : Messages()) {
        texts.push_back(msg.getText());
    }
    return texts;
}

std::size_t RecordingChannel::Count(const std::string& text) const {
    std::size_t count = 0;
    for (const std::string& t : Texts()) {
        count += (t == text) ? 1 : 0;
    }
    return count;
}

std::size_t RecordingChannel::CountContaining(const std::string& part) const {
    std::size_t count = 0;
    for (const std::string& t : Texts()) {
        count += (t.find(part) != std::string::npos) ? 1 : 0;
    }
    return count;
}

RecordingChannel& CaptureLogs(const std::vector<std::string>& loggers, const std::string& level) {
    static Poco::AutoPtr<RecordingChannel> channel(new RecordingChannel);
    TestEngine();
    SDK::LogSettings settings;
    settings.level = level;
    settings.console = false;
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(settings, error)) {
        throw std::runtime_error("logging set-up failed: " + error);
    }
    SDK::LoggerUtils::GetInstance()->GetRootLogger()->setChannel(channel);
    for (const std::string& name : loggers) {
        Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(name, false);
        if (logger == nullptr) {
            throw std::runtime_error("logger missing after set-up: " + name);
        }
        logger->setChannel(channel);
    }
    channel->Clear();
    return *channel;
}

}  // namespace TestSupport
