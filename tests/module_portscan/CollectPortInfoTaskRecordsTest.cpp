// The port records, and the task's state after construction, Init and UnInit.

#include "TaskTestSupport.h"

#include <arpa/inet.h>

namespace {

using Engine::PortInfoNode;

in_addr Address(const char* text) {
    in_addr address{};
    address.s_addr = inet_addr(text);
    return address;
}

TEST(PortInfoNodeTest, CopyKeepsEverythingButAuxValue) {
    PortInfoNode source(443, 1);
    source.alarmNum = 3;
    source.ipNum = 2;
    source.pkgNum = 9;
    source.isUsed = true;
    source.auxValue = 5;
    source.alarmInfos.push_back({"TCP", "192.168.1.7", "10.0.0.1", 40000, "SYN", 2});
    source.remoteIps = {Address("192.168.1.7"), Address("10.1.1.1")};

    const PortInfoNode copy(source);
    EXPECT_EQ(0u, copy.auxValue);
    EXPECT_EQ(std::make_tuple(443u, 1u, 3, 2u, 9u, true),
              std::make_tuple(copy.port, copy.type, copy.alarmNum, copy.ipNum, copy.pkgNum, copy.isUsed));
    ASSERT_EQ(1u, copy.alarmInfos.size());
    EXPECT_EQ("192.168.1.7", copy.alarmInfos[0].remoteAddress);
    ASSERT_EQ(2u, copy.remoteIps.size());
    EXPECT_EQ(Address("10.1.1.1").s_addr, copy.remoteIps[1].s_addr);
}

// "port less OR type less", the second test made whatever the ports are.
TEST(PortInfoNodeTest, OrderingIsNotLexicographic) {
    struct Case {
        uint32_t aPort, aType, bPort, bType;
        bool aLess, bLess;
    };
    const Case cases[] = {
        {80, 0, 80, 0, false, false}, {80, 0, 80, 1, true, false},  {80, 0, 443, 0, true, false},
        {80, 1, 443, 0, true, true},  {443, 1, 80, 0, false, true},
    };
    for (const Case& c : cases) {
        const PortInfoNode a(c.aPort, c.aType);
        const PortInfoNode b(c.bPort, c.bType);
        EXPECT_EQ(c.aLess, a < b) << c.aPort << "/" << c.aType << " vs " << c.bPort << "/" << c.bType;
        EXPECT_EQ(c.bLess, b < a) << c.aPort << "/" << c.aType << " vs " << c.bPort << "/" << c.bType;
    }

    // A set keeps the first record of a key, and its own search can miss a present record.
    std::set<PortInfoNode> set;
    PortInfoNode first(80, 0);
    first.alarmNum = 1;
    EXPECT_TRUE(set.insert(first).second);
    EXPECT_FALSE(set.insert(PortInfoNode(80, 0)).second);
    EXPECT_EQ(1, set.begin()->alarmNum);
    set = {PortInfoNode(443, 0)};
    set.insert(PortInfoNode(80, 1));
    ASSERT_EQ(2u, set.size());
    EXPECT_EQ(set.end(), set.find(PortInfoNode(80, 1)));
}

TEST(ContainsIPTest, LinearSearchByValue) {
    const std::vector<in_addr> list = {Address("192.168.1.7"), Address("10.0.0.5")};
    EXPECT_TRUE(Engine::ContainsIP(list, Address("192.168.1.7")));
    EXPECT_TRUE(Engine::ContainsIP(list, Address("10.0.0.5")));
    EXPECT_FALSE(Engine::ContainsIP(list, Address("7.1.168.192")));
    EXPECT_FALSE(Engine::ContainsIP({}, Address("10.0.0.5")));
}

class CollectLifecycleTest : public TaskTest::TaskFixture {};

TEST_F(CollectLifecycleTest, ConstructionInitAndUnInit) {
    Engine::CollectPortInfoTask fresh;
    Engine::CollectPortInfoTaskPeer peer(fresh);
    EXPECT_EQ("port_scan_task", fresh.name());
    EXPECT_EQ("portscan_info_collect", fresh.GetGroup());
    EXPECT_EQ(0, fresh.GetType());
    EXPECT_EQ(1024u, fresh.GetQueueCapacity());
    EXPECT_EQ(
        "ban=1(0) set=0 ready=0 maxErr=100 banTime=86400 state=0 idle=0 running=0 firstRun=0 sock=0 epoll=0 "
        "tick=0",
        peer.Fields());
    EXPECT_EQ(nullptr, peer.Chain());

    ASSERT_TRUE(fresh.Init());
    EXPECT_EQ(
        "ban=0 set=0 ready=0 maxErr=100 banTime=86400 state=2 idle=0 running=1 firstRun=1 sock=-1 epoll=-1 "
        "tick=0",
        peer.Fields());
    ASSERT_NE(nullptr, dynamic_cast<Engine::HFConnectChain*>(peer.Chain()));
    ASSERT_NE(nullptr, dynamic_cast<Engine::CommonComputeChain*>(peer.Chain()->next));
    EXPECT_EQ(nullptr, peer.Chain()->next->next);

    peer.PortSet().insert(PortInfoNode(22, 0));
    peer.BanPortMap()[22] = 5;
    peer.MonitorStatus() = MONITOR_LIST_CHANGE;
    EXPECT_TRUE(fresh.UnInit());
    EXPECT_EQ(nullptr, peer.Chain());
    EXPECT_EQ(
        "ban=0 set=0 ready=0 maxErr=100 banTime=86400 state=2 idle=0 running=1 firstRun=1 sock=-1 epoll=-1 "
        "tick=0",
        peer.Fields());
    EXPECT_EQ(1u, TaskTest::Recorder().Count("[PortScan] Monitor port clear!"));
}

}  // namespace
