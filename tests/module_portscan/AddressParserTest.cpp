// Address arithmetic, white lists, the frame parsers, the IPv6 filter's bounds: what the fuzz targets'
// references do not judge.

#include "IPUtil.h"
#include "SocketUtil.h"
#include "TestFrames.h"
#include "framework/ConfigManager.h"

#include <linux/filter.h>
#include <linux/if_ether.h>

#include <chrono>
#include <memory>
#include <tuple>
#include <vector>

using Engine::IPUtil;
using Engine::SocketUtil;

namespace {

// Either end of a block, IPv4 or IPv6 ("": refused, the result untouched): the mask forms, prefixes out of
// range and the /0 block, which the fuzz reference does not judge.
TEST(PortScanAddress, BlockEndsAndRefusedLists) {
    const std::string cases[][3] = {
        {"10.1.2.3/255.255.255.255", "10.1.2.3", "10.1.2.3"},
        {"10.1.2.3/255.0.255.0", "10.0.0.0", "10.255.255.255"},  // leading ones only: /8
        {"255.255.255.255", "", ""},
        {"10.0.0.1/33", "", ""},
        {"10.0.0.1/abc", "", ""},
        {"::/0", "", std::string(32, 'f')},
        {"2001:db8::/129", "", ""},
        {"2001:db8::/-1", "", ""},
    };
    for (const auto& c : cases) {
        for (int end : {1, 2}) {
            std::string got = "untouched";
            unsigned int value = 7;
            const bool ok = c[0].find(':') != std::string::npos
                                ? Engine::transfor_ip6(c[0].c_str(), end == 1, got)
                                : IPUtil::transfor_ip(c[0].c_str(), end == 1, &value);
            if (value != 7) {
                got = inet_ntoa(in_addr{htonl(value)});
            }
            EXPECT_EQ(!c[end].empty(), ok) << c[0] << end;
            EXPECT_EQ(c[end].empty() ? "untouched" : c[end], got) << c[0] << end;
        }
    }
    EXPECT_EQ(1, Engine::ascii_to_hex('G'));  // any non-digit counts as 1
    // Only the lower-case keyword stands for every address; a list of empty pieces names none.
    for (const char* list : {"ALL", ",,,"}) {
        std::vector<Engine::IP_RANGE> ranges;
        EXPECT_FALSE(IPUtil::parse_ip_ranges(list, ranges)) << list;
    }
}

// Each frame as an exact-size copy, so a read past its end is a heap overflow under the sanitizers.
TEST(PortScanParser, FramesOfBothFamilies) {
    // source (its family picks the parser), protocol or next header, IPv4 header words, length (0: the
    // headers), a 16-bit field set at an offset (12: the ethertype), type (-1: refused, untouched), flag
    const std::tuple<const char*, int, int, size_t, size_t, unsigned, int, const char*> cases[] = {
        {"10.0.0.5", IPPROTO_TCP, 6, 52, 12, ETH_P_IP, 0, "SYN"},    // ends at the flag byte
        {"10.0.0.5", IPPROTO_UDP, 15, 77, 12, ETH_P_IP, -1, "old"},  // the destination port is cut
        {"10.0.0.5", IPPROTO_UDP, 15, 78, 12, ETH_P_IP, 1, ""},
        {"10.0.0.5", IPPROTO_UDP, 5, 41, 12, ETH_P_IP, -1, "old"},  // below the shortest frame: after a pause
        {"fd00:78::2", IPPROTO_TCP, 5, 0, 12, ETH_P_IPV6, 0, "SYN"},
        {"fd00:78::2", IPPROTO_UDP, 5, 0, 12, ETH_P_IPV6, 1, ""},  // the shortest
        {"fd00:78::2", IPPROTO_UDP, 5, 61, 12, ETH_P_IPV6, -1, "old"},
        {"fd00:78::2", IPPROTO_TCP, 5, 73, 12, ETH_P_IPV6, -1, "old"},
        {"fd00:78::2", 44, 5, 74, 12, ETH_P_IPV6, -1, "old"},        // an extension header (fragment)
        {"fd00:78::2", IPPROTO_TCP, 5, 0, 12, ETH_P_IP, -1, "old"},  // the IPv4 ethertype
        {"fd00:78::2", IPPROTO_TCP, 5, 0, 14, 0x4000, -1, "old"},    // version 4
    };
    for (const auto& [src, protocol, ihl, length, at, value, type, flag] : cases) {
        const bool v6 = strchr(src, ':') != nullptr, ok = type >= 0;
        std::string frame = Frame(src, v6 ? "fd00:78::1" : "10.0.0.1", protocol, 8080, 40000, length, 0, ihl);
        SCOPED_TRACE(std::string(src) + " " + std::to_string(protocol) + ", " + std::to_string(frame.size()));
        frame[at] = static_cast<char>(value >> 8), frame[at + 1] = static_cast<char>(value);
        std::unique_ptr<char[]> exact(new char[frame.size()]);
        memcpy(exact.get(), frame.data(), frame.size());
        Engine::PacketNode node{{0}, 9, {0}, 0, 9, "old"};  // a reused record
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(ok, v6 ? SocketUtil::ParsePacket6(exact.get(), frame.size(), &node)
                         : SocketUtil::ParsePacket(exact.get(), frame.size(), &node));
        if (frame.size() < 42) {
            EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(950));
        }
        EXPECT_EQ(
            std::make_tuple(ok && v6, ok ? 8080 : 9, ok ? 40000 : 0, ok ? type : 9, std::string(flag)),
            std::make_tuple(node.isIpv6, int(node.localPort), int(node.remotePort), node.type, node.flag));
        EXPECT_EQ(ok && v6 ? "fd00:78::1 fd00:78::2" : ":: ::",
                  IPUtil::Ip6Text(node.localAddress6) + " " + IPUtil::Ip6Text(node.remoteAddress6));
    }
}

