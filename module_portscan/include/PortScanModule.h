#pragma once

#include "framework/Module.h"
#include "sdk/LoggerUtils.h"
#include "sdk/PathUtils.h"

#include <Poco/Channel.h>
#include <Poco/Format.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <exception>
#include <string>

namespace Framework {
class Policy;
}

namespace Engine {

class CollectPortInfoTask;
class PortScanPolicy;

// The port-scan detection module "portscan_module". The host creates it with CreateModule(),
// calls Init(), delivers policies under the feature key "10001", calls UnInit() and deletes it.
// The module owns its one collection task and deletes it with itself.
class PortScanModule : public Framework::Module {
public:
    PortScanModule();
    ~PortScanModule() override;

    // Registers the policy callback for "10001", then runs the base Init. Returns 0.
    int Init() override;
    // Removes the callback, unregisters "port_scan_task", runs the base UnInit.
    void UnInit() override;

    // Policy callback: builds and parses a new PortScanPolicy from `content`, marks `policy` (the
    // previous one, may be null) replaced, switches the task on or off, returns the new policy.
    Framework::Policy* RefreshFeaturePolicy(const std::string& name, const std::string& content,
                                            Framework::Policy*& policy);

    // Registers the collection task when `policy` enables detection (creating it on first use),
    // unregisters it otherwise. `policy` must not be null. Always true.
    bool ProcCollectInfoTask(PortScanPolicy* policy);

private:
    CollectPortInfoTask* m_task;  // created on first enable, deleted with the module
};

namespace PortScan {

// The module logger "portscan_module"; null while the agent's logging is not set up.
Poco::Logger* GetLoggerPtr();
// The agent's root logger.
Poco::Logger* GetRootLoggerPtr();

using LoggerGetter = Poco::Logger* (*)();

// One log statement, written the one way the module logs: fetch the logger, do nothing when it is
// missing or its level does not admit `prio` (the text is not even formatted), format with
// Poco::format, and hand the channel a Poco::Message with the logger's name, the text, the
// priority, the source file's base name and `line`. Any exception is dropped.
template <typename... Args>
void LogStatement(LoggerGetter getLogger, Poco::Message::Priority prio, const char* path, int line,
                  const char* fmt, const Args&... args) {
    try {
        Poco::Logger* logger = getLogger();
        if (logger == nullptr || !logger->is(prio)) {
            return;
        }
        const char* file = SDK::PathUtils::GetFileNameFromPath(path);
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
        logger->getChannel()->log(Poco::Message(logger->name(), text, prio, file, line));
    } catch (const std::exception&) {
        // Logging never throws to its caller.
    }
}

}  // namespace PortScan
}  // namespace Engine

// Through the module logger / the agent's root logger. The format arguments must match
// Poco::format's conversions (%s takes std::string, %hu unsigned short, %lu unsigned long, ...).
#define PORTSCAN_LOG(prio, ...) \
    ::Engine::PortScan::LogStatement(&::Engine::PortScan::GetLoggerPtr, prio, __FILE__, __LINE__, __VA_ARGS__)
#define PORTSCAN_ROOT_LOG(prio, ...)                                                                  \
    ::Engine::PortScan::LogStatement(&::Engine::PortScan::GetRootLoggerPtr, prio, __FILE__, __LINE__, \
                                     __VA_ARGS__)

extern "C" {
// The module's factory, the only symbol the host looks up. The caller owns the result.
Framework::Module* CreateModule();
}
