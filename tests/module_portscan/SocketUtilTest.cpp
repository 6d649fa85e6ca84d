#include "SockTestSupport.h"
#include "SocketUtil.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

using Engine::PacketNode;
using Engine::RouteTable;
using Engine::SocketUtil;
using SockTest::BuildFrame;
using SockTest::FrameFields;
using SockTest::LogTap;

namespace {

std::string Dotted(in_addr address) {
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof(text));
    return text;
}

// The capture task hands the parser its 100-byte receive buffer.
std::vector<char> InBuffer(const std::vector<char>& frame, size_t size = 100) {
    std::vector<char> buffer(size, 0);
    memcpy(buffer.data(), frame.data(), std::min(size, frame.size()));
    return buffer;
}

// ---- GetTcpFlag ----------------------------------------------------------------------------

TEST(SocketUtilTcpFlag, NamesInFixedOrderWithoutFin) {
    const std::pair<unsigned char, const char*> cases[] = {
        {0x00, ""},
        {0x01, ""},
        {0x02, "SYN"},
        {0x04, "RST"},
        {0x08, "PSH"},
        {0x10, "ACK"},
        {0x20, "URG"},
        {0x11, "ACK"},
        {0x12, "SYN,ACK"},
        {0x18, "PSH,ACK"},
        {0x29, "PSH,URG"},
        {0xC0, ""},
        {0x3F, "SYN,RST,PSH,ACK,URG"},
        {0xFF, "SYN,RST,PSH,ACK,URG"},
    };
    // One byte off the natural alignment, as headers sit inside captured frames.
    alignas(8) unsigned char storage[1 + sizeof(tcphdr)] = {};
    for (const auto& c : cases) {
        storage[1 + 13] = c.first;
        EXPECT_EQ(SocketUtil::GetTcpFlag(reinterpret_cast<const tcphdr*>(storage + 1)), c.second)
            << std::hex << static_cast<int>(c.first);
    }
}

// ---- ParsePacket ---------------------------------------------------------------------------

TEST(SocketUtilParsePacket, SynToPort22) {
    LogTap log;
    FrameFields fields;  // 10.0.0.5:40000 -> 10.0.0.1:22, SYN
    auto buffer = InBuffer(BuildFrame(fields));
    PacketNode node{};
    ASSERT_TRUE(SocketUtil::ParsePacket(buffer.data(), buffer.size(), &node));
    EXPECT_EQ(Dotted(node.localAddress), "10.0.0.1");
    EXPECT_EQ(node.localPort, 22);
    EXPECT_EQ(Dotted(node.remoteAddress), "10.0.0.5");
    EXPECT_EQ(node.remotePort, 40000);
    EXPECT_EQ(node.type, 0);
    EXPECT_EQ(node.flag, "SYN");

    auto lines = log.Root();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(
        lines[0].text,
        "[SocketUtil] GET PACKET localAddress 10.0.0.1, RemoteAddress 10.0.0.5, LocalPort 22, RemotePort "
        "40000, type 0, flag is [SYN]");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_DEBUG);
    EXPECT_EQ(lines[0].file, "SocketUtil.cpp");
    EXPECT_TRUE(log.Module().empty());
}

TEST(SocketUtilParsePacket, FramesTable) {
    struct Case {
        const char* what;
        FrameFields fields;
        uint16_t localPort;
        uint16_t remotePort;
        int type;
        const char* flag;
    };
    std::vector<Case> cases;
    FrameFields all;
    all.tcpFlags = 0x3F;
    cases.push_back({"all six flags", all, 22, 40000, 0, "SYN,RST,PSH,ACK,URG"});
    FrameFields udp;
    udp.protocol = IPPROTO_UDP;
    udp.srcPort = 53;
    udp.dstPort = 161;
    cases.push_back({"udp clears the flag", udp, 161, 53, 1, ""});
    FrameFields options;
    options.ihl = 6;
    options.dstPort = 8080;
    options.tcpFlags = 0x12;
    cases.push_back({"ihl 6", options, 8080, 40000, 0, "SYN,ACK"});
    FrameFields longest;
    longest.ihl = 15;
    longest.srcPort = 1;
    longest.dstPort = 65535;
    longest.tcpFlags = 0x10;
    cases.push_back({"ihl 15", longest, 65535, 1, 0, "ACK"});

    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        auto buffer = InBuffer(BuildFrame(c.fields));
        PacketNode node{};
        node.flag = "SYN";  // left over from an earlier frame in a reused record
        ASSERT_TRUE(SocketUtil::ParsePacket(buffer.data(), buffer.size(), &node));
        EXPECT_EQ(node.localPort, c.localPort);
        EXPECT_EQ(node.remotePort, c.remotePort);
        EXPECT_EQ(node.type, c.type);
        EXPECT_EQ(node.flag, c.flag);
    }
}

