// The task on a real capture socket, inside a network namespace the test creates (needs root).
// A thread moves into a fresh namespace whose loopback carries 10.77.0.1 and no other route; every
// socket is made on that thread. Frames from a foreign address are written onto that loopback
// through a second packet socket, so nothing leaves the namespace.

#include "TaskTestSupport.h"

#include "framework/ConfigManager.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

namespace {

using TaskTest::PolicyJson;
using TaskTest::Recorder;

class CollectNetnsTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root for a network namespace and a packet socket";
        }
        TaskFixture::SetUp();
        m_savedConnect = Framework::ConfigManager::GetInstance()->GetConnectConfig();
        Framework::ConfigManager::GetInstance()->SetConnectConfig({});
    }
    void TearDown() override {
        if (geteuid() == 0) {
            Framework::ConfigManager::GetInstance()->SetConnectConfig(m_savedConnect);
            TaskFixture::TearDown();
        }
    }

    static void InNamespace(const std::function<void()>& body) {
        std::thread worker([&body] {
            // Commands started from this thread inherit its namespace.
            if (unshare(CLONE_NEWNET) != 0 ||
                std::system("ip link set lo up && ip addr add 10.77.0.1/32 dev lo") != 0) {
                ADD_FAILURE() << "namespace set-up failed";
                return;
            }
            body();
        });
        worker.join();
    }

    static void Inject(const std::vector<char>& frame) {
        const int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IP);
        address.sll_ifindex = static_cast<int>(if_nametoindex("lo"));
        address.sll_halen = ETH_ALEN;
        // Ethernet, IPv4 and UDP headers: 42 bytes.
        EXPECT_EQ(42,
                  sendto(fd, frame.data(), 42, 0, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        close(fd);
    }

    std::vector<std::string> m_savedConnect;
};

TEST_F(CollectNetnsTest, CapturedProbeBecomesAnAlarm) {
    UsePolicy(
        PolicyJson(R"([{"port":4242,"type":2}])", R"(,"check_port_before_alarm":true,"alarm_max_num":0)"));
    RegisterScanStandIn();
    Poco::AutoPtr<TaskTest::ReportRecorder> reports(new TaskTest::ReportRecorder);
    TaskTest::ScopedRegistration registration(reports.get());

    InNamespace([this] {
        ASSERT_TRUE(m_task->MergeMonitorPort());
        ASSERT_TRUE(m_task->CheckSocketInfo());  // state 0: socket, filter, ready
        ASSERT_TRUE(Peer().SocketReady());
        EXPECT_EQ(MONITOR_LIST_NORMAL, Peer().MonitorStatus());
        EXPECT_EQ(0u, Recorder().Count("[PortScan] Binding master interface!"));
        // The filter drops the unwatched port; only the watched one reaches the task.
        Inject(TaskTest::BuildFrame("192.168.77.7", "10.77.0.1", 5353, 4243, 17));
        Inject(TaskTest::BuildFrame("192.168.77.7", "10.77.0.1", 5353, 4242, 17));
        int pktCount = 0;
        int errCount = 0;
        for (int wait = 0; wait < 5 && pktCount == 0; ++wait) {
            m_task->DoPortScan(errCount, pktCount);
        }
        ASSERT_GE(pktCount, 1);
    });

    EXPECT_EQ(0u, Recorder().Count("[PortScan] Port not found."));
    const Engine::PortInfoNode record = TaskTest::PolicyRecord(*m_policy, 4242, 1);
    ASSERT_FALSE(record.alarmInfos.empty());
    EXPECT_EQ("192.168.77.7", record.alarmInfos[0].remoteAddress);
    EXPECT_EQ("10.77.0.1", record.alarmInfos[0].localAddress);
    EXPECT_EQ("UDP", record.alarmInfos[0].protocol);

    m_task->SendPortAlarm();
    ASSERT_EQ(1u, reports->Messages().size());
    EXPECT_NE(std::string::npos, reports->Messages()[0].body.find(R"("remote_address":"192.168.77.7")"));
    EXPECT_TRUE(m_task->UnInit());
    EXPECT_EQ(-1, Peer().SockFd());
}

TEST_F(CollectNetnsTest, MasterInterfaceSwitchBindsNothingAndGoesOn) {
    UsePolicy(PolicyJson(R"([{"port":4242,"type":0}])", R"(,"only_master_interface":true)"));
    InNamespace([this] {
        ASSERT_TRUE(m_task->MergeMonitorPort());
        EXPECT_TRUE(m_task->PortCreated());
        EXPECT_TRUE(Peer().SocketReady());
    });
    // The completed route dump reads as a failure: the socket stays unbound and in use.
    const long binding = Recorder().IndexOf("[PortScan] Binding master interface!");
    ASSERT_GE(binding, 0);
    EXPECT_GT(Recorder().IndexOf("[PortScan] Do action (GetRouteTable) fail!"), binding);
    EXPECT_EQ(0u, Recorder().Count("[PortScan] bind master intf err!"));
}

}  // namespace
