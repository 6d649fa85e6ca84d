// IPv6 capture without the kernel: the frame parser, the filter's bounds, "white_ip6_list".

#include "IPUtil.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "SocketUtil.h"
#include "TestFrames.h"
#include "support/LogCapture.h"

#include <linux/filter.h>
#include <linux/if_ether.h>

#include <tuple>
#include <vector>

using Engine::SocketUtil;

TestSupport::RecordingChannel& ModuleLogs();  // PolicyModuleTest.cpp

namespace {

TEST(PortScanIpv6Parser, FramesTable) {
    // next header, length, a 16-bit field set at an offset, type (-1: refused, untouched), flag
    const std::tuple<const char*, int, size_t, size_t, unsigned, int, const char*> cases[] = {
        {"syn", IPPROTO_TCP, 74, 12, ETH_P_IPV6, 0, "SYN"},
        {"syn ack", IPPROTO_TCP, 74, 66, 0x5012, 0, "SYN,ACK"},
        {"udp, shortest", IPPROTO_UDP, 62, 12, ETH_P_IPV6, 1, ""},
        {"udp, a byte short", IPPROTO_UDP, 61, 12, ETH_P_IPV6, -1, "old"},
        {"tcp, a byte short", IPPROTO_TCP, 73, 12, ETH_P_IPV6, -1, "old"},
        {"hop-by-hop", 0, 74, 12, ETH_P_IPV6, -1, "old"},
        {"routing", 43, 74, 12, ETH_P_IPV6, -1, "old"},
        {"fragment", 44, 74, 12, ETH_P_IPV6, -1, "old"},
        {"destination options", 60, 74, 12, ETH_P_IPV6, -1, "old"},
        {"icmpv6", 58, 74, 12, ETH_P_IPV6, -1, "old"},
        {"ipv4 ethertype", IPPROTO_TCP, 74, 12, ETH_P_IP, -1, "old"},
        {"version 4", IPPROTO_TCP, 74, 14, 0x4000, -1, "old"},
    };
    for (const auto& [what, nextHeader, length, at, value, type, flag] : cases) {
        SCOPED_TRACE(what);
        std::string frame = Frame("fd00:78::2", "fd00:78::1", nextHeader, 2501, 40000, length);
        frame[at] = static_cast<char>(value >> 8), frame[at + 1] = static_cast<char>(value);
        Engine::PacketNode node{{0}, 9, {0}, 0, 9, "old"};  // a reused record
        const bool ok = type >= 0;
        EXPECT_EQ(ok, SocketUtil::ParsePacket6(frame.data(), frame.size(), &node));
        EXPECT_EQ(
            std::make_tuple(ok, ok ? 2501 : 9, ok ? 40000 : 0, ok ? type : 9, std::string(flag)),
            std::make_tuple(node.isIpv6, int(node.localPort), int(node.remotePort), node.type, node.flag));
        EXPECT_EQ(ok ? "fd00:78::1" : "::", Engine::IPUtil::Ip6Text(node.localAddress6));
        EXPECT_EQ(ok ? "fd00:78::2" : "::", Engine::IPUtil::Ip6Text(node.remoteAddress6));
        EXPECT_EQ(0u, node.localAddress.s_addr | node.remoteAddress.s_addr);
    }
}

// The kernel test runs the filter over hundreds of addresses; the bounds are refused here.
TEST(PortScanIpv6Filter, ListsPastTheKernelsReachAreRefused) {
    auto& log = ModuleLogs();
    auto addresses = [](size_t count) { return std::vector<in6_addr>(count, in6addr_loopback); };
    std::vector<sock_filter> program;
    // Past the kernel's length limit, or a port test whose jump to the accept needs 9 bits: refused.
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(226), {2501, 2500}, program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(227), {2501, 2500}, program));
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(256, 2501), program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(257, 2501), program));
    EXPECT_EQ(2u, log.CountContaining("[SocketUtil] Too many ports or addresses for the IPv6 filter"));
}

// Refusals: PortScanPolicy.ResultsAndTheirLogLines.
TEST(PortScanIpv6Policy, WhiteListRanges) {
    for (const auto& [list, ranges] : {std::make_pair("fd00:78::3, fe80::/64", 2u), std::make_pair("", 0u)}) {
        Engine::PortScanTaskPolicy policy("port_scan_task");
        ASSERT_TRUE(policy.Parse(R"({"monitor_list":[],"task_condition":{},"white_ip6_list":")" +
                                 std::string(list) + "\"}"));
        EXPECT_EQ(ranges, policy.GetWhiteIp6List().size()) << list;  // an empty list is no list
    }
}

}  // namespace
