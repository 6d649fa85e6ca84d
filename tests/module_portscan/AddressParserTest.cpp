// Address arithmetic, white lists, the parser's length guard: what the fuzz targets' references do not judge.

#include "IPUtil.h"
#include "SocketUtil.h"
#include "TestFrames.h"
#include "framework/ConfigManager.h"

#include <chrono>
#include <memory>
#include <tuple>
#include <vector>

using Engine::IPUtil;

namespace {

unsigned int Host(const char* dotted) {
    return ntohl(inet_addr(dotted));  // "255.255.255.255" is inet_addr's error value, all ones as well
}

TEST(PortScanAddress, TransforIp) {
    // text, first and last address of the block; null: refused.
    const char* const cases[][3] = {
        {"10.1.2.3/255.255.255.255", "10.1.2.3", "10.1.2.3"},
        {"10.1.2.3/255.0.255.0", "10.0.0.0", "10.255.255.255"},  // leading ones only: /8
        {"\t 192.168.7.9/24 ", "192.168.7.0", "192.168.7.255"},
        {"255.255.255.255", nullptr, nullptr},
        {"10.0.0.1/33", nullptr, nullptr},
        {"10.0.0.1/abc", nullptr, nullptr},
    };
    for (const auto& c : cases) {
        for (int end : {1, 2}) {
            unsigned int value = 7;
            EXPECT_EQ(c[end] != nullptr, IPUtil::transfor_ip(c[0], end == 1, &value)) << c[0] << end;
            EXPECT_EQ(c[end] != nullptr ? Host(c[end]) : 7u, value) << c[0] << end;
        }
    }
}

TEST(PortScanAddress, TransforIp6) {
    // text, first and last address; "": refused.
    const std::string cases[][3] = {
        {"::/0", "", std::string(32, 'f')},
        {"2001:db8::/129", "", ""},
        {"2001:db8::/-1", "", ""},
    };
    for (const auto& c : cases) {
        for (int end : {1, 2}) {
            std::string value = "untouched";
            EXPECT_EQ(!c[end].empty(), Engine::transfor_ip6(c[0].c_str(), end == 1, value)) << c[0] << end;
            EXPECT_EQ(c[end].empty() ? "untouched" : c[end], value) << c[0] << end;
        }
    }
    EXPECT_EQ(1, Engine::ascii_to_hex('G'));  // any non-digit counts as 1
}

TEST(PortScanWhiteList, ParseAndMatch) {
    using Ranges = std::vector<std::pair<unsigned int, unsigned int>>;
    // list, its ranges (none: refused), an address and whether the list holds it
    const std::tuple<const char*, Ranges, const char*, bool> cases[] = {
        {"all", {{0u, 0xFFFFFFFFu}}, "255.255.255.255", false},
        {"ALL", {}, "10.0.0.1", false},
        {"any", {}, "10.0.0.1", false},
        {",,,", {}, "10.0.0.1", false},
    };
    for (const auto& [list, expected, probe, white] : cases) {
        SCOPED_TRACE(list);
        std::vector<Engine::IP_RANGE> ranges{{1, 2}};
        EXPECT_EQ(!expected.empty(), IPUtil::parse_ip_ranges(list, ranges));
        Ranges parsed;
        for (const auto& range : ranges) {
            parsed.emplace_back(range.start, range.end);
        }
        EXPECT_EQ(expected, parsed);
        EXPECT_EQ(white, IPUtil::IsWhiteIpList(probe, ranges));
    }
}

TEST(PortScanParser, HeadersEndingPastTheLengthAreRefused) {
    // protocol, IPv4 header words, bytes taken off the end of the frame, parsed
    const std::tuple<int, int, std::size_t, bool> cases[] = {
        {IPPROTO_TCP, 6, 7, false},   // the flag byte is the first missing one
        {IPPROTO_TCP, 6, 6, true},    // ends at the flag byte
        {IPPROTO_UDP, 15, 5, false},  // the destination port is cut
        {IPPROTO_UDP, 15, 4, true},
        {IPPROTO_UDP, 5, 1, false},  // 41 bytes: below the shortest frame, refused after a pause
        {IPPROTO_TCP, 15, 0, true},  // the longest IP header
    };
    for (const auto& [protocol, ihl, cut, parsed] : cases) {
        SCOPED_TRACE(std::to_string(ihl) + " words, cut " + std::to_string(cut));
        const std::string full = Frame("10.0.0.5", "10.0.0.1", protocol, 8080, 40000, 0, 0, ihl);
        // An exact-size copy, so a read past its end is a heap overflow under the sanitizers.
        const std::size_t length = full.size() - cut;
        std::unique_ptr<char[]> exact(new char[length]);
        memcpy(exact.get(), full.data(), length);
        Engine::PacketNode node{{0}, 9, {0}, 0, 9, "old"};
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(parsed, Engine::SocketUtil::ParsePacket(exact.get(), length, &node));
        if (length < 42) {
            EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(950));
        }
        EXPECT_EQ(std::make_tuple(parsed ? 8080 : 9, parsed ? 40000 : 0,
                                  parsed ? (protocol == IPPROTO_TCP ? "SYN" : "") : "old"),
                  std::make_tuple(int(node.localPort), int(node.remotePort), node.flag));
        EXPECT_EQ(parsed ? inet_addr("10.0.0.1") : 0u, node.localAddress.s_addr);  // untouched when refused
    }
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
    const std::pair<const char*, bool> loopback[] = {
        {"::1", true}, {"127.0.0.1", true}, {"localhost", false}, {"127.0.0.2", false}};
    for (const auto& [text, yes] : loopback) {
        EXPECT_EQ(yes, IPUtil::is_localhost_ip(text)) << text;
    }

    const std::tuple<std::vector<std::string>, bool, std::vector<unsigned int>> masters[] = {
        {{"10.0.0.5:443", "manager.example:443"}, false, {0x0A000005u}},
        {{"10.0.0.300:80"}, true, {Host("10.0.1.44")}},  // octets above 255 spill over
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
