// A module for the agent's tests only. Policy under key "90001" (a JSON object):
//   "marker":        text copied into every event (required)
//   "count":         events to send when the policy arrives (default 1)
//   "burst_on_stop": events to send when the module's task is cancelled (default 0)
// Every event is a DataMessage of type "2" to "data_comm_report_task" with the body
//   {"source":"agent_test_module","marker":M,"kind":"policy"|"stop","seq":N,"policy_name":NAME}
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"

#include <json/json.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace AgentTestModule {

const char* const kFeatureKey = "90001";
const char* const kTaskName = "agent_test_task";
const char* const kReportTask = "data_comm_report_task";

struct Order {
    std::string marker;
    std::string policyName;
    int count = 1;
    int burstOnStop = 0;
};

class TestPolicy : public Framework::FeaturePolicy {
public:
    TestPolicy() : Framework::FeaturePolicy("agent_test_feature") {}

    bool Parse(const std::string& text) override {
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject() ||
            !root["marker"].isString()) {
            return false;
        }
        m_order.marker = root["marker"].asString();
        m_order.count = root.get("count", 1).asInt();
        m_order.burstOnStop = root.get("burst_on_stop", 0).asInt();
        return true;
    }

    Order& GetOrder() { return m_order; }

private:
    Order m_order;
};

class AlarmTask : public Framework::Task {
public:
    AlarmTask() : Framework::Task(kTaskName, "test", 0, 16) {}

    void Take(const Order& order) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pending.push_back(order);
        m_last = order;
    }

    int Run() override {
        while (!isCancelled() && !sleep(20)) {
            SendPending();
            MarkActivity();
        }
        SendPending();
        Order last;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            last = m_last;
        }
        for (int i = 0; i < last.burstOnStop; ++i) {
            Send(last, "stop", i);
        }
        return 0;
    }

private:
    void SendPending() {
        std::vector<Order> pending;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            pending.swap(m_pending);
        }
        for (const Order& order : pending) {
            for (int i = 0; i < order.count; ++i) {
                Send(order, "policy", i);
            }
        }
    }

    void Send(const Order& order, const char* kind, int seq) {
        Json::Value body;
        body["source"] = "agent_test_module";
        body["marker"] = order.marker;
        body["kind"] = kind;
        body["seq"] = seq;
        body["policy_name"] = order.policyName;
        Json::StreamWriterBuilder writer;
        writer["indentation"] = "  ";  // multi-line on purpose: the report task writes one line
        SendDirectMsg(kReportTask, new Framework::DataMessage("2", Json::writeString(writer, body)));
    }

    std::mutex m_mutex;
    std::vector<Order> m_pending;
    Order m_last;
};

class TestModule : public Framework::Module {
public:
    TestModule() : Framework::Module("agent_test_module"), m_task(new AlarmTask) {}
    ~TestModule() override { m_task->release(); }

    int Init() override {
        RegisterPolicyCallback(kFeatureKey,
                               new Framework::PolicyCallback<TestModule>(this, &TestModule::OnPolicy));
        return Framework::Module::Init();
    }

    void UnInit() override {
        UnRegisterTaskletCallback(kFeatureKey);
        UnRegisterTask(kTaskName);
        Framework::Module::UnInit();
    }

    Framework::Policy* OnPolicy(const std::string& name, const std::string& content, Framework::Policy*&) {
        auto* policy = new TestPolicy;
        if (!policy->Parse(content)) {
            delete policy;
            return nullptr;
        }
        policy->GetOrder().policyName = name;
        if (FindTask(kTaskName) == nullptr) {
            RegisterTask(m_task, false);
        }
        m_task->Take(policy->GetOrder());
        return policy;
    }

private:
    AlarmTask* m_task;  // owned; registered on the first policy
};

}  // namespace AgentTestModule

extern "C" Framework::Module* CreateModule() {
    return new AgentTestModule::TestModule;
}
