#include "ComputeChain.h"
#include "ModuleTestSupport.h"
#include "PortScanPolicy.h"
#include "framework/Engine.h"
#include "framework/Task.h"

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <memory>
#include <string>

namespace {

using PortScanTest::Recorder;
using PortScanTest::TestEngine;

const char* const kSafeLine = "[PortScan] safe pkt found, safe(0)";
// What the classifiers leave in the alarm type when they decline.
const int kUntouched = -7;

// Stands in for the collection task: the classifiers only look it up by name and read its policy.
class FakeScanTask : public Framework::Task {
public:
    FakeScanTask() : Framework::Task("port_scan_task", "portscan_info_collect", 0, 16) {}
};

Engine::PacketNode Packet(const char* remote, int type, const std::string& flag) {
    Engine::PacketNode pkt{};
    pkt.localAddress.s_addr = inet_addr("10.9.9.9");
    pkt.localPort = 8080;
    pkt.remoteAddress.s_addr = inet_addr(remote);
    pkt.remotePort = 40000;
    pkt.type = type;
    pkt.flag = flag;
    return pkt;
}

struct ChainCase {
    const char* name;
    const char* remote;
    int type;
    const char* flag;
    int halfOpen;  // the half-open classifier's alarm type, or kUntouched when it declines
    int common;    // the same for the common classifier
    size_t safeLines;
};

class ChainTest : public ::testing::Test {
protected:
    void SetUp() override {
        Recorder().Clear();
        m_policy.reset(new Engine::PortScanTaskPolicy("port_scan_task"));
        ASSERT_TRUE(
            m_policy->Parse(R"({"monitor_list":[{"port":8080,"type":2}],"white_ip_list":"192.168.9.0/24",
                "task_condition":{}})"));
        m_task = new FakeScanTask;
        ASSERT_TRUE(TestEngine().RegisterTask(m_task, false));
        // Set after registration, which hands the task the policy of the current feature policies.
        m_task->SetTaskPolicy(m_policy.get());
    }

    void TearDown() override {
        TestEngine().UnRegisterTask("port_scan_task");
        m_task = nullptr;
    }