TEST(SocketUtilParsePacket, UnknownProtocolStillWritesAddresses) {
    LogTap log;
    FrameFields icmp;
    icmp.protocol = IPPROTO_ICMP;
    icmp.src = "192.168.3.4";
    icmp.dst = "192.168.3.1";
    auto buffer = InBuffer(BuildFrame(icmp));
    PacketNode node{};
    node.localPort = 7;
    node.remotePort = 8;
    node.type = 1;
    node.flag = "keep";
    EXPECT_FALSE(SocketUtil::ParsePacket(buffer.data(), buffer.size(), &node));
    EXPECT_EQ(Dotted(node.localAddress), "192.168.3.1");
    EXPECT_EQ(Dotted(node.remoteAddress), "192.168.3.4");
    EXPECT_EQ(node.localPort, 7);
    EXPECT_EQ(node.remotePort, 8);
    EXPECT_EQ(node.type, 1);
    EXPECT_EQ(node.flag, "keep");
    auto lines = log.Root();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "[SocketUtil] Get unknown protocol packet.");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
}

TEST(SocketUtilParsePacket, ShortestFrameParsedOneShorterRefusedAfterPause) {
    LogTap log;
    FrameFields udp;
    udp.protocol = IPPROTO_UDP;
    udp.dstPort = 514;
    std::vector<char> exact = BuildFrame(udp);  // 14 + 20 + 8 bytes, nothing behind it
    ASSERT_EQ(exact.size(), 42u);
    PacketNode node{};
    ASSERT_TRUE(SocketUtil::ParsePacket(exact.data(), exact.size(), &node));
    EXPECT_EQ(node.localPort, 514);
    EXPECT_EQ(node.type, 1);

    log.Clear();
    PacketNode untouched{};
    untouched.localPort = 9;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(SocketUtil::ParsePacket(exact.data(), 41, &untouched));
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(950));
    EXPECT_EQ(untouched.localPort, 9);
    EXPECT_EQ(untouched.localAddress.s_addr, 0u);
    auto lines = log.Root();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "[SocketUtil] Incomplete header, packet corrupt.");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_DEBUG);
}

// ---- CheckHeader and the socket-diagnostics reply ------------------------------------------

std::vector<char> Header(uint32_t length, uint16_t type, size_t bufferSize) {
    std::vector<char> buffer(std::max<size_t>(bufferSize, sizeof(nlmsghdr)), 0);
    nlmsghdr header{};
    header.nlmsg_len = length;
    header.nlmsg_type = type;
    memcpy(buffer.data(), &header, sizeof(header));
    return buffer;
}

TEST(SocketUtilCheckHeader, ClassifiesFirstHeaderOnly) {
    struct Case {
        const char* what;
        uint32_t nlmsgLen;
        uint16_t type;
        int length;
        bool ok;
        int result;        // starting from 7
        const char* line;  // debug line, if any
    };
    const Case cases[] = {
        {"done, 16 bytes", 16, NLMSG_DONE, 16, true, 7, nullptr},
        {"done, 15 bytes", 16, NLMSG_DONE, 15, false, 7, "[-] Nothing return in check port"},
        {"header length 15", 15, NLMSG_DONE, 16, false, 7, "[-] Nothing return in check port"},
        {"header longer than data", 40, SOCK_DIAG_BY_FAMILY, 32, false, 7,
         "[-] Nothing return in check port"},
        {"socket found", 88, SOCK_DIAG_BY_FAMILY, 88, true, 0, nullptr},
        {"socket found, more behind", 88, SOCK_DIAG_BY_FAMILY, 200, true, 0, nullptr},
        {"error reply", 36, NLMSG_ERROR, 36, false, 7, "[-] NLSMG ERROR"},
        {"other type", 16, 99, 16, false, 7, "[-] Unexpected Type"},
    };
    LogTap log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        log.Clear();
        auto buffer = Header(c.nlmsgLen, c.type, 256);
        int result = 7;
        EXPECT_EQ(SocketUtil::CheckHeader(reinterpret_cast<const nlmsghdr*>(buffer.data()), c.length, result),
                  c.ok);
        EXPECT_EQ(result, c.result);
        auto lines = log.Module();
        if (c.line == nullptr) {
            EXPECT_TRUE(lines.empty());
        } else {
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].text, c.line);
            EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_DEBUG);
        }
    }

    // Two messages in one buffer: the second is never looked at.
    auto first = Header(88, SOCK_DIAG_BY_FAMILY, 88);
    auto second = Header(20, NLMSG_ERROR, 20);
    first.insert(first.end(), second.begin(), second.end());
    int result = 1;
    EXPECT_TRUE(SocketUtil::CheckHeader(reinterpret_cast<const nlmsghdr*>(first.data()), 108, result));
    EXPECT_EQ(result, 0);
    auto done = Header(20, NLMSG_DONE, 20);
    auto found = Header(88, SOCK_DIAG_BY_FAMILY, 88);
    done.insert(done.end(), found.begin(), found.end());
    result = 1;
    EXPECT_TRUE(SocketUtil::CheckHeader(reinterpret_cast<const nlmsghdr*>(done.data()), 108, result));
    EXPECT_EQ(result, 1);
}

