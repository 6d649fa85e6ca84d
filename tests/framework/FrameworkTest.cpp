#include "Probes.h"

#include <algorithm>

namespace FwTest {
namespace {

using TestSupport::WaitUntil;
constexpr TestSupport::Millis kWait(10000);

// Makes `task` mark on its own thread and waits until it has.
void Mark(ProbeTask& task) {
    const int before = task.m_handled;
    ASSERT_TRUE(task.EnqueueMsg(new Framework::Message("mark")));
    ASSERT_TRUE(WaitUntil([&] { return task.m_handled > before; }, kWait));
}

class CountedMessage : public Framework::Message {
public:
    explicit CountedMessage(std::atomic<int>* freed) : Message("data"), m_freed(freed) {}
    ~CountedMessage() override { ++*m_freed; }
    std::atomic<int>* m_freed;
};

TEST(RuntimeTest, PolicyHandOverAndReclamation) {
    Framework::Engine& engine = TestSupport::TestEngine();
    ProbeTask alpha("alpha"), beta("beta");
    CountingModule module("k1");  // declared last: its end unregisters the tasks before they go
    ASSERT_TRUE(module.RegisterTask(&alpha, false));
    ASSERT_TRUE(module.Deliver("alpha,beta"));
    CountedPolicy* first = module.Current();
    ASSERT_NE(first, nullptr);
    // The callback's result is current; its child reaches a running task at once...
    EXPECT_EQ(alpha.GetTaskPolicy(), first->FindChild("alpha"));
    EXPECT_EQ(alpha.GetFeaturePolicy(), first);
    // ...and a task that registers later before its Init.
    ASSERT_TRUE(module.RegisterTask(&beta, false));
    EXPECT_EQ(beta.m_initPolicy.load(), first->FindChild("beta"));
    Mark(alpha);  // both run now
    Mark(beta);

    ASSERT_TRUE(module.Deliver("alpha,beta"));
    EXPECT_TRUE(first->IsReplaced());
    EXPECT_EQ(alpha.GetTaskPolicy(), module.Current()->FindChild("alpha"));
    // Either task may still read the first policy: it waits for a mark of each.
    EXPECT_EQ(engine.GetRetiredPolicyCount(), 1u);
    Mark(alpha);
    EXPECT_EQ(engine.ReclaimPolicies(), 0u);
    EXPECT_EQ(module.m_freed, 0);
    Mark(beta);
    EXPECT_EQ(engine.ReclaimPolicies(), 1u);
    EXPECT_EQ(module.m_freed, 1);

    // With no task running, a replaced policy is freed at once.
    EXPECT_TRUE(module.UnRegisterTask("alpha"));
    EXPECT_TRUE(module.UnRegisterTask("beta"));
    ASSERT_TRUE(module.Deliver("alpha"));
    EXPECT_EQ(module.m_freed, 2);
    EXPECT_EQ(engine.GetRetiredPolicyCount(), 0u);
}

TEST(RuntimeTest, TaskStartCancelAndRestart) {
    Framework::Engine& engine = TestSupport::TestEngine();
    ProbeTask task("racer", ProbeTask::Mode::AwaitCancel);
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(engine.RegisterTask(&task, false));
        // Stop at varying points of the new thread's start.
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(i % 400);
        while (std::chrono::steady_clock::now() < until) {
        }
        ASSERT_TRUE(engine.UnRegisterTask("racer"));
        ASSERT_FALSE(task.m_missedCancel) << "iteration " << i;
        expected += "IRU";  // Run is called even when the stop came before the thread started
    }
    EXPECT_EQ(task.Events(), expected);
}

// A Run that returns by itself is taken down, told apart by the observer, and can be registered again.
TEST(RuntimeTest, TaskThatStopsByItselfIsTakenDownToldApartAndCanComeBack) {
    Framework::Engine& engine = TestSupport::TestEngine();
    std::mutex mutex;
    std::string seen;  // a line per event
    double waiterRan = 0;
    engine.SetTaskObserver([&](const Framework::Engine::TaskEvent& event) {
        std::lock_guard<std::mutex> lock(mutex);
        const bool started = event.kind == Framework::Engine::TaskEvent::Kind::Started;
        seen += (started ? "started " : "stopped ") + event.task + " [" + event.module;
        for (const std::string& key : event.keys) {
            seen += " " + key;
        }
        seen += event.byItself ? "] by itself\n" : "]\n";
        waiterRan = started ? waiterRan : event.runSeconds;
    });
    auto lines = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count(seen.begin(), seen.end(), '\n');
    };
    {
        ProbeTask quitter("quitter", ProbeTask::Mode::ReturnAtOnce);
        ProbeTask waiter("waiter", ProbeTask::Mode::AwaitCancel);
        CountingModule module("k9");
        for (const long count : {2, 4}) {
            ASSERT_TRUE(module.RegisterTask(&quitter, false));
            ASSERT_TRUE(
                WaitUntil([&] { return lines() == count && engine.FindTask("quitter") == nullptr; }, kWait));
        }
        EXPECT_EQ(quitter.Events(), "IRUIRU");
        ASSERT_TRUE(engine.RegisterTask(&waiter, false));
        ASSERT_TRUE(WaitUntil([&] { return lines() == 5; }, kWait));
        EXPECT_TRUE(engine.UnRegisterTask("waiter"));
    }
    engine.SetTaskObserver(nullptr);
    const std::string quitter =
        "started quitter [counting_k9 k9]\nstopped quitter [counting_k9 k9] by itself\n";
    EXPECT_EQ(seen, quitter + quitter + "started waiter []\nstopped waiter []\n");
    EXPECT_GT(waiterRan, 0.0);
}

