#include <gtest/gtest.h>

#include <stdexcept>

#include "TestSupport.h"
#include "framework/PolicyCallback.h"

namespace FwTest {
namespace {

// A module registered with the Engine for one test.
class DeliveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        engine = TheEngine();
        module.Init();
        engine->AddModule(&module);
    }
    void TearDown() override {
        module.UnInit();
        engine->ReleasePolicies(&module);
        engine->RemoveModule(&module);
        EXPECT_EQ(module.counts.made.load(), module.counts.freed.load());
    }
    bool Deliver(const std::string& text) { return engine->DeliverPolicy("k1", "policy.json", text); }
    CountedFeaturePolicy* Current() {
        return dynamic_cast<CountedFeaturePolicy*>(engine->GetCurrentPolicy("k1"));
    }
    static void Mark(ProbeTask& task) {
        const int before = task.marks.load();
        task.markRequest = true;
        ASSERT_TRUE(WaitUntil([&] { return task.marks.load() > before; }));
    }

    Framework::Engine* engine = nullptr;
    CountingModule module{"counting_module", "k1"};
};

TEST_F(DeliveryTest, PolicyReachesTasksAndOldOneWaitsForEveryHolder) {
    ProbeTask alpha("alpha", ProbeTask::Mode::SleepUntil);
    ASSERT_TRUE(module.RegisterTask(&alpha, false));
    EXPECT_EQ(alpha.GetTaskPolicy(), nullptr);

    ASSERT_TRUE(Deliver(R"({"gen":1,"hash":"h1","tasks":{"alpha":{},"beta":{}}})"));
    CountedFeaturePolicy* gen1 = Current();
    ASSERT_NE(gen1, nullptr);
    EXPECT_EQ(gen1->generation, 1);
    EXPECT_EQ(alpha.GetTaskPolicy(), gen1->FindChild("alpha"));
    EXPECT_EQ(alpha.GetFeaturePolicy(), gen1);

    // Registered later: handed the current child before Init.
    ProbeTask beta("beta", ProbeTask::Mode::SleepUntil);
    ASSERT_TRUE(engine->RegisterTask(&beta, false));
    EXPECT_EQ(beta.initPolicy.load(), gen1->FindChild("beta"));
    ASSERT_TRUE(WaitUntil([&] { return alpha.runs == 1 && beta.runs == 1; }));

    ASSERT_TRUE(Deliver(R"({"gen":2,"hash":"h2","tasks":{"alpha":{},"beta":{}}})"));
    CountedFeaturePolicy* gen2 = Current();
    EXPECT_EQ(alpha.GetTaskPolicy(), gen2->FindChild("alpha"));
    EXPECT_EQ(beta.GetFeaturePolicy(), gen2);
    // Both running tasks may still hold gen1: kept, marked replaced.
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 1u);
    EXPECT_EQ(module.counts.freed.load(), 0);
    EXPECT_TRUE(gen1->IsReplaced());
    EXPECT_EQ(gen1->canary, CountedTaskPolicy::kAlive);

    Mark(alpha);
    EXPECT_EQ(engine->ReclaimPolicies(), 0u);
    Mark(beta);
    EXPECT_EQ(engine->ReclaimPolicies(), 1u);
    EXPECT_EQ(module.counts.freed.load(), 3);  // the feature policy and its two children
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 0u);

    EXPECT_TRUE(engine->UnRegisterTask("alpha"));
    EXPECT_TRUE(engine->UnRegisterTask("beta"));
    EXPECT_EQ(alpha.GetTaskPolicy(), nullptr);
}

TEST_F(DeliveryTest, RetiredPolicyFreedAtOnceWhenNoHolderRuns) {
    ASSERT_TRUE(Deliver(R"({"gen":1,"tasks":{"alpha":{}}})"));
    ASSERT_TRUE(Deliver(R"({"gen":2,"tasks":{"alpha":{}}})"));
    EXPECT_EQ(module.counts.freed.load(), 2);
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 0u);

    // A running task that was never given the policy does not hold it up; one that was does,
    // until it is unregistered.
    ProbeTask other("other", ProbeTask::Mode::SleepUntil);
    ProbeTask alpha("alpha", ProbeTask::Mode::SleepUntil);
    ASSERT_TRUE(engine->RegisterTask(&other, false));
    ASSERT_TRUE(engine->RegisterTask(&alpha, false));
    ASSERT_TRUE(WaitUntil([&] { return alpha.runs == 1 && other.runs == 1; }));
    ASSERT_TRUE(Deliver(R"({"gen":3,"tasks":{"alpha":{}}})"));
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 1u);
    EXPECT_TRUE(engine->UnRegisterTask("alpha"));
    EXPECT_EQ(engine->ReclaimPolicies(), 1u);
    EXPECT_EQ(module.counts.freed.load(), 4);
    EXPECT_TRUE(engine->UnRegisterTask("other"));
}

