// Address arithmetic, white lists and the packet parser's length guard, table by table: the forms
// and results the fuzz targets' references do not judge (mask forms, refusals, quirks); fuzz_address,
// fuzz_frame and fuzz_sockdiag judge plain blocks and lists, parsed frames and netlink headers. Rows
// are traced by their index.

#include "IPUtil.h"
#include "SocketUtil.h"
#include "framework/ConfigManager.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using Engine::IPUtil;

namespace {

const std::string kZeros(32, '0');
const std::string kOnes(32, 'f');

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
            SCOPED_TRACE(std::string(c[0]) + (end == 1 ? " start" : " end"));
            unsigned int value = 7;
            EXPECT_EQ(c[end] != nullptr, IPUtil::transfor_ip(c[0], end == 1, &value));
            EXPECT_EQ(c[end] != nullptr ? Host(c[end]) : 7u, value);
        }
    }
}

TEST(PortScanAddress, TransforIp6) {
    // text, first and last address; "": refused.
    const std::string cases[][3] = {
        {"::/0", "", kOnes},
        {"2001:db8::/129", "", ""},
        {"2001:db8::/-1", "", ""},
    };
    for (const auto& c : cases) {
        for (int end : {1, 2}) {
            SCOPED_TRACE(c[0] + (end == 1 ? " start" : " end"));
            std::string value = "untouched";
            EXPECT_EQ(!c[end].empty(), Engine::transfor_ip6(c[0].c_str(), end == 1, value));
            EXPECT_EQ(c[end].empty() ? "untouched" : c[end], value);
        }
    }
    EXPECT_EQ(1, Engine::ascii_to_hex('G'));  // any non-digit counts as 1
}

TEST(PortScanWhiteList, ParseAndMatch) {
    struct Case {
        const char* list;
        std::vector<std::pair<unsigned int, unsigned int>> ranges;
        const char* probe;
        bool white;
    };
    const Case cases[] = {
        {"all", {{0u, 0xFFFFFFFFu}}, "255.255.255.255", false},
        {"ALL", {}, "10.0.0.1", false},
        {"any", {}, "10.0.0.1", false},
        {",,,", {}, "10.0.0.1", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<Engine::IP_RANGE> ranges{{1, 2}};
        EXPECT_EQ(!c.ranges.empty(), IPUtil::parse_ip_ranges(c.list, ranges));
        std::vector<std::pair<unsigned int, unsigned int>> parsed;
        for (const auto& range : ranges) {
            parsed.emplace_back(range.start, range.end);
        }
        EXPECT_EQ(c.ranges, parsed);
        EXPECT_EQ(c.white, IPUtil::IsWhiteIpList(c.probe, ranges));
    }
}

// Ethernet + IPv4 (ihl words, options as NOPs) + a TCP, UDP or ICMP header, 10.0.0.5:40000 ->
// 10.0.0.1:8080.
std::vector<char> Frame(int protocol, int ihl, int flags) {
    std::vector<char> frame(14 + 4 * ihl + (protocol == IPPROTO_TCP ? 20 : 8), 1);
    frame[14] = static_cast<char>(0x40 | ihl);
    frame[23] = static_cast<char>(protocol);
    const in_addr_t addresses[] = {inet_addr("10.0.0.5"), inet_addr("10.0.0.1")};
    memcpy(&frame[26], addresses, 8);
    const uint16_t ports[] = {htons(40000), htons(8080)};
    memcpy(&frame[14 + 4 * ihl], ports, 4);
    if (protocol == IPPROTO_TCP) {
        frame[14 + 4 * ihl + 13] = static_cast<char>(flags);
    }
    return frame;
}

TEST(PortScanParser, HeadersEndingPastTheLengthAreRefused) {
    struct Case {
        int protocol, ihl;
        std::size_t cut;  // bytes taken off the end of the frame
        bool parsed;
    };
    const Case cases[] = {
        {IPPROTO_TCP, 6, 7, false},   // the flag byte is the first missing one
        {IPPROTO_TCP, 6, 6, true},    // ends at the flag byte
        {IPPROTO_UDP, 15, 5, false},  // the destination port is cut
        {IPPROTO_UDP, 15, 4, true},
        {IPPROTO_UDP, 5, 1, false},  // 41 bytes: below the shortest frame, refused after a pause
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        std::vector<char> full = Frame(c.protocol, c.ihl, 0x02);
        // An exact-size copy, so a read past its end is a heap overflow under the sanitizers.
        const std::size_t length = full.size() - c.cut;
        std::unique_ptr<char[]> exact(new char[length]);
        memcpy(exact.get(), full.data(), length);
        Engine::PacketNode node{{0}, 9, {0}, 0, 9, "old"};
        const auto before = std::chrono::steady_clock::now();
        EXPECT_EQ(c.parsed, Engine::SocketUtil::ParsePacket(exact.get(), length, &node));
        if (length < 42) {
            EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(950));
        }
        EXPECT_EQ(c.parsed ? 8080 : 9, int(node.localPort));
        EXPECT_EQ(c.parsed ? inet_addr("10.0.0.1") : 0u, node.localAddress.s_addr);  // untouched when refused
    }
    // The capture loop's zero-padded 100-byte buffer still reads a frame with the longest IP header.
    std::vector<char> frame = Frame(IPPROTO_TCP, 15, 0x02);
    frame.resize(100, 0);
    Engine::PacketNode node{};
    ASSERT_TRUE(Engine::SocketUtil::ParsePacket(frame.data(), frame.size(), &node));
    EXPECT_EQ(std::make_tuple(8080, 40000, std::string("SYN")),
              std::make_tuple(int(node.localPort), int(node.remotePort), node.flag));
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
    const std::pair<const char*, bool> intra[] = {{"10.255.255.255", true}, {"172.15.255.255", false},
                                                  {"172.31.255.255", true}, {"172.32.0.0", false},
                                                  {"192.168.0.0", true},    {"192.169.0.0", false}};
    for (const auto& [ip, yes] : intra) {
        EXPECT_EQ(yes, IPUtil::IsIntraIpList(in_addr{inet_addr(ip)})) << ip;
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
