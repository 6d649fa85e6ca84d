// A task reads its policy without locks while the main thread replaces that policy thousands of
// times. Built again under ThreadSanitizer; under AddressSanitizer a policy freed too early shows
// up as a use after free.

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "TestSupport.h"

namespace FwTest {
namespace {

class ReaderTask : public Framework::Task {
public:
    ReaderTask() : Task("reader", "stress", 0, 16) {}

    int Run() override {
        while (!isCancelled()) {
            MarkActivity();
            auto* policy = dynamic_cast<CountedTaskPolicy*>(GetTaskPolicy());
            if (policy == nullptr) {
                std::this_thread::yield();
                continue;
            }
            auto* parent = dynamic_cast<CountedFeaturePolicy*>(GetFeaturePolicy());
            // Use the objects for a while, as a task does between two marks.
            for (int i = 0; i < 20; ++i) {
                bad += policy->canary != CountedTaskPolicy::kAlive;
                bad += policy->GetName() != "reader";
                bad += policy->GetCondition().startDelaySeconds != 0;
                if (parent != nullptr) {
                    bad += parent->canary != CountedTaskPolicy::kAlive;
                    bad += parent->GetHash().empty();
                    replacedSeen += parent->IsReplaced();
                    bad += parent->generation < policy->generation - 1;
                }
            }
            if (++reads % 64 == 0) {
                bad += Framework::Engine::Instance()->FindTask("reader") != this;
            }
        }
        return 0;
    }

    std::atomic<long> reads{0};
    std::atomic<long> bad{0};
    std::atomic<long> replacedSeen{0};
};

TEST(PolicyStressTest, TaskReadsWhilePoliciesAreReplaced) {
    Framework::Engine* engine = TheEngine();
    CountingModule module("stress_module", "ks");
    module.Init();
    engine->AddModule(&module);
    ReaderTask reader;
    ProbeTask bystander("bystander", ProbeTask::Mode::SleepUntil);
    ASSERT_TRUE(engine->RegisterTask(&bystander, false));
    ASSERT_TRUE(engine->DeliverPolicy("ks", "p", R"({"gen":0,"hash":"h","tasks":{"reader":{}}})"));
    ASSERT_TRUE(module.RegisterTask(&reader, false));

    // Another thread reclaims and looks tasks up meanwhile.
    std::atomic<bool> done{false};
    std::thread helper([&] {
        while (!done) {
            engine->ReclaimPolicies();
            EXPECT_EQ(engine->FindTask("reader"), &reader);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int delivered = 0;
    for (int gen = 1; gen <= 3000 && std::chrono::steady_clock::now() < deadline; ++gen) {
        const std::string text = R"({"gen":)" + std::to_string(gen) + R"(,"hash":"h)" + std::to_string(gen) +
                                 R"(","tasks":{"reader":{}}})";
        ASSERT_TRUE(engine->DeliverPolicy("ks", "p", text));
        ++delivered;
        if (gen % 500 == 0) {
            ASSERT_TRUE(WaitUntil([&] { return reader.reads.load() > 0; }));
        }
    }
    done = true;
    helper.join();

    EXPECT_GT(delivered, 100);
    EXPECT_GT(reader.reads.load(), 0);
    EXPECT_EQ(reader.bad.load(), 0);
    // The reader marks continually, so retired policies do not pile up.
    EXPECT_TRUE(WaitUntil([&] {
        engine->ReclaimPolicies();
        return engine->GetRetiredPolicyCount() == 0;
    }));
    EXPECT_TRUE(engine->UnRegisterTask("reader"));
    EXPECT_TRUE(engine->UnRegisterTask("bystander"));
    module.UnInit();
    engine->ReleasePolicies(&module);
    engine->RemoveModule(&module);
    EXPECT_EQ(module.counts.made.load(), module.counts.freed.load());
}

}  // namespace
}  // namespace FwTest