TEST_F(DeliveryTest, TaskRegisteredInsideCallbackGetsTheNewPolicy) {
    ProbeTask gamma("gamma", ProbeTask::Mode::SleepUntil);
    module.inside = [&](CountedFeaturePolicy* fresh) {
        if (module.FindTask("gamma") == nullptr && fresh->FindChild("gamma") != nullptr) {
            gamma.SetFeaturePolicy(fresh);
            EXPECT_TRUE(module.RegisterTask(&gamma, false));
        }
    };
    ASSERT_TRUE(Deliver(R"({"gen":1,"tasks":{"gamma":{}}})"));
    CountedFeaturePolicy* gen1 = Current();
    EXPECT_EQ(gamma.initPolicy.load(), gen1->FindChild("gamma"));
    EXPECT_EQ(gamma.GetTaskPolicy(), gen1->FindChild("gamma"));
    ASSERT_TRUE(WaitUntil([&] { return gamma.runs == 1; }));

    // The next policy has nothing for gamma: it loses the pointers, and gen1 waits for its mark.
    ASSERT_TRUE(Deliver(R"({"gen":2,"tasks":{}})"));
    EXPECT_EQ(gamma.GetTaskPolicy(), nullptr);
    EXPECT_EQ(gamma.GetFeaturePolicy(), nullptr);
    EXPECT_EQ(module.counts.freed.load(), 0);
    Mark(gamma);
    EXPECT_EQ(engine->ReclaimPolicies(), 1u);

    module.UnInit();  // unregisters what the module registered
    EXPECT_EQ(engine->FindTask("gamma"), nullptr);
    EXPECT_EQ(gamma.Events(), "IRU");
}

TEST_F(DeliveryTest, ReleasePoliciesStopsRemainingUsersAndFreesAll) {
    ProbeTask alpha("alpha", ProbeTask::Mode::SleepUntil);
    ASSERT_TRUE(Deliver(R"({"gen":1,"tasks":{"alpha":{}}})"));
    ASSERT_TRUE(module.RegisterTask(&alpha, false));
    ASSERT_TRUE(WaitUntil([&] { return alpha.runs == 1; }));
    ASSERT_TRUE(Deliver(R"({"gen":2,"tasks":{"alpha":{}}})"));
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 1u);

    engine->ReleasePolicies(&module);
    EXPECT_EQ(engine->FindTask("alpha"), nullptr);
    EXPECT_EQ(alpha.Events(), "IRU");
    EXPECT_EQ(engine->GetCurrentPolicy("k1"), nullptr);
    EXPECT_EQ(engine->GetRetiredPolicyCount(), 0u);
    EXPECT_EQ(module.counts.made.load(), module.counts.freed.load());
}

class CountedCallback : public Framework::AbstractPolicyCallback {
public:
    explicit CountedCallback(int* deleted, bool throws = false) : m_deleted(deleted), m_throws(throws) {}
    ~CountedCallback() override { ++*m_deleted; }
    Framework::Policy* invoke(const std::string&, const std::string&,
                              Framework::Policy*& policy) const override {
        if (m_throws) {
            throw std::runtime_error("bad policy");
        }
        return policy;
    }

private:
    int* m_deleted;
    bool m_throws;
};

TEST_F(DeliveryTest, CallbackRegistrationAndRemoval) {
    int deleted = 0;
    EXPECT_FALSE(module.RegisterPolicyCallback("k1", new CountedCallback(&deleted)));
    EXPECT_EQ(deleted, 1);  // refused, and deleted
    EXPECT_FALSE(engine->DeliverPolicy("nobody", "p", "{}"));

    ASSERT_TRUE(module.RegisterPolicyCallback("k2", new CountedCallback(&deleted, true)));
    EXPECT_FALSE(engine->DeliverPolicy("k2", "p", "{}"));  // the callback threw: nothing changes
    EXPECT_EQ(engine->GetCurrentPolicy("k2"), nullptr);
    EXPECT_TRUE(module.UnRegisterTaskletCallback("k2"));
    EXPECT_EQ(deleted, 2);
    EXPECT_FALSE(module.HasPolicyCallback("k2"));
    EXPECT_FALSE(module.UnRegisterTaskletCallback("k2"));

    ASSERT_TRUE(Deliver(R"({"gen":1})"));
    EXPECT_TRUE(module.UnRegisterTaskletCallback("k1"));
    EXPECT_FALSE(Deliver(R"({"gen":2})"));
    EXPECT_EQ(Current()->generation, 1);
}

}  // namespace
}  // namespace FwTest