class DatagramPair : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, m_fds), 0); }
    void TearDown() override {
        close(m_fds[0]);
        close(m_fds[1]);
    }
    void Send(const std::vector<char>& data) {
        ASSERT_EQ(send(m_fds[0], data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    }
    int m_fds[2] = {-1, -1};
};

TEST_F(DatagramPair, QueryReplies) {
    LogTap log;
    int result = 5;
    Send(Header(16, NLMSG_DONE, 16));
    EXPECT_TRUE(SocketUtil::RecvNetLinkMsgQuery(m_fds[1], result, 0));
    EXPECT_EQ(result, 1);

    result = 5;
    Send(Header(88, SOCK_DIAG_BY_FAMILY, 88));
    EXPECT_TRUE(SocketUtil::RecvNetLinkMsgQuery(m_fds[1], result, 1));
    EXPECT_EQ(result, 0);

    result = 5;
    Send({});
    EXPECT_FALSE(SocketUtil::RecvNetLinkMsgQuery(m_fds[1], result, 0));
    EXPECT_EQ(result, 1);
    EXPECT_EQ(LogTap::Texts(log.Module()),
              std::vector<std::string>{"[SocketUtil] Nothing return in check port"});

    log.Clear();
    result = 5;
    EXPECT_FALSE(SocketUtil::RecvNetLinkMsgQuery(-1, result, 0));
    EXPECT_EQ(result, 1);
    EXPECT_FALSE(SocketUtil::SendNetlinkMsgQuery(-1, 22, 0, SOCK_DIAG_BY_FAMILY));
    auto lines = log.Module();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "[SocketUtil] Error in Recv msg in check port");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
    EXPECT_EQ(lines[1].text, "[SocketUtil] Send netlink msg err!");
    EXPECT_EQ(lines[1].priority, Poco::Message::PRIO_ERROR);
}

// ---- Route dump reply ------------------------------------------------------------------------

struct Attribute {
    uint16_t type;
    std::vector<uint8_t> data;
};

std::vector<uint8_t> Word(uint32_t value) {
    std::vector<uint8_t> bytes(4);
    memcpy(bytes.data(), &value, 4);
    return bytes;
}

std::vector<char> RouteMessage(uint8_t family, uint8_t table, uint8_t dstLen,
                               const std::vector<Attribute>& attributes) {
    std::vector<char> message(NLMSG_LENGTH(sizeof(rtmsg)), 0);
    for (const auto& attribute : attributes) {
        rtattr header{};
        header.rta_len = static_cast<unsigned short>(RTA_LENGTH(attribute.data.size()));
        header.rta_type = attribute.type;
        std::vector<char> encoded(RTA_SPACE(attribute.data.size()), 0);
        memcpy(encoded.data(), &header, sizeof(header));
        memcpy(encoded.data() + RTA_LENGTH(0), attribute.data.data(), attribute.data.size());
        message.insert(message.end(), encoded.begin(), encoded.end());
    }
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(message.size());
    header.nlmsg_type = RTM_NEWROUTE;
    rtmsg route{};
    route.rtm_family = family;
    route.rtm_table = table;
    route.rtm_dst_len = dstLen;
    memcpy(message.data(), &header, sizeof(header));
    memcpy(message.data() + NLMSG_HDRLEN, &route, sizeof(route));
    return message;
}