    std::unique_ptr<Engine::PortScanTaskPolicy> m_policy;
    Poco::AutoPtr<FakeScanTask> m_task;
};

class ChainTable : public ChainTest, public ::testing::WithParamInterface<ChainCase> {};

TEST_P(ChainTable, EachClassifier) {
    const ChainCase& c = GetParam();
    const Engine::PacketNode pkt = Packet(c.remote, c.type, c.flag);
    Engine::HFConnectChain halfOpen;
    Engine::CommonComputeChain common;

    int alarmType = kUntouched;
    EXPECT_EQ(c.halfOpen != kUntouched, halfOpen.handle(pkt, alarmType, 100));
    EXPECT_EQ(c.halfOpen, alarmType);
    alarmType = kUntouched;
    EXPECT_EQ(c.common != kUntouched, common.handle(pkt, alarmType, 100));
    EXPECT_EQ(c.common, alarmType);

    // Only the half-open classifier logs: its check line for every packet, the safe line once.
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Check port (8080), flag (" + std::string(c.flag) + ")"));
    EXPECT_EQ(c.safeLines, Recorder().Count(kSafeLine));
    EXPECT_EQ(1u + c.safeLines,
              Recorder().Texts(PortScanTest::kModuleLogger, Poco::Message::PRIO_WARNING).size());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ChainTable,
    ::testing::Values(ChainCase{"BareSynPrivate", "192.168.1.7", 0, "SYN", 2, 1, 0},
                      ChainCase{"SynAck", "10.1.2.3", 0, "SYN,ACK", kUntouched, 1, 0},
                      ChainCase{"SynUrg", "10.1.2.3", 0, "SYN,URG", kUntouched, 1, 0},
                      ChainCase{"Udp", "172.20.0.9", 1, "", kUntouched, 1, 0},
                      // A bare FIN or a null segment has no flag text.
                      ChainCase{"EmptyFlag", "10.0.0.5", 0, "", kUntouched, 1, 0},
                      ChainCase{"PublicSource", "8.8.8.8", 0, "SYN", kUntouched, kUntouched, 1},
                      ChainCase{"Above172Block", "172.32.0.1", 0, "SYN", kUntouched, kUntouched, 1},
                      ChainCase{"WhiteListed", "192.168.9.20", 0, "SYN", kUntouched, kUntouched, 1},
                      // Public UDP: the half-open classifier declines on the protocol, before any
                      // address test.
                      ChainCase{"PublicUdp", "8.8.4.4", 1, "", kUntouched, kUntouched, 0},
                      // Flag texts the packet parser never writes, tested as plain text.
                      ChainCase{"FinText", "10.0.0.5", 0, "FIN", 4, 1, 0},
                      ChainCase{"FinPshUrgText", "10.0.0.5", 0, "PSH,URG,FIN", 5, 1, 0},
                      ChainCase{"PshUrgAck", "10.0.0.5", 0, "PSH,URG,ACK", kUntouched, 1, 0}),
    [](const ::testing::TestParamInfo<ChainCase>& info) { return std::string(info.param.name); });

TEST_F(ChainTest, ClassifiersMarkTheTaskActive) {
    Engine::HFConnectChain halfOpen;
    Engine::CommonComputeChain common;
    int alarmType = 0;

    const uint64_t before = m_task->GetActivityCount();
    common.handle(Packet("10.0.0.5", 1, ""), alarmType, 100);
    EXPECT_EQ(before + 1, m_task->GetActivityCount());
    halfOpen.handle(Packet("10.0.0.5", 0, "SYN"), alarmType, 100);
    EXPECT_EQ(before + 2, m_task->GetActivityCount());
    // UDP is turned away before the task is looked up.
    halfOpen.handle(Packet("10.0.0.5", 1, ""), alarmType, 100);
    EXPECT_EQ(before + 2, m_task->GetActivityCount());
}

TEST(ComputeChainBase, DeclinesEverything) {
    Engine::ComputeChain base;
    int alarmType = kUntouched;
    EXPECT_FALSE(base.handle(Packet("192.168.1.7", 0, "SYN"), alarmType, 100));
    EXPECT_EQ(kUntouched, alarmType);
    EXPECT_EQ(nullptr, base.next);
}

TEST(ComputeChainWithoutTask, BothDecline) {
    Recorder().Clear();
    ASSERT_EQ(nullptr, TestEngine().FindTask("port_scan_task"));
    Engine::HFConnectChain halfOpen;
    Engine::CommonComputeChain common;
    int alarmType = kUntouched;

    EXPECT_FALSE(halfOpen.handle(Packet("192.168.1.7", 0, "SYN"), alarmType, 100));
    EXPECT_FALSE(common.handle(Packet("192.168.1.7", 0, "SYN"), alarmType, 100));
    EXPECT_EQ(kUntouched, alarmType);
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Check port (8080), flag (SYN)"));
    EXPECT_EQ(0u, Recorder().Count(kSafeLine));
}

TEST(ComputeChainWithoutTask, TaskWithoutItsPolicyDeclines) {
    Recorder().Clear();
    Poco::AutoPtr<FakeScanTask> task(new FakeScanTask);
    ASSERT_TRUE(TestEngine().RegisterTask(task, false));
    Engine::HFConnectChain halfOpen;
    Engine::CommonComputeChain common;
    int alarmType = kUntouched;

    EXPECT_FALSE(halfOpen.handle(Packet("192.168.1.7", 0, "SYN"), alarmType, 100));
    EXPECT_FALSE(common.handle(Packet("192.168.1.7", 0, "SYN"), alarmType, 100));
    EXPECT_EQ(kUntouched, alarmType);
    EXPECT_EQ(0u, Recorder().Count(kSafeLine));
    TestEngine().UnRegisterTask("port_scan_task");
}

}  // namespace
