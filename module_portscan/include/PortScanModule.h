#pragma once

#include "framework/Module.h"
#include "sdk/LogStatement.h"

#include <Poco/Logger.h>

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

    // The task policy's keys for "10001" (TaskPolicyKeys()), none for other keys.
    std::vector<Framework::PolicyKeyInfo> GetPolicySchema(const std::string& key) const override;
    // For "10001": the findings of LintTaskPolicy on "content"."port_scan_task", with the host's IPv4
    // addresses as the capture filter counts them.
    std::vector<std::string> LintPolicy(const std::string& key, const std::string& text) const override;
    // For "10001": why RefreshFeaturePolicy would switch detection off for `text` though its
    // document does not turn the feature off; "" when it would run it.
    std::string RefusalOf(const std::string& key, const std::string& text) const override;

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

}  // namespace PortScan
}  // namespace Engine

// A log statement through the module logger / the agent's root logger (see SDK::LogStatement).
#define PORTSCAN_LOG(prio, ...) \
    ::SDK::LogStatement(&::Engine::PortScan::GetLoggerPtr, prio, __FILE__, __LINE__, __VA_ARGS__)
// A module log statement that the agent's log budget counts as `budget` says (SDK::LogBudget).
#define PORTSCAN_LOG_BUDGETED(prio, budget, ...)                                                     \
    ::SDK::LogStatementBudgeted(&::Engine::PortScan::GetLoggerPtr, prio, __FILE__, __LINE__, budget, \
                                __VA_ARGS__)
#define PORTSCAN_ROOT_LOG(prio, ...) \
    ::SDK::LogStatement(&::Engine::PortScan::GetRootLoggerPtr, prio, __FILE__, __LINE__, __VA_ARGS__)

extern "C" {
// The module's factory, the only symbol the host looks up. The caller owns the result.
Framework::Module* CreateModule();
}
