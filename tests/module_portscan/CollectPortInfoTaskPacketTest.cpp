// Packet handling: counting, classification, alarm records, freezing and release, and port
// occupancy against the real kernel on loopback.

#include "TaskTestSupport.h"

#include <arpa/inet.h>

namespace {

using Engine::PortInfoNode;
using TaskTest::MakePacket;
using TaskTest::PolicyJson;
using TaskTest::PolicyRecord;
using TaskTest::Recorder;

const char* const kPublicHost = "203.0.113.5";  // not private: never alarmed

class CollectPacketTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        UsePolicy(
            PolicyJson(R"([{"port":8080,"type":2}])",
                       R"(,"port_package_max_num":20,"port_ip_max_num":4,"white_ip_list":"10.9.0.0/16")"));
        RegisterScanStandIn();
    }
    void Probe(const char* remote, int type = 0, const char* flag = "SYN", unsigned short port = 8080) {
        m_task->HandlePacket(MakePacket("10.0.0.1", port, remote, 40000, type, flag), 100);
    }
    PortInfoNode Record(uint32_t type = 0) { return PolicyRecord(*m_policy, 8080, type); }
    bool Frozen() { return Peer().BanPortMap().count(8080) == 1; }
};

TEST_F(CollectPacketTest, ClassificationAndAlarmRecords) {
    struct Case {
        const char* remote;
        int type;
        const char* flag;
        int alarmType;         // -1: no alarm
        const char* protocol;  // of the alarm record
    };
    const Case cases[] = {
        {"192.168.1.7", 0, "SYN", 2, "TCP"}, {"10.1.2.3", 0, "SYN,ACK", 1, "TCP"},
        {"10.1.2.3", 0, "", 1, "TCP"},       {"172.20.0.9", 1, "", 1, "UDP"},
        {kPublicHost, 0, "SYN", -1, ""},     {"10.9.1.1", 0, "SYN", -1, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.remote) + " " + c.flag);
        const PortInfoNode before = Record(static_cast<uint32_t>(c.type));
        const std::string line =
            "[PortScan] Alarm found, port [8080], alarm type = [" + std::to_string(c.alarmType) + "]";
        const std::size_t linesBefore = Recorder().Count(line);
        Probe(c.remote, c.type, c.flag);
        const PortInfoNode after = Record(static_cast<uint32_t>(c.type));
        EXPECT_EQ(before.pkgNum + 1, after.pkgNum);
        const bool alarmed = c.alarmType > 0;
        EXPECT_EQ(before.alarmNum + (alarmed ? 1 : 0), after.alarmNum);
        EXPECT_EQ(linesBefore + (alarmed ? 1 : 0), Recorder().Count(line));
        ASSERT_EQ(before.alarmInfos.size() + (alarmed ? 1 : 0), after.alarmInfos.size());
        if (alarmed) {
            const Engine::AlarmInfo& info = after.alarmInfos.back();
            EXPECT_EQ(c.protocol, info.protocol);
            EXPECT_EQ(c.remote, info.remoteAddress);
            EXPECT_EQ("10.0.0.1", info.localAddress);
            EXPECT_EQ(40000, info.remotePort);
            EXPECT_EQ(c.flag, info.flag);
            EXPECT_EQ(c.alarmType, info.alarmType);
        }
    }
    EXPECT_EQ(2u, Record().ipNum);  // two distinct TCP hosts alarmed, one of them twice
    EXPECT_EQ(Poco::Message::PRIO_WARNING,
              Recorder().PriorityOf("[PortScan] Alarm found, port [8080], alarm type = [2]"));
}

TEST_F(CollectPacketTest, TwentyFirstPacketFreezesThePortOnce) {
    for (int i = 0; i < 20; ++i) {
        Probe(kPublicHost);
    }
    EXPECT_FALSE(Frozen());
    Probe(kPublicHost);
    EXPECT_EQ(21u, Record().pkgNum);
    ASSERT_TRUE(Frozen());
    EXPECT_EQ(kStart, Peer().BanPortMap()[8080]);
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, Recorder().PriorityOf("[PortScan] Freeze port [8080]"));

    m_clock->Advance(3600);  // frozen again: no line, the first time stays
    Probe(kPublicHost);
    m_task->FreezePort(8080);
    EXPECT_EQ(kStart, Peer().BanPortMap()[8080]);
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Freeze port [8080]"));
}

TEST_F(CollectPacketTest, FifthAlarmingHostFreezesThePort) {
    for (const char* host :
         {"192.168.1.1", "192.168.1.1", kPublicHost, "192.168.1.2", "192.168.1.3", "192.168.1.4"}) {
        Probe(host);
    }
    EXPECT_EQ(4u, Record().ipNum);
    EXPECT_EQ(5, Record().alarmNum);
    EXPECT_FALSE(Frozen());
    Probe("192.168.1.5");
    ASSERT_EQ(5u, Record().remoteIps.size());
    EXPECT_EQ(inet_addr("192.168.1.1"), Record().remoteIps[0].s_addr);
    EXPECT_EQ(inet_addr("192.168.1.5"), Record().remoteIps[4].s_addr);
    EXPECT_TRUE(Frozen());
}

TEST_F(CollectPacketTest, MonitoredRecordFollowsButNoneIsAddedOrCountedAmiss) {
    Peer().PortSet().insert(PortInfoNode(8080, 0));
    Probe("192.168.1.1");
    Probe("172.20.0.9", 1, "");  // (8080, UDP) is not monitored: not added
    ASSERT_EQ(1u, Peer().PortSet().size());
    ASSERT_EQ(1u, Peer().PortSet().begin()->alarmInfos.size());
    EXPECT_EQ(2, Peer().PortSet().begin()->alarmInfos[0].alarmType);

    Probe("192.168.1.1", 0, "SYN", 9999);
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Port not found."));
    // Without a chain the packet is not even written back.
    m_task->UnInit();
    Probe("192.168.1.1");
    EXPECT_EQ(1u, Record().pkgNum);
}

