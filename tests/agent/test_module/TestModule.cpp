// A module for the agent's tests only. Its policy (key "90001") needs a text "marker"; it sends "count"
// events when it arrives and "burst_on_stop" when the module stops, each pretty-printed (the report task
// must write it as one line): the policy's fields, "policy_name", "event_classid", "kind" and "seq".
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/ModuleApi.h"
#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "sdk/JsonUtils.h"

#include <memory>
#include <mutex>

namespace {

class TestPolicy : public Framework::FeaturePolicy {
public:
    TestPolicy() : FeaturePolicy("agent_test_feature") {}
    bool Parse(const std::string& text) override {
        return SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), m_root) == 0 &&
               m_root["marker"].isString();
    }
    Json::Value m_root;
};

class TestModule : public Framework::Module {
public:
    TestModule() : Module("agent_test_module") {}
    int Init() override {
        RegisterPolicyCallback("90001",
                               new Framework::PolicyCallback<TestModule>(this, &TestModule::OnPolicy));
        return Module::Init();
    }
    void UnInit() override {
        Send("stop", "burst_on_stop", 0);
        Module::UnInit();
    }
    // A policy without its "marker" would be given up: the agent must keep the last good one.
    std::string RefusalOf(const std::string& key, const std::string& text) const override {
        return key == "90001" && !TestPolicy().Parse(text) ? "\"marker\" is missing" : "";
    }
    Framework::Policy* OnPolicy(const std::string& name, const std::string& content, Framework::Policy*&) {
        auto policy = std::make_unique<TestPolicy>();
        if (!policy->Parse(content)) {
            return nullptr;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_event = policy->m_root;
            m_event["policy_name"] = name;
        }
        Send("policy", "count", 1);
        return policy.release();
    }

private:
    // As many events of `kind` as the policy's `countKey` asks for.
    void Send(const char* kind, const char* countKey, int defaultCount) {
        std::lock_guard<std::mutex> lock(m_mutex);
        Json::Value body = m_event;
        body["event_classid"] = "test_0001";
        body["kind"] = kind;
        // "seq" keeps the events distinct, so a lost one and a doubled one cannot cancel out.
        for (int seq = 0; seq < m_event.get(countKey, defaultCount).asInt(); ++seq) {
            body["seq"] = seq;
            m_sender.SendDirectMsg("data_comm_report_task",
                                   new Framework::DataMessage("2", body.toStyledString()));
        }
    }

    std::mutex m_mutex;
    Json::Value m_event;  // the current policy's fields, and the name it was delivered under
    Framework::Task m_sender{"agent_test_sender", "test", 0, 1};  // never registered: only sends
};

}  // namespace

// Variants test the host's version check: one built for another plug-in API version, one without any.
#if defined(TEST_MODULE_API_VERSION)
extern "C" unsigned HostAgentModuleApiVersion() {
    return TEST_MODULE_API_VERSION;
}
#elif !defined(TEST_MODULE_WITHOUT_API_VERSION)
HOSTAGENT_MODULE_API_VERSION_EXPORT
#endif

extern "C" Framework::Module* CreateModule() {
    return new TestModule;
}
