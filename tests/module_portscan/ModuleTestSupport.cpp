#include "ModuleTestSupport.h"

#include "PortScanModule.h"
#include "framework/Engine.h"
#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

namespace PortScanTest {

const char* const kModuleLogger = "portscan_module";
const char* const kRootLogger = "";

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

std::size_t RecordingChannel::Count(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (const Poco::Message& msg : m_messages) {
        if (msg.getText() == text) {
            ++count;
        }
    }
    return count;
}

std::vector<std::string> RecordingChannel::Texts(const std::string& source,
                                                 Poco::Message::Priority prio) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> texts;
    for (const Poco::Message& msg : m_messages) {
        if (msg.getSource() == source && msg.getPriority() == prio) {
            texts.push_back(msg.getText());
        }
    }
    return texts;
}

namespace {

Poco::AutoPtr<RecordingChannel> SetUpLogging() {
    // The application's construction points every logger at a console channel: it has to come first.
    TestEngine();
    SDK::LogSettings settings;
    settings.level = "debug";
    settings.console = false;
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(settings, error)) {
        throw std::runtime_error("logging set-up failed: " + error);
    }
    Poco::AutoPtr<RecordingChannel> channel(new RecordingChannel);
    Poco::Logger* root = SDK::LoggerUtils::GetInstance()->GetRootLogger();
    Poco::Logger* module = Engine::PortScan::GetLoggerPtr();
    if (root == nullptr || module == nullptr) {
        throw std::runtime_error("loggers missing after set-up");
    }
    root->setChannel(channel);
    module->setChannel(channel);
    return channel;
}

}  // namespace

RecordingChannel& Recorder() {
    static Poco::AutoPtr<RecordingChannel> channel = SetUpLogging();
    return *channel;
}

Framework::Engine& TestEngine() {
    static std::unique_ptr<Framework::Engine> engine(new Framework::Engine);
    return *engine;
}

}  // namespace PortScanTest
