#include "PortScanModule.h"

#include "CollectPortInfoTask.h"
#include "IPUtil.h"
#include "PortScanPolicy.h"
#include "PortScanPolicySchema.h"
#include "SocketUtil.h"
#include "framework/ModuleApi.h"
#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

#include <atomic>
#include <memory>

namespace Engine {

namespace {

const char* const kModuleName = "portscan_module";
// The feature key under which the agent delivers this module's policy.
const char* const kFeatureKey = "10001";
const char* const kTaskName = "port_scan_task";
// Every new feature policy carries this name until its document names the feature.
const char* const kPolicyName = "portscan_info_collect";

}  // namespace

PortScanModule::PortScanModule() : Framework::Module(kModuleName), m_task(nullptr) {}

PortScanModule::~PortScanModule() {
    // The module took a reference on the task, yet deletes it outright: by now UnInit has taken the
    // task down, so nothing else holds it.
    if (m_task != nullptr) {
        delete m_task;
        m_task = nullptr;
    }
}

std::vector<Framework::PolicyKeyInfo> PortScanModule::GetPolicySchema(const std::string& key) const {
    return key == kFeatureKey ? TaskPolicyKeys() : std::vector<Framework::PolicyKeyInfo>();
}

std::vector<std::string> PortScanModule::LintPolicy(const std::string& key, const std::string& text) const {
    Json::Value root;
    if (key != kFeatureKey || SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0 ||
        !root.isObject() || !root["content"].isObject() || !root["content"][kTaskName].isObject()) {
        return {};
    }
    std::vector<unsigned int> addresses;
    IPUtil::GetLocalhostIp(addresses);
    return LintTaskPolicy(root["content"][kTaskName], addresses.size(),
                          SocketUtil::Port6FilterFitsOptionMemory);
}

std::string PortScanModule::RefusalOf(const std::string& key, const std::string& text) const {
    if (key != kFeatureKey) {
        return "";
    }
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return "not a JSON object";
    }
    const Json::Value& content = root["content"];
    if (!content.isObject()) {
        return "\"content\" is missing or not an object";
    }
    const Json::Value& task = content[kTaskName];
    if (!task.isObject()) {
        return "\"content\".\"" + std::string(kTaskName) + "\" is missing or not an object";
    }
    if (!SDK::JsonUtils::GetBoolValue(content, "is_feature_enable", true)) {
        return "";  // switched off on purpose: nothing else is read
    }
    const std::string where = "\"" + std::string(kTaskName) + "\".";
    if (!task["monitor_list"].isArray()) {
        return where + "\"monitor_list\" is missing or not an array";
    }
    if (task["monitor_list"].size() > kMaxMonitorEntries) {
        return where + "\"monitor_list\" has " + std::to_string(task["monitor_list"].size()) +
               " entries, more than " + std::to_string(kMaxMonitorEntries);
    }
    if (!task["task_condition"].isObject()) {
        return where + "\"task_condition\" is missing or not an object";
    }
    // The rest (white lists, the start condition) the parser itself judges, with its own error line.
    PortScanTaskPolicy probe(kTaskName);
    if (!probe.Parse(SDK::JsonUtils::JsonToString(task))) {
        return "\"" + std::string(kTaskName) +
               "\" is refused: a white list or \"task_condition\" the module cannot read";
    }
    return "";
}

int PortScanModule::Init() {
    auto* callback =
        new Framework::PolicyCallback<PortScanModule>(this, &PortScanModule::RefreshFeaturePolicy);
    // The runtime owns the callback from here on, also when the registration is refused.
    RegisterPolicyCallback(kFeatureKey, callback);
    Framework::Module::Init();
    return 0;
}

void PortScanModule::UnInit() {
    // The callback went in through RegisterPolicyCallback; the tasklet removal takes out whatever
    // was registered under the key.
    UnRegisterTaskletCallback(kFeatureKey);
    UnRegisterTask(kTaskName);
    Framework::Module::UnInit();
}

Framework::Policy* PortScanModule::RefreshFeaturePolicy(const std::string& name, const std::string& content,
                                                        Framework::Policy*& policy) {
    PORTSCAN_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "Start to refresh %s", name);

    // Held until returned, so an exception from the framework calls below does not leak it.
    std::unique_ptr<PortScanPolicy> newPolicy(new PortScanPolicy(kPolicyName));
    // A policy that does not parse still goes on: it reports the feature as off, which takes the
    // task down.
    (void)newPolicy->Parse(content);

    if (policy != nullptr) {
        policy->SetReplaced(true);
    }
    ProcCollectInfoTask(newPolicy.get());
    return newPolicy.release();
}

bool PortScanModule::ProcCollectInfoTask(PortScanPolicy* policy) {
    if (policy->IsPortScanEnable()) {
        // A running task gets later policies through the runtime's own delivery to tasks.
        if (FindTask(kTaskName) != nullptr) {
            return true;
        }
        if (m_task == nullptr) {
            m_task = new CollectPortInfoTask();
            m_task->duplicate();
        }
        m_task->SetFeaturePolicy(
            dynamic_cast<Framework::FeaturePolicy*>(static_cast<Framework::Policy*>(policy)));
        RegisterTask(m_task, false);
        return true;
    }

    UnRegisterTask(kTaskName);
    PORTSCAN_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "Port scan module close!");
    // The task object is kept: a later enable registers the same one again.
    return true;
}

namespace PortScan {

namespace {
// The module logger once the agent's logging is set up. Atomic only so that the policy thread and
// the task thread may both fill it; a null result is stored as such and asked for again next time.
std::atomic<Poco::Logger*> g_moduleLogger{nullptr};
}  // namespace

Poco::Logger* GetLoggerPtr() {
    Poco::Logger* logger = g_moduleLogger.load(std::memory_order_acquire);
    if (logger != nullptr) {
        return logger;
    }
    logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger(kModuleName, false);
    g_moduleLogger.store(logger, std::memory_order_release);
    return logger;
}

Poco::Logger* GetRootLoggerPtr() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

}  // namespace PortScan
}  // namespace Engine

HOSTAGENT_MODULE_API_VERSION_EXPORT

extern "C" Framework::Module* CreateModule() {
    // A throwing constructor makes the new-expression release the memory and rethrow.
    return new Engine::PortScanModule();
}