// The kernel test runs the filter over a hundred addresses; the bounds are refused here.
TEST(PortScanIpv6Filter, ListsPastTheKernelsReachAreRefused) {
    auto addresses = [](size_t count) { return std::vector<in6_addr>(count, in6addr_loopback); };
    std::vector<sock_filter> program;
    // Past the kernel's length limit, or a port test whose jump to the accept needs 9 bits: refused.
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(226), {2501, 2500}, program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(227), {2501, 2500}, program));
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(256, 2501), program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(addresses(1), std::vector<long>(257, 2501), program));
}

TEST(PortScanLocalAddress, EdgeRows) {
    const std::tuple<const char*, const char*, int, bool> nets[] = {
        {"10.231.0.7", "10.231.0.0", 24, true}, {"10.231.1.7", "10.231.0.0", 24, false},
        {"10.1.2.3", "10.1.2.3", 0, true},      {"10.1.2.4", "10.1.2.3", 0, false},  // /0: equal only
        {"10.1.2.3", "10.1.2.3", 33, false},
    };
    for (const auto& [ip, net, prefix, in] : nets) {
        EXPECT_EQ(in, IPUtil::CheckIpNet(inet_addr(ip), inet_addr(net), prefix)) << ip << " " << net;
    }
    const std::tuple<std::vector<std::string>, bool, std::vector<unsigned int>> masters[] = {
        {{"10.0.0.5:443", "manager.example:443"}, false, {0x0A000005u}},
        {{"10.0.0.300:80"}, true, {0x0A00012Cu}},  // octets above 255 spill over
    };
    auto* config = Framework::ConfigManager::GetInstance();
    for (const auto& [endpoints, ok, expected] : masters) {
        config->SetConnectConfig(endpoints);
        std::vector<unsigned int> list;
        EXPECT_EQ(ok, IPUtil::GetMasterIpList(list)) << endpoints[0];
        EXPECT_EQ(expected, list) << endpoints[0];
    }
    config->SetConnectConfig({});
}

}  // namespace
