// Lock-free policy reads racing thousands of replacements; also built under ThreadSanitizer.
#include "Probes.h"

namespace FwTest {
namespace {

class ReaderTask : public Framework::Task {
public:
    ReaderTask() : Task("reader", "stress", 0, 16) {}
    int Run() override {
        while (!isCancelled()) {
            MarkActivity();
            Framework::TaskPolicy* policy = GetTaskPolicy();
            auto* parent = dynamic_cast<CountedPolicy*>(GetFeaturePolicy());
            for (int i = 0; policy != nullptr && parent != nullptr && i < 20; ++i) {  // use them a while
                m_bad += parent->FindChild("reader") == nullptr || policy->GetName() != "reader";
            }
            m_reads += policy != nullptr && parent != nullptr;
        }
        return 0;
    }
    std::atomic<long> m_reads{0}, m_bad{0};
};

TEST(PolicyStressTest, TaskReadsWhilePoliciesAreReplaced) {
    Framework::Engine& engine = TestSupport::TestEngine();
    TestSupport::CaptureLogs({}, "warning");  // keeps thousands of delivery lines off the console
    ReaderTask reader;
    CountingModule module("ks");  // declared last: its end unregisters the reader before it goes
    ASSERT_TRUE(module.Deliver("reader,other"));
    ASSERT_TRUE(module.RegisterTask(&reader, false));
    std::atomic<bool> done{false};
    std::thread reclaimer([&] {  // the agent reclaims on a thread of its own meanwhile
        while (!done) {
            engine.ReclaimPolicies();
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    // Replacements race the reader only once it reads; on a busy machine its thread may start late.
    ASSERT_TRUE(TestSupport::WaitUntil([&] { return reader.m_reads > 0; }, TestSupport::Millis(10000)));
    const long readsBefore = reader.m_reads;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int delivered = 0, accepted = 0;
    while ((delivered < 3000 || reader.m_reads < readsBefore + 100) &&
           std::chrono::steady_clock::now() < deadline) {
        accepted += module.Deliver("reader,other,g" + std::to_string(delivered++));
    }
    done = true;
    reclaimer.join();
    EXPECT_GE(delivered, 3000);
    EXPECT_EQ(accepted, delivered);
    EXPECT_GE(reader.m_reads, readsBefore + 100) << "the reader hardly ran while policies were replaced";
    EXPECT_EQ(reader.m_bad, 0);
    // The reader marks continually, so retired policies do not pile up.
    EXPECT_TRUE(
        TestSupport::WaitUntil([&] { return engine.ReclaimPolicies() + engine.GetRetiredPolicyCount() == 0; },
                               TestSupport::Millis(10000)));
}

}  // namespace
}  // namespace FwTest
