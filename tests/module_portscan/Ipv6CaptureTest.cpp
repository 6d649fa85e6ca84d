// IPv6 capture without the kernel: the IPv6 frame parser, the IPv6 filter's bounds, and the policy
// keys "ipv6" and "white_ip6_list".

#include "IPUtil.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "SocketUtil.h"
#include "support/LogCapture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_ether.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

using Engine::SocketUtil;

TestSupport::RecordingChannel& ModuleLogs();  // PolicyModuleTest.cpp

namespace {

in6_addr Ip6(const char* text) {
    in6_addr address{};
    EXPECT_EQ(1, inet_pton(AF_INET6, text, &address)) << text;
    return address;
}

struct Frame6 {
    uint16_t etherType = ETH_P_IPV6;
    uint8_t version = 6, nextHeader = IPPROTO_TCP, flags = 0x02;
    const char *src = "fd00:78::2", *dst = "fd00:78::1";
    uint16_t port = 2501;
    size_t length = 74;  // Ethernet, IPv6 and TCP headers

    std::vector<unsigned char> Bytes() const {
        std::vector<unsigned char> frame(std::max<size_t>(length, 74), 0);
        frame[12] = etherType >> 8;
        frame[13] = etherType & 0xff;
        frame[14] = static_cast<unsigned char>(version << 4);
        frame[20] = nextHeader;
        const in6_addr addresses[] = {Ip6(src), Ip6(dst)};
        memcpy(&frame[22], addresses, 32);
        const uint16_t ports[] = {htons(40000), htons(port)};
        memcpy(&frame[54], ports, 4);
        frame[54 + 13] = flags;
        frame.resize(length);
        return frame;
    }
};

TEST(PortScanIpv6Parser, FramesTable) {
    struct Case {
        const char* what;
        Frame6 frame;
        int type;  // -1: refused, the record untouched
        const char* flag;
    };
    auto with = [](auto change) {
        Frame6 frame;
        change(frame);
        return frame;
    };
    const Case cases[] = {
        {"tcp syn", Frame6{}, 0, "SYN"},
        {"tcp syn ack", with([](Frame6& f) { f.flags = 0x12; }), 0, "SYN,ACK"},
        {"udp, shortest", with([](Frame6& f) { f.nextHeader = IPPROTO_UDP, f.length = 62; }), 1, ""},
        {"udp, one byte short", with([](Frame6& f) { f.nextHeader = IPPROTO_UDP, f.length = 61; }), -1,
         "old"},
        {"tcp, one byte short", with([](Frame6& f) { f.length = 73; }), -1, "old"},
        {"hop-by-hop options", with([](Frame6& f) { f.nextHeader = 0; }), -1, "old"},
        {"routing header", with([](Frame6& f) { f.nextHeader = 43; }), -1, "old"},
        {"fragment header", with([](Frame6& f) { f.nextHeader = 44; }), -1, "old"},
        {"destination options", with([](Frame6& f) { f.nextHeader = 60; }), -1, "old"},
        {"icmpv6", with([](Frame6& f) { f.nextHeader = 58; }), -1, "old"},
        {"ipv4 ethertype", with([](Frame6& f) { f.etherType = ETH_P_IP; }), -1, "old"},
        {"version 4 in an ipv6 frame", with([](Frame6& f) { f.version = 4; }), -1, "old"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::vector<unsigned char> bytes = c.frame.Bytes();
        Engine::PacketNode node{{0}, 9, {0}, 0, 9, "old"};  // a reused record
        const bool ok = c.type >= 0;
        EXPECT_EQ(ok,
                  SocketUtil::ParsePacket6(reinterpret_cast<const char*>(bytes.data()), bytes.size(), &node));
        EXPECT_EQ(
            std::make_tuple(ok, ok ? 2501 : 9, ok ? 40000 : 0, ok ? c.type : 9, std::string(c.flag)),
            std::make_tuple(node.isIpv6, int(node.localPort), int(node.remotePort), node.type, node.flag));
        EXPECT_EQ(ok ? "fd00:78::1" : "::", Engine::IPUtil::Ip6Text(node.localAddress6));
        EXPECT_EQ(ok ? "fd00:78::2" : "::", Engine::IPUtil::Ip6Text(node.remoteAddress6));
        EXPECT_EQ(0u, node.localAddress.s_addr | node.remoteAddress.s_addr);
    }
}

// The kernel test runs the filter over hundreds of addresses; the bounds are refused here.
TEST(PortScanIpv6Filter, ListsPastTheKernelsReachAreRefused) {
    auto& log = ModuleLogs();
    auto addresses = [](size_t count) { return std::vector<in6_addr>(count, Ip6("fd00:78::1")); };
    std::vector<sock_filter> program;
    // Past the kernel's length limit, or a port test whose jump to the accept needs 9 bits: refused.
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(226), {2501, 2500}, program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(227), {2501, 2500}, program));
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(256, 2501), program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(257, 2501), program));
    EXPECT_EQ(2u, log.CountContaining("[SocketUtil] Too many ports or addresses for the IPv6 filter"));
}

TEST(PortScanIpv6Policy, WhiteListParsedOrRefusedWhateverTheSwitch) {
    auto& log = ModuleLogs();
    const std::string refused = "[!] Parse policy failed in parse_ip6_ranges.";
    const struct {
        std::string extra;
        bool parsed, ipv6;
        size_t ranges;
    } cases[] = {
        {R"(,"ipv6":true,"white_ip6_list":"fd00:78::3, fe80::/64")", true, true, 2},
        {R"(,"white_ip6_list":"")", true, false, 0},  // an empty list is no list
        {R"(,"ipv6":true,"white_ip6_list":"nonsense")", false, true, 0},
        {R"(,"white_ip6_list":",,,")", false, false, 0},  // refused with "ipv6" off as well
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extra);
        log.Clear();
        Engine::PortScanTaskPolicy policy("port_scan_task");
        EXPECT_EQ(c.parsed, policy.Parse(R"({"monitor_list":[],"task_condition":{})" + c.extra + "}"));
        EXPECT_EQ(c.parsed ? 0u : 1u, log.Count(refused));
        if (c.parsed) {
            EXPECT_EQ(c.ipv6, policy.IsIpv6Enable());
            EXPECT_EQ(c.ranges, policy.GetWhiteIp6List().size());
        }
    }
}

}  // namespace