TEST(RuntimeTest, MessageDelivery) {
    Framework::Engine& engine = TestSupport::TestEngine();
    std::atomic<int> freed{0};
    ProbeTask idle("idle", ProbeTask::Mode::AwaitCancel, 3);  // takes no message
    ProbeTask consumer("consumer", ProbeTask::Mode::Serve, 1000);
    ASSERT_TRUE(engine.RegisterTask(&idle, false) && engine.RegisterTask(&consumer, false));
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(idle.SendDirectMsg("idle", new CountedMessage(&freed)), i < 3) << i;
    }
    EXPECT_FALSE(idle.SendDirectMsg("nobody", new CountedMessage(&freed)));
    EXPECT_EQ(freed, 2);  // the one over the bound, and the undeliverable one
    for (int i = 0; i < 1000; ++i) {
        EXPECT_TRUE(idle.SendDirectMsg("consumer", new CountedMessage(&freed)));
    }
    EXPECT_TRUE(engine.UnRegisterTask("consumer"));  // most are still queued: drained, none lost
    EXPECT_EQ(consumer.m_handled, 1000);
    EXPECT_EQ(freed, 1002);
    EXPECT_TRUE(engine.UnRegisterTask("idle"));
    EXPECT_EQ(freed, 1005);  // never taken: deleted at teardown
}

TEST(TaskPolicyTest, ParseConditionTable) {
    TestSupport::RecordingChannel& log = TestSupport::CaptureLogs();
    const std::pair<const char*, int> cases[] = {
        // the delay afterwards; -1: rejected, 5 kept
        {"{}", 0},
        {R"({"start_delay_s":3600})", 3600},
        {R"({"start_delay_s":3601})", -1},
        {R"({"start_delay_s":"10"})", -1},
        {R"({"start_delay":1})", -1},
        {"[]", -1},
    };
    for (const auto& [text, delay] : cases) {
        PlainTaskPolicy policy("t");
        ASSERT_TRUE(policy.ParseCondition(R"({"start_delay_s":5})"));
        log.Clear();
        EXPECT_EQ(policy.ParseCondition(text), delay >= 0) << text;
        EXPECT_EQ(policy.GetCondition().startDelaySeconds, delay >= 0 ? delay : 5) << text;
        EXPECT_EQ(log.CountContaining("task_condition"), delay >= 0 ? 0u : 1u) << text;
    }
}

}  // namespace
}  // namespace FwTest