TEST_F(CollectPacketTest, FreeBanPortReleasesAfterAFullDayEitherWay) {
    for (long frozenAgo : {0L, 86340L, 86399L, 86400L, 200000L, -86399L, -86400L}) {
        SCOPED_TRACE(frozenAgo);
        Peer().BanPortMap() = {{8080u, kStart - frozenAgo}, {22u, kStart}};
        EXPECT_TRUE(m_task->FreeBanPort());
        EXPECT_EQ(frozenAgo >= 86400 || frozenAgo <= -86400, !Frozen());
        EXPECT_EQ(1u, Peer().BanPortMap().count(22));
    }
    EXPECT_EQ(7u, Recorder().Count("[PortScan] Free baned port."));
}

class CollectOccupancyTest : public TaskTest::TaskFixture {
protected:
    void UsePort(unsigned short port, bool checkFirst) {
        UsePolicy(PolicyJson("[{\"port\":" + std::to_string(port) + ",\"type\":2}]",
                             std::string(R"(,"port_package_max_num":3,"check_port_before_alarm":)") +
                                 (checkFirst ? "true" : "false")));
        RegisterScanStandIn();
    }
};

TEST_F(CollectOccupancyTest, KernelAnswersForLoopbackPorts) {
    TaskTest::LoopbackSocket tcp(SOCK_STREAM);
    TaskTest::LoopbackSocket udp(SOCK_DGRAM);
    const struct {
        unsigned short port;
        int protocol;
        int expected;
    } cases[] = {
        {tcp.Port(), 0, 0},
        {tcp.Port(), 1, 1},  // UDP asked about a TCP listener's port
        {udp.Port(), 1, 0},
        {TaskTest::FreeLoopbackPort(SOCK_STREAM), 0, 1},
        {TaskTest::FreeLoopbackPort(SOCK_DGRAM), 1, 1},
    };
    for (const auto& c : cases) {
        int status = 7;
        m_task->CheckPortStatus(c.port, status, c.protocol);
        EXPECT_EQ(c.expected, status) << c.port << "/" << c.protocol;
    }
}

TEST_F(CollectOccupancyTest, CheckSwitchedOffDropsAndAFreePortGoesOn) {
    const unsigned short port = TaskTest::FreeLoopbackPort(SOCK_DGRAM);
    const Engine::PacketNode pkt = MakePacket("127.0.0.1", port, "192.168.1.1", 40000, 1, "");
    UsePort(port, false);
    EXPECT_TRUE(m_task->CheckPortOccupied(pkt));
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, Recorder().PriorityOf("[PortScan] Chk before alarm is disable!"));
    UsePort(port, true);
    EXPECT_FALSE(m_task->CheckPortOccupied(pkt));
    EXPECT_EQ(0u, Recorder().Count("[PortScan] Port Occupied"));
    EXPECT_EQ(0u, PolicyRecord(*m_policy, port, 1).pkgNum);
}

TEST_F(CollectOccupancyTest, PortInUseIsCountedMarkedAndFrozenAtTheLimit) {
    TaskTest::LoopbackSocket listener;
    const unsigned short port = listener.Port();
    UsePort(port, true);
    const Engine::PacketNode pkt = MakePacket("127.0.0.1", port, "192.168.1.1", 40000, 0, "SYN");
    EXPECT_FALSE(m_task->IsPortOccupied(0, port));
    EXPECT_TRUE(m_task->CheckPortOccupied(pkt));
    PortInfoNode record = PolicyRecord(*m_policy, port, 0);
    EXPECT_TRUE(record.isUsed);
    EXPECT_EQ(1u, record.pkgNum);
    EXPECT_EQ(0, record.alarmNum);  // no classifier ran
    EXPECT_FALSE(PolicyRecord(*m_policy, port, 1).isUsed);

    listener.Close();  // the flag answers from now on, without the kernel
    EXPECT_TRUE(m_task->IsPortOccupied(0, port));
    EXPECT_TRUE(m_task->CheckPortOccupied(pkt));
    EXPECT_TRUE(m_task->CheckPortOccupied(pkt));
    EXPECT_TRUE(Peer().BanPortMap().empty());
    EXPECT_TRUE(m_task->CheckPortOccupied(pkt));  // fourth packet, limit 3
    EXPECT_EQ(1u, Peer().BanPortMap().count(port));
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Port recv pkts over max: 3, port [" + std::to_string(port) +
                                   "] freezed."));
    EXPECT_EQ(4u, Recorder().Count("[PortScan] Port Occupied"));
}

TEST_F(CollectOccupancyTest, MarkingTakesProtocolFirstAndIgnoresUnknownPairs) {
    UsePort(8080, false);
    m_task->PortOccupied(1, 9090);
    m_task->PortOccupied(5, 8080);
    for (const PortInfoNode& node : m_policy->GetPolicyPortSet()) {
        EXPECT_FALSE(node.isUsed);
    }
    EXPECT_EQ(2u, m_policy->GetPolicyPortSet().size());
    m_task->PortOccupied(1, 8080);
    EXPECT_TRUE(m_task->IsPortOccupied(1, 8080));
    EXPECT_FALSE(m_task->IsPortOccupied(0, 8080));
    EXPECT_FALSE(m_task->IsPortOccupied(1, 9090));
}

}  // namespace
