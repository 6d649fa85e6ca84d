#include <gtest/gtest.h>

#include <thread>

#include "TestSupport.h"

namespace FwTest {
namespace {

using Mode = ProbeTask::Mode;

TEST(TaskTest, RestartSameObjectRunsFreshEachTime) {
    Framework::Engine* engine = TheEngine();
    ProbeTask task("restart", Mode::SleepUntil);
    for (int round = 1; round <= 3; ++round) {
        ASSERT_TRUE(engine->RegisterTask(&task, false));
        EXPECT_EQ(engine->FindTask("restart"), &task);
        ASSERT_TRUE(WaitUntil([&] { return task.runs == round; }));
        EXPECT_FALSE(task.cancelledAtStart) << "round " << round;
        EXPECT_TRUE(engine->UnRegisterTask("restart"));
        EXPECT_EQ(engine->FindTask("restart"), nullptr);
        EXPECT_EQ(task.state(), Poco::Task::TASK_FINISHED);
    }
    EXPECT_EQ(task.Events(), "IRUIRUIRU");
    EXPECT_FALSE(engine->UnRegisterTask("restart"));  // absent: harmless
}

TEST(TaskTest, RefusedRegistrations) {
    Framework::Engine* engine = TheEngine();
    ProbeTask first("dup", Mode::SleepUntil);
    ProbeTask second("dup", Mode::SleepUntil);
    ASSERT_TRUE(engine->RegisterTask(&first, false));
    EXPECT_FALSE(engine->RegisterTask(&second, false));
    EXPECT_EQ(second.Events(), "");
    EXPECT_TRUE(engine->UnRegisterTask("dup"));

    ProbeTask failing("failing", Mode::SleepUntil);
    failing.initResult = false;
    EXPECT_FALSE(engine->RegisterTask(&failing, false));
    EXPECT_EQ(engine->FindTask("failing"), nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(failing.Events(), "I");
}

// A cancellation that arrives before Poco::Task::run() sets RUNNING must still reach a Run()
// that only polls state(); otherwise the unregister below would wait 2 s and flag a miss.
TEST(TaskTest, CancelRacingTheStartIsNeverLost) {
    Framework::Engine* engine = TheEngine();
    ProbeTask task("racer", Mode::PollState);
    for (int i = 0; i < 2000; ++i) {
        ASSERT_TRUE(engine->RegisterTask(&task, false));
        // Stop at varying points of the new thread's start (which takes up to some hundred µs).
        const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(i % 400);
        while (std::chrono::steady_clock::now() < until) {
        }
        ASSERT_TRUE(engine->UnRegisterTask("racer"));
        ASSERT_FALSE(task.missedCancel) << "iteration " << i;
    }
    std::string expected;
    for (int i = 0; i < 2000; ++i) {
        expected += "IRU";  // Run is called even when the stop came before the thread started
    }
    EXPECT_EQ(task.Events(), expected);
}

TEST(TaskTest, RunReturningByItselfIsTakenDownAndCanReturn) {
    Framework::Engine* engine = TheEngine();
    ProbeTask task("quitter", Mode::ReturnAtOnce);
    for (int round = 1; round <= 2; ++round) {
        TheLog()->Clear();
        ASSERT_TRUE(engine->RegisterTask(&task, false));
        ASSERT_TRUE(WaitUntil([&] { return task.Events().size() == 3u * round; }));
        ASSERT_TRUE(WaitUntil([&] { return engine->FindTask("quitter") == nullptr; }));
        const auto warnings = TheLog()->Lines(Poco::Message::PRIO_WARNING);
        ASSERT_EQ(warnings.size(), 1u);
        EXPECT_NE(warnings[0].find("quitter"), std::string::npos);
    }
    EXPECT_EQ(task.Events(), "IRUIRU");

    // Adopted: the runtime's reference is the last one, so the task is deleted after UnInit.
    std::atomic<int> destroyed{0};
    auto* adopted = new ProbeTask("adopted_quitter", Mode::ReturnAtOnce);
    adopted->destroyed = &destroyed;
    ASSERT_TRUE(engine->RegisterTask(adopted, true));
    ASSERT_TRUE(WaitUntil([&] { return destroyed == 1; }));
}

TEST(TaskTest, UnRegisterFromOwnRunAndDuringStartDelay) {
    Framework::Engine* engine = TheEngine();
    ProbeTask self("self_stopper", Mode::UnRegisterSelf);
    ASSERT_TRUE(engine->RegisterTask(&self, false));
    ASSERT_TRUE(WaitUntil([&] { return self.Events() == "IRU"; }));
    ASSERT_TRUE(WaitUntil([&] { return engine->FindTask("self_stopper") == nullptr; }));

    // An hour's start delay must not hold up an unregister.
    CountingModule module("delay_module", "kd");
    module.Init();
    engine->AddModule(&module);
    ASSERT_TRUE(engine->DeliverPolicy("kd", "p", R"({"tasks":{"sleeper":{"start_delay_s":3600}}})"));
    ProbeTask sleeper("sleeper", Mode::SleepUntil);
    ASSERT_TRUE(module.RegisterTask(&sleeper, false));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(engine->UnRegisterTask("sleeper"));
    EXPECT_EQ(sleeper.Events(), "IRU");
    EXPECT_TRUE(sleeper.cancelledAtStart);
    engine->ReleasePolicies(&module);
    engine->RemoveModule(&module);
}

TEST(TaskTest, BoundedQueueAndUndeliverableMessages) {
    Framework::Engine* engine = TheEngine();
    std::atomic<int> freed{0};
    ProbeTask idle("idle", Mode::SleepUntil, 3);
    EXPECT_FALSE(idle.EnqueueMsg(new CountedMessage("1", &freed)));  // not registered: refused
    EXPECT_EQ(freed, 1);
    ASSERT_TRUE(engine->RegisterTask(&idle, false));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(idle.SendDirectMsg("idle", new CountedMessage("1", &freed)));
    }
    EXPECT_FALSE(idle.SendDirectMsg("idle", new CountedMessage("1", &freed)));  // full
    EXPECT_EQ(freed, 2);
    EXPECT_EQ(idle.GetQueueLength(), 3u);
    idle.interceptType = "x";
    EXPECT_TRUE(idle.SendDirectMsg("idle", new CountedMessage("x", &freed)));  // intercepted
    EXPECT_EQ(freed, 3);
    EXPECT_FALSE(idle.SendDirectMsg("nobody", new CountedMessage("1", &freed)));
    EXPECT_EQ(freed, 4);
    EXPECT_TRUE(engine->UnRegisterTask("idle"));
    EXPECT_EQ(freed, 7);  // never taken: dropped at teardown, with a warning line
}

TEST(TaskTest, ConsumerDrainsEverythingItAcceptedWhenCancelled) {
    Framework::Engine* engine = TheEngine();
    for (int round = 0; round < 5; ++round) {
        std::atomic<int> freed{0};
        ProbeTask consumer("consumer", Mode::Consume, 64);
        ASSERT_TRUE(engine->RegisterTask(&consumer, false));
        std::atomic<int> accepted{0};
        std::atomic<int> sent{0};
        std::atomic<bool> producing{true};
        std::thread producer([&] {
            ProbeTask sender("sender", Mode::SleepUntil);
            for (int i = 0; i < 2000 && producing; ++i) {
                ++sent;
                if (sender.SendDirectMsg("consumer", new CountedMessage("2", &freed))) {
                    ++accepted;
                }
            }
            producing = false;
        });
        // Unregister at a different point of the flow each round.
        WaitUntil([&] { return sent > 300 * round || !producing; });
        EXPECT_TRUE(engine->UnRegisterTask("consumer"));
        producing = false;
        producer.join();
        EXPECT_EQ(consumer.handled.load(), accepted.load()) << "round " << round;
        EXPECT_EQ(consumer.GetQueueLength(), 0u);
        EXPECT_EQ(freed.load(), sent.load());  // every message deleted exactly once
    }
}

}  // namespace
}  // namespace FwTest