TEST_F(DatagramPair, RouteRecordsUntilAnUnnamedInterface) {
    char name[IF_NAMESIZE] = {};
    ASSERT_NE(if_indextoname(1, name), nullptr) << "loopback index 1 expected";
    const uint32_t gateway = inet_addr("192.168.1.1");
    const uint32_t net = inet_addr("192.168.1.0");
    // A nested metrics attribute: its first word is the header of the MTU entry inside it.
    std::vector<uint8_t> metrics = {8, 0, RTAX_MTU, 0};
    const auto mtu = Word(1400);
    metrics.insert(metrics.end(), mtu.begin(), mtu.end());

    std::vector<char> reply;
    for (const auto& message : {
             RouteMessage(AF_INET, RT_TABLE_MAIN, 0, {{RTA_GATEWAY, Word(gateway)}, {RTA_OIF, Word(1)}}),
             RouteMessage(AF_INET, RT_TABLE_LOCAL, 32,
                          {{RTA_DST, Word(inet_addr("192.168.1.7"))}, {RTA_OIF, Word(1)}}),
             RouteMessage(AF_INET, RT_TABLE_MAIN, 24,
                          {{RTA_DST, Word(net)},
                           {RTA_PRIORITY, Word(100)},
                           {RTA_OIF, Word(1)},
                           {RTA_METRICS, metrics}}),
             RouteMessage(AF_INET6, RT_TABLE_LOCAL, 64, {{RTA_OIF, Word(1)}}),
             RouteMessage(AF_INET, RT_TABLE_MAIN, 16, {{RTA_DST, Word(net)}}),
             RouteMessage(AF_INET, RT_TABLE_MAIN, 8, {{RTA_OIF, Word(1)}}),
         }) {
        reply.insert(reply.end(), message.begin(), message.end());
    }
    Send(reply);

    LogTap log;
    RouteTable sentinel{};
    sentinel.ifName = "before";
    std::vector<RouteTable> table{sentinel};
    sockaddr_nl address{};
    EXPECT_TRUE(SocketUtil::RecvNetlinkMsg(m_fds[1], &address, table));
    ASSERT_EQ(table.size(), 4u);
    EXPECT_EQ(table[0].ifName, "before");

    EXPECT_EQ(table[1].dstLen, 0);
    EXPECT_EQ(table[1].dst, 0u);
    EXPECT_EQ(table[1].gateway, gateway);
    EXPECT_EQ(table[1].ifIndex, 1);
    EXPECT_EQ(table[1].ifName, name);
    EXPECT_EQ(table[1].metrics, 0);

    EXPECT_EQ(table[2].dstLen, 24);
    EXPECT_EQ(table[2].dst, net);
    EXPECT_EQ(table[2].gateway, 0u);
    EXPECT_EQ(table[2].metrics, 8 | (RTAX_MTU << 16));

    // Only IPv4 routes are filtered by table.
    EXPECT_EQ(table[3].dstLen, 64);

    auto lines = log.Module();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "[PortScan] Do action (GetInterfaceName) fail!");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
}

TEST_F(DatagramPair, RouteWalkStopsAtBrokenLengths) {
    auto good = RouteMessage(AF_INET, RT_TABLE_MAIN, 0, {{RTA_OIF, Word(1)}});
    auto claimsMore = good;
    uint32_t tooLong = 4096;
    memcpy(claimsMore.data(), &tooLong, 4);
    auto reply = good;
    reply.insert(reply.end(), claimsMore.begin(), claimsMore.end());
    Send(reply);
    Send(Header(8, RTM_NEWROUTE, 64));

    std::vector<RouteTable> table;
    sockaddr_nl address{};
    EXPECT_TRUE(SocketUtil::RecvNetlinkMsg(m_fds[1], &address, table));
    EXPECT_EQ(table.size(), 1u);
    EXPECT_TRUE(SocketUtil::RecvNetlinkMsg(m_fds[1], &address, table));
    EXPECT_EQ(table.size(), 1u);
    EXPECT_TRUE(SocketUtil::RecvNetlinkMsg(-1, &address, table));
    EXPECT_EQ(table.size(), 1u);
}

// ---- Capture socket failures ---------------------------------------------------------------

TEST(SocketUtilCapture, BindFailureCountsDown) {
    LogTap log;
    EXPECT_LT(SocketUtil::BindPort(-1, "lo"), 0);
    std::vector<std::string> expected;
    for (int left = 10; left >= 1; --left) {
        expected.push_back("[PortScan] BindPort return ERR! Retry (" + std::to_string(left) + ") times");
    }
    EXPECT_EQ(LogTap::Texts(log.Module()), expected);
    for (const auto& line : log.Module()) {
        EXPECT_EQ(line.priority, Poco::Message::PRIO_ERROR);
    }
}

TEST(SocketUtilCapture, FilterRefusals) {
    LogTap log;
    EXPECT_FALSE(SocketUtil::LoadPortBpfRules(-1, {22, 80}));
    EXPECT_EQ(LogTap::Texts(log.Module()), std::vector<std::string>{"[SocketUtil] Cant set filter"});

    // Refused before any attach is tried: no "Cant set filter" line.
    log.Clear();
    EXPECT_FALSE(SocketUtil::LoadPortBpfRules(-1, std::vector<long>(300, 1000)));
    auto lines = log.Module();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.rfind("[SocketUtil] Too many ports or addresses for the filter", 0), 0u)
        << lines[0].text;
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
}

}  // namespace
