#include "CollectPortInfoTask.h"
#include "ModuleTestSupport.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "framework/Engine.h"
#include "framework/Policy.h"
#include "framework/Task.h"

#include <Poco/Logger.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using PortScanTest::kRootLogger;
using PortScanTest::Recorder;
using PortScanTest::TestEngine;

// An empty monitor list keeps the real collection task from opening any socket.
const std::string kOn =
    R"({"feature_name":"portscan","content":{"port_scan_task":{"monitor_list":[],"task_condition":{}}}})";
const std::string kOff =
    R"({"feature_name":"portscan","content":{"is_feature_enable":false,"port_scan_task":{}}})";
const char* const kCloseLine = "Port scan module close!";
const char* const kRefreshLine = "Start to refresh portscan.json";

// Drives the module through its policy callback directly, holding the policies it returns the
// way the runtime would, so that what the module itself does with the task stays observable.
class ModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        TestEngine();
        Recorder().Clear();
        m_module.reset(new Engine::PortScanModule);
        ASSERT_EQ(0, m_module->Init());
    }

    void TearDown() override {
        m_module->UnInit();
        EXPECT_EQ(nullptr, TestEngine().FindTask("port_scan_task"));
        // Policies go only once no task can read them; the module goes last and takes its task along.
        m_policies.clear();
        m_module.reset();
    }

    Engine::PortScanPolicy* Refresh(const std::string& content) {
        Framework::Policy* previous = m_policies.empty() ? nullptr : m_policies.back().get();
        Framework::Policy* result = m_module->RefreshFeaturePolicy("portscan.json", content, previous);
        m_policies.emplace_back(result);
        return dynamic_cast<Engine::PortScanPolicy*>(result);
    }

    Framework::Task* RunningTask() { return TestEngine().FindTask("port_scan_task"); }

    size_t RootInfoLines(const std::string& text) {
        size_t count = 0;
        for (const std::string& line : Recorder().Texts(kRootLogger, Poco::Message::PRIO_INFORMATION)) {
            count += line == text ? 1 : 0;
        }
        return count;
    }

    std::unique_ptr<Engine::PortScanModule> m_module;
    std::vector<std::unique_ptr<Framework::Policy>> m_policies;
};

TEST_F(ModuleTest, FirstPolicyOffCreatesNoTask) {
    Engine::PortScanPolicy* policy = Refresh(kOff);
    ASSERT_NE(nullptr, policy);
    EXPECT_FALSE(policy->IsPortScanEnable());
    EXPECT_EQ("portscan", policy->GetName());
    EXPECT_EQ(nullptr, RunningTask());
    EXPECT_EQ(1u, RootInfoLines(kRefreshLine));
    EXPECT_EQ(1u, RootInfoLines(kCloseLine));
}

TEST_F(ModuleTest, SecondEnablingPolicyLeavesTheRunningTaskAlone) {
    Engine::PortScanPolicy* first = Refresh(kOn);
    ASSERT_TRUE(first->IsPortScanEnable());
    Framework::Task* task = RunningTask();
    ASSERT_NE(nullptr, task);
    EXPECT_NE(nullptr, dynamic_cast<Engine::CollectPortInfoTask*>(task));
    EXPECT_EQ(first, task->GetFeaturePolicy());

    Engine::PortScanPolicy* second = Refresh(kOn);
    EXPECT_TRUE(first->IsReplaced());
    EXPECT_FALSE(second->IsReplaced());
    EXPECT_EQ(task, RunningTask());
    // Not handed the new policy: the runtime delivers policies to running tasks.
    EXPECT_EQ(first, task->GetFeaturePolicy());
    EXPECT_EQ(2u, RootInfoLines(kRefreshLine));
    EXPECT_EQ(0u, RootInfoLines(kCloseLine));
}

TEST_F(ModuleTest, EnableDisableEnableRegistersTheSameTaskAgain) {
    Refresh(kOn);
    Framework::Task* task = RunningTask();
    ASSERT_NE(nullptr, task);

    Refresh(kOff);
    EXPECT_EQ(nullptr, RunningTask());
    EXPECT_EQ(1u, RootInfoLines(kCloseLine));

    Engine::PortScanPolicy* newest = Refresh(kOn);
    EXPECT_EQ(task, RunningTask());
    EXPECT_EQ(newest, task->GetFeaturePolicy());
}

TEST_F(ModuleTest, PolicyThatDoesNotParseTurnsTheFeatureOff) {
    Refresh(kOn);
    ASSERT_NE(nullptr, RunningTask());

    Engine::PortScanPolicy* broken = Refresh("not a policy");
    ASSERT_NE(nullptr, broken);
    EXPECT_FALSE(broken->IsPortScanEnable());
    EXPECT_TRUE(m_policies.front()->IsReplaced());
    EXPECT_EQ(nullptr, RunningTask());
    EXPECT_EQ(1u, RootInfoLines(kCloseLine));
    EXPECT_EQ(1u, Recorder().Count("Parse Json Error"));
}

TEST_F(ModuleTest, RootLoggerAtWarningWritesNeitherLine) {
    Poco::Logger* root = Engine::PortScan::GetRootLoggerPtr();
    const int level = root->getLevel();
    root->setLevel(Poco::Message::PRIO_WARNING);
    Refresh(kOn);
    Refresh(kOff);
    root->setLevel(level);

    EXPECT_EQ(0u, Recorder().Count(kRefreshLine));
    EXPECT_EQ(0u, Recorder().Count(kCloseLine));
    EXPECT_EQ(nullptr, RunningTask());
}

TEST(PortScanModuleEntry, CreateModuleGivesTheNamedModule) {
    std::unique_ptr<Framework::Module> module(CreateModule());
    ASSERT_NE(nullptr, module);
    EXPECT_STREQ("portscan_module", module->name());
    EXPECT_NE(nullptr, dynamic_cast<Engine::PortScanModule*>(module.get()));
}

TEST(PortScanModuleEntry, PoliciesDeliveredByTheRuntimeReachTheTask) {
    Framework::Engine& engine = TestEngine();
    Recorder().Clear();
    Engine::PortScanModule module;
    engine.AddModule(&module);
    ASSERT_EQ(0, module.Init());
    EXPECT_TRUE(module.HasPolicyCallback("10001"));

    ASSERT_TRUE(engine.DeliverPolicy("10001", "portscan.json", kOn));
    Framework::Task* task = engine.FindTask("port_scan_task");
    ASSERT_NE(nullptr, task);
    EXPECT_EQ(engine.GetCurrentPolicy("10001"), task->GetFeaturePolicy());
    EXPECT_NE(nullptr, dynamic_cast<Engine::PortScanTaskPolicy*>(task->GetTaskPolicy()));

    ASSERT_TRUE(engine.DeliverPolicy("10001", "portscan.json", kOff));
    EXPECT_EQ(nullptr, engine.FindTask("port_scan_task"));

    module.UnInit();
    EXPECT_FALSE(module.HasPolicyCallback("10001"));
    EXPECT_FALSE(engine.DeliverPolicy("10001", "portscan.json", kOn));
    EXPECT_EQ(nullptr, engine.FindTask("port_scan_task"));
    engine.ReleasePolicies(&module);
    engine.RemoveModule(&module);
}

}  // namespace
