// The runtime: policies handed over and reclaimed, tasks started, cancelled and observed, messages
// delivered, policy reads racing replacements; also built under ThreadSanitizer (make test-tsan).
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "sdk/StrUtils.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"
#include "support/TestEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using namespace TestSupport;

class PlainTaskPolicy : public Framework::TaskPolicy {
public:
    using TaskPolicy::TaskPolicy;
    bool Parse(const std::string&) override { return true; }
};

// Holds a task policy for each comma-separated task name of its text.
class CountedPolicy : public Framework::FeaturePolicy {
public:
    CountedPolicy(const std::string& text, std::atomic<int>* freed)
        : FeaturePolicy("counted"), m_freed(freed) {
        for (const std::string& name : SDK::StrUtils::Split(text, ",")) {
            Add(new PlainTaskPolicy(name));
        }
    }
    ~CountedPolicy() override { ++*m_freed; }
    bool Parse(const std::string&) override { return true; }
    std::atomic<int>* m_freed;
};

// Serves feature key `key` with CountedPolicy while it exists.
class CountingModule : public Framework::Module {
public:
    explicit CountingModule(const std::string& key) : Module("counting_" + key), m_key(key) {
        RegisterPolicyCallback(key,
                               new Framework::PolicyCallback<CountingModule>(this, &CountingModule::Make));
        TestEngine().AddModule(this);
    }
    ~CountingModule() override {
        UnInit();
        TestEngine().ReleasePolicies(this);
        TestEngine().RemoveModule(this);
    }
    Framework::Policy* Make(const std::string&, const std::string& text, Framework::Policy*&) {
        return new CountedPolicy(text, &m_freed);
    }
    bool Deliver(const std::string& text) { return TestEngine().DeliverPolicy(m_key, "p", text); }
    CountedPolicy* Current() { return dynamic_cast<CountedPolicy*>(TestEngine().GetCurrentPolicy(m_key)); }
    std::atomic<int> m_freed{0};
    std::string m_key;
};

// Records "I", "R", "U" as its hooks run; AwaitCancel flags a cancel not seen within 10 s.
class ProbeTask : public Framework::Task {
public:
    enum class Mode { Serve, AwaitCancel, ReturnAtOnce };
    explicit ProbeTask(const std::string& name, Mode mode = Mode::Serve, std::size_t queueSize = 16)
        : Task(name, "probe", 0, queueSize), m_mode(mode) {}
    bool Init() override {
        Events("I");
        m_initPolicy = GetTaskPolicy();
        return true;
    }
    int Run() override {
        Events("R");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (m_mode == Mode::AwaitCancel && !isCancelled() &&
               !(m_missedCancel = std::chrono::steady_clock::now() > deadline)) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return m_mode == Mode::Serve ? Task::Run() : 0;
    }
    bool UnInit() override {
        Events("U");
        return true;
    }
    bool HandleMsg(Framework::Message*) override {
        MarkActivity();
        ++m_handled;
        return true;
    }
    // Appends `event` to the record and returns the whole record.
    std::string Events(const char* event = "") {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events += event;
    }

    const Mode m_mode;
    std::atomic<int> m_handled{0};
    std::atomic<bool> m_missedCancel{false};
    std::atomic<Framework::TaskPolicy*> m_initPolicy{nullptr};

private:
    std::mutex m_mutex;
    std::string m_events;
};

constexpr Millis kWait(10000);

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
    Framework::Engine& engine = TestEngine();
    ProbeTask alpha("alpha"), beta("beta");
    CountingModule module("k1");  // declared last: its end unregisters the tasks before they go
    ASSERT_TRUE(module.RegisterTask(&alpha, false));
    ASSERT_TRUE(module.Deliver("alpha,beta"));
    CountedPolicy* first = module.Current();
    ASSERT_NE(first, nullptr);
    // The callback's result is current; its child reaches a running task at once...
    EXPECT_EQ(alpha.GetTaskPolicy(), first->FindChild("alpha"));
    // ...and a task that registers later before its Init.
    ASSERT_TRUE(module.RegisterTask(&beta, false));
    EXPECT_EQ(beta.m_initPolicy.load(), first->FindChild("beta"));
    Mark(alpha);  // both run now
    Mark(beta);

    ASSERT_TRUE(module.Deliver("alpha,beta"));
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
    Framework::Engine& engine = TestEngine();
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
    Framework::Engine& engine = TestEngine();
    std::mutex mutex;
    std::string seen;  // a line per event
    double waiterRan = 0;
    engine.SetTaskObserver([&](const Framework::Engine::TaskEvent& event) {
        std::lock_guard<std::mutex> lock(mutex);
        const bool started = event.kind == Framework::Engine::TaskEvent::Kind::Started;
        seen += (started ? "started " : "stopped ") + event.task + " [" + event.module + "]";
        seen += event.byItself ? " by itself\n" : "\n";
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
    const std::string quitter = "started quitter [counting_k9]\nstopped quitter [counting_k9] by itself\n";
    EXPECT_EQ(seen, quitter + quitter + "started waiter []\nstopped waiter []\n");
    EXPECT_GT(waiterRan, 0.0);
}

TEST(RuntimeTest, MessageDelivery) {
    Framework::Engine& engine = TestEngine();
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
    const std::pair<const char*, int> cases[] = {
        // the delay afterwards; -1: rejected, 5 kept
        {"{}", 0},
        {R"({"start_delay_s":3600})", 3600},
        {R"({"start_delay_s":3601})", -1},
        {R"({"start_delay_s":"10"})", -1},
        {"[]", -1},
    };
    for (const auto& [text, delay] : cases) {
        PlainTaskPolicy policy("t");
        ASSERT_TRUE(policy.ParseCondition(R"({"start_delay_s":5})"));
        EXPECT_EQ(policy.ParseCondition(text), delay >= 0) << text;
        EXPECT_EQ(policy.GetCondition().startDelaySeconds, delay >= 0 ? delay : 5) << text;
    }
}

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
    Framework::Engine& engine = TestEngine();
    CaptureLogs({}, "warning");  // keeps thousands of delivery lines off the console
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
    ASSERT_TRUE(WaitUntil([&] { return reader.m_reads > 0; }, kWait));
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
        WaitUntil([&] { return engine.ReclaimPolicies() + engine.GetRetiredPolicyCount() == 0; }, kWait));
}

}  // namespace
