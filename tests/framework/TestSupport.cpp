#include "TestSupport.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include "framework/PolicyCallback.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

namespace FwTest {

namespace {

Framework::Engine* g_engine = nullptr;
CaptureChannel* g_log = nullptr;

class EngineEnvironment : public ::testing::Environment {
public:
    void SetUp() override {
        g_engine = new Framework::Engine;
        // After the Engine: the application's setup points the root logger at the console.
        Poco::AutoPtr<CaptureChannel> capture(new CaptureChannel);
        g_log = capture.get();
        Poco::Logger* root = SDK::LoggerUtils::GetInstance()->GetRootLogger();
        root->setChannel(capture);
        root->setLevel(Poco::Message::PRIO_DEBUG);
    }
    void TearDown() override {
        delete g_engine;
        g_engine = nullptr;
    }
};

::testing::Environment* const g_environment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

}  // namespace

Framework::Engine* TheEngine() {
    return g_engine;
}
CaptureChannel* TheLog() {
    return g_log;
}

bool CountedFeaturePolicy::Parse(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        return false;
    }
    generation = SDK::JsonUtils::GetIntValue(root, "gen", 0);
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    Json::Value tasks;
    if (SDK::JsonUtils::GetSubobjectValue(root, "tasks", tasks)) {
        for (const std::string& name : tasks.getMemberNames()) {
            auto* child = new CountedTaskPolicy(name, m_counts, generation);
            child->ParseCondition(SDK::JsonUtils::JsonToString(tasks[name]));
            Add(child);
        }
    }
    return true;
}

int CountingModule::Init() {
    RegisterPolicyCallback(key,
                           new Framework::PolicyCallback<CountingModule>(this, &CountingModule::Refresh));
    return Module::Init();
}

Framework::Policy* CountingModule::Refresh(const std::string&, const std::string& content,
                                           Framework::Policy*& policy) {
    auto* fresh = new CountedFeaturePolicy(&counts);
    fresh->Parse(content);
    if (policy != nullptr) {
        policy->SetReplaced(true);
    }
    if (inside) {
        inside(fresh);
    }
    return fresh;
}

int ProbeTask::Run() {
    Note("R");
    cancelledAtStart = sleep(0);
    ++runs;
    switch (mode) {
        case Mode::PollState: {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
            while (state() != TASK_CANCELLING) {
                if (std::chrono::steady_clock::now() > deadline) {
                    missedCancel = true;
                    return 0;
                }
                std::this_thread::yield();
            }
            return 0;
        }
        case Mode::SleepUntil:
            while (!sleep(1)) {
                if (markRequest.exchange(false)) {
                    MarkActivity();
                    ++marks;
                }
            }
            return 0;
        case Mode::ReturnAtOnce:
            return 7;
        case Mode::Consume:
            for (;;) {
                Framework::Message* msg = DequeueMsg(20);
                if (msg != nullptr) {
                    HandleMsg(msg);
                    delete msg;
                } else if (isCancelled()) {
                    return 0;
                }
            }
        case Mode::UnRegisterSelf:
            TheEngine()->UnRegisterTask(name());
            while (!sleep(1)) {
            }
            return 0;
    }
    return 0;
}

}  // namespace FwTest
