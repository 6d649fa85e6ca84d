#include "IPUtil.h"
#include "SockTestSupport.h"
#include "framework/ConfigManager.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using Engine::IP6_RANGE;
using Engine::IP_RANGE;
using Engine::IPUtil;
using SockTest::HostOrder;
using SockTest::LogTap;

namespace {

const std::string kZeros(32, '0');
const std::string kOnes(32, 'f');
constexpr unsigned int kUntouched = 0xDEADBEEF;

// Network-order value of a dotted address, as packets and routes carry it.
unsigned int Net(const char* dotted) {
    return inet_addr(dotted);
}

// ---- transfor_ip / parse_mask --------------------------------------------------------------

struct TransforIpCase {
    const char* text;
    bool ok;
    unsigned int start;
    unsigned int end;
    const char* error;  // expected error line on failure
};

TEST(IPUtilTransforIp, BlockEnds) {
    const TransforIpCase cases[] = {
        {"10.1.2.3/8", true, HostOrder("10.0.0.0"), HostOrder("10.255.255.255"), nullptr},
        {"10.1.2.3/255.255.0.0", true, HostOrder("10.1.0.0"), HostOrder("10.1.255.255"), nullptr},
        {"0.0.0.0/0", true, 1u, 0xFFFFFFFFu, nullptr},
        {"10.1.2.3/0.0.0.0", true, 1u, 0xFFFFFFFFu, nullptr},
        {"10.1.2.3/32", true, HostOrder("10.1.2.3"), HostOrder("10.1.2.3"), nullptr},
        {"10.1.2.3/255.255.255.255", true, HostOrder("10.1.2.3"), HostOrder("10.1.2.3"), nullptr},
        {"10.1.2.3/31", true, HostOrder("10.1.2.2"), HostOrder("10.1.2.3"), nullptr},
        {"10.1.2.3/1", true, 0u, 0x7FFFFFFFu, nullptr},
        {"10.1.2.3/255.0.255.0", true, HostOrder("10.0.0.0"), HostOrder("10.255.255.255"), nullptr},
        {" 10.0.0.1 ", true, HostOrder("10.0.0.1"), HostOrder("10.0.0.1"), nullptr},
        {"\t192.168.7.9/24\n", true, HostOrder("192.168.7.0"), HostOrder("192.168.7.255"), nullptr},
        {"10.1", true, HostOrder("10.0.0.1"), HostOrder("10.0.0.1"), nullptr},
        {"0x0a000001", true, HostOrder("10.0.0.1"), HostOrder("10.0.0.1"), nullptr},
        {"255.255.255.255", false, 0, 0, "can not trans [255.255.255.255] to ip"},
        {"abc", false, 0, 0, "can not trans [abc] to ip"},
        {"", false, 0, 0, "can not trans [] to ip"},
        {"10.0.0.1/33", false, 0, 0, "invalid mask [33]"},
        {"10.0.0.1/-1", false, 0, 0, "invalid mask [-1]"},
        {"10.0.0.1/", false, 0, 0, "can not trans mask []"},
        {"10.0.0.1/x", false, 0, 0, "can not trans mask [x]"},
        {"10.0.0.1/abc", false, 0, 0, "can not trans [abc] to mask"},
    };
    LogTap log;
    ASSERT_TRUE(log.Ready());
    for (const auto& c : cases) {
        for (bool isStart : {true, false}) {
            SCOPED_TRACE(std::string(c.text) + (isStart ? " start" : " end"));
            log.Clear();
            unsigned int value = kUntouched;
            EXPECT_EQ(IPUtil::transfor_ip(c.text, isStart, &value), c.ok);
            if (c.ok) {
                EXPECT_EQ(value, isStart ? c.start : c.end);
                EXPECT_TRUE(log.Root().empty());
            } else {
                EXPECT_EQ(value, kUntouched);
                auto lines = log.Root();
                ASSERT_EQ(lines.size(), 1u);
                EXPECT_EQ(lines[0].text, c.error);
                EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
                EXPECT_EQ(lines[0].file, "IPUtil.cpp");
            }
        }
    }
    EXPECT_FALSE(IPUtil::transfor_ip(nullptr, true, nullptr));
}

TEST(IPUtilParseMask, PrefixLengths) {
    struct Case {
        const char* text;
        bool ok;
        int bits;
    };
    const Case cases[] = {
        {"0", true, 0},
        {"8", true, 8},
        {"32", true, 32},
        {"33", false, 0},
        {"-1", false, 0},
        {"x", false, 0},
        {"255.255.255.255", true, 32},
        {"0.0.0.0", true, 0},
        {"255.255.128.0", true, 17},
        {"255.255.255.254", true, 31},
        {"255.0.255.0", true, 8},
        {"128.0.0.0", true, 1},
        {"abc", false, 0},
        {"255.255.255.256", false, 0},
    };
    LogTap log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        int bits = -7;
        EXPECT_EQ(Engine::parse_mask(c.text, strlen(c.text), bits), c.ok);
        EXPECT_EQ(bits, c.ok ? c.bits : -7);
    }
}

// ---- IPv6 text -----------------------------------------------------------------------------

TEST(IPUtilTransforIp6, BlockEnds) {
    struct Case {
        const char* text;
        bool startOk;
        std::string start;
        bool endOk;
        std::string end;
    };
    const Case cases[] = {
        {"::1", true, kZeros.substr(1) + "1", true, kZeros.substr(1) + "1"},
        {" ::1 ", true, kZeros.substr(1) + "1", true, kZeros.substr(1) + "1"},
        {"2001:db8::/32", true, "20010db8" + kZeros.substr(8), true, "20010db8" + kOnes.substr(8)},
        {"2001:db8:ffff::/33", true, "20010db880000000" + kZeros.substr(16), true,
         "20010db8" + kOnes.substr(8)},
        {"2001:db8:1234:5678::/48", true, "20010db81234" + kZeros.substr(12), true,
         "20010db81234" + kOnes.substr(12)},
        {"fe80::/64", true, "fe80" + kZeros.substr(4), true, "fe80000000000000" + kOnes.substr(16)},
        {"2001:db8:0:0:1:2:3:4/96", true, "20010db8000000000001000200000000", true,
         "20010db80000000000010002ffffffff"},
        {"2001:db8::1/128", true, "20010db8" + kZeros.substr(8, 23) + "1", true,
         "20010db8" + kZeros.substr(8, 23) + "1"},
        {"::/0", false, "", true, kOnes},
        {"2001:db8::/129", false, "", false, ""},
        {"2001:db8::/200", false, "", false, ""},
        {"2001:db8::/-1", false, "", false, ""},
        {"zz::/64", false, "", false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string start = "untouched";
        std::string end = "untouched";
        EXPECT_EQ(Engine::transfor_ip6(c.text, true, start), c.startOk);
        EXPECT_EQ(start, c.startOk ? c.start : "untouched");
        EXPECT_EQ(Engine::transfor_ip6(c.text, false, end), c.endOk);
        EXPECT_EQ(end, c.endOk ? c.end : "untouched");
    }
}

TEST(IPUtilFormatIpv6, Normalisation) {
    struct Case {
        const char* text;
        std::string hex;
    };
    const Case cases[] = {
        {"::", kZeros},
        {"::1", kZeros.substr(1) + "1"},
        {"1::", "0001" + kZeros.substr(4)},
        {"fe80::1:2",
         "fe80"
         "00000000000000000000"
         "0001"
         "0002"},
        {"1:2::3:4", "00010002000000000000000000030004"},
        {"2001:DB8:0:0:8:800:200C:417A", "20010db80000000000080800200c417a"},
        {"1:2:3:4:5:6:7:8", "00010002000300040005000600070008"},
        {"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", kOnes},
        {"g::", "0001" + kZeros.substr(4)},  // invalid digits count as 1
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::string out;
        unsigned char bytes[16];
        ASSERT_TRUE(IPUtil::format_ipv6(c.text, out, bytes, sizeof(bytes)));
        EXPECT_EQ(out, c.hex);
        ASSERT_EQ(out.size(), 32u);
        EXPECT_EQ(bytes[0], std::stoul(c.hex.substr(0, 2), nullptr, 16));
        EXPECT_EQ(bytes[15], std::stoul(c.hex.substr(30, 2), nullptr, 16));
    }
}

TEST(IPUtilFormatIpv6, ColonAmountIsTheGapOffset) {
    struct Case {
        const char* text;
        unsigned char maxLength;
        unsigned char gap;
    };
    const Case cases[] = {
        {"::1", 39, 14},      {"::", 39, 14},     {"fe80::1:2", 39, 12},
        {"1:2::3:4", 39, 12}, {"1:2:3:4", 39, 0}, {"", 39, 0},
        {"1:2:3::", 39, 14},  {"1:2:3::", 4, 0},  {"1::2:3:4:5:6:7", 39, 4},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        unsigned char gap = 0;
        Engine::colon_amount(c.text, gap, c.maxLength);
        EXPECT_EQ(gap, c.gap);
    }
}

TEST(IPUtilFormatIpv6, HexDigitsAndBytes) {
    const std::pair<unsigned char, unsigned char> digits[] = {
        {'0', 0},  {'9', 9}, {'a', 10}, {'f', 15}, {'A', 10},
        {'F', 15}, {'G', 1}, {'g', 1},  {':', 1},  {' ', 1},
    };
    for (const auto& d : digits) {
        EXPECT_EQ(Engine::ascii_to_hex(d.first), d.second) << d.first;
    }

    const unsigned char bytes[] = {0x00, 0xab, 0x0f, 0xff};
    char text[16];
    memset(text, 'x', sizeof(text));
    text[15] = '\0';
    Engine::convert_unchar_to_str(text, sizeof(text), bytes, 4);
    EXPECT_STREQ(text, "00ab0fff");
}

TEST(IPUtilFormat, FormatChecks) {
    struct Case {
        const char* text;
        bool v4;
        bool v6;
        bool valid;
    };
    const Case cases[] = {
        {"10.0.0.1", true, false, true},
        {" 10.0.0.1/99 ", true, false, false},
        {"10.1", false, false, true},
        {"10.0.0.256", false, false, false},
        {"::1", false, true, false},
        {"fe80::/200", false, true, false},
        {"255.255.255.255", true, false, false},
        {"abc", false, false, false},
    };
    IPUtil util;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(IPUtil::is_ipv4_format(c.text), c.v4);
        EXPECT_EQ(IPUtil::is_ipv6_format(c.text), c.v6);
        EXPECT_EQ(util.is_valid_ip(c.text), c.valid);
    }
}

// ---- White-list ranges ---------------------------------------------------------------------

TEST(IPUtilRanges, ParsesIpv4Lists) {
    struct Case {
        const char* text;
        std::vector<std::pair<const char*, const char*>> ranges;
    };
    const Case cases[] = {
        {"10.0.0.1, 192.168.0.0/16 ,172.16.1.1-172.16.1.9",
         {{"10.0.0.1", "10.0.0.1"}, {"192.168.0.0", "192.168.255.255"}, {"172.16.1.1", "172.16.1.9"}}},
        {"10.0.0.0/24-10.0.1.0/24", {{"10.0.0.0", "10.0.1.255"}}},
        {"10.0.0.9-10.0.0.1", {{"10.0.0.9", "10.0.0.1"}}},
        {"10.0.0.1,10.0.0.1", {{"10.0.0.1", "10.0.0.1"}, {"10.0.0.1", "10.0.0.1"}}},
        {"ALL, any ,abc, -1, 10.0.0.1-abc, 10.0.0.1/33, 255.255.255.255, 10.0.0.2",
         {{"10.0.0.2", "10.0.0.2"}}},
        {",,,", {}},
        {"", {}},
    };
    LogTap log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::vector<IP_RANGE> ranges{{1, 2}};
        EXPECT_EQ(IPUtil::parse_ip_ranges(c.text, ranges), !c.ranges.empty());
        ASSERT_EQ(ranges.size(), c.ranges.size());
        for (size_t i = 0; i < ranges.size(); ++i) {
            EXPECT_EQ(ranges[i].start, HostOrder(c.ranges[i].first)) << i;
            EXPECT_EQ(ranges[i].end, HostOrder(c.ranges[i].second)) << i;
        }
    }

    std::vector<IP_RANGE> all;
    ASSERT_TRUE(IPUtil::parse_ip_ranges(" all ", all));
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].start, 0u);
    EXPECT_EQ(all[0].end, 0xFFFFFFFFu);
}

TEST(IPUtilRanges, ParsesIpv6Lists) {
    LogTap log;
    std::vector<IP6_RANGE> ranges{{"x", "y"}};
    ASSERT_TRUE(
        IPUtil::parse_ip6_ranges("::1, fe80::/64,xyz,~1,,2001:db8::1-2001:db8::ff, fe80::/200", ranges));
    ASSERT_EQ(ranges.size(), 3u);
    EXPECT_EQ(ranges[0].start, kZeros.substr(1) + "1");
    EXPECT_EQ(ranges[0].end, kZeros.substr(1) + "1");
    EXPECT_EQ(ranges[1].start, "fe800000000000000000000000000000");
    EXPECT_EQ(ranges[1].end, "fe80000000000000ffffffffffffffff");
    EXPECT_EQ(ranges[2].start, "20010db8000000000000000000000001");
    EXPECT_EQ(ranges[2].end, "20010db80000000000000000000000ff");

    ASSERT_TRUE(IPUtil::parse_ip6_ranges("all", ranges));
    ASSERT_EQ(ranges.size(), 1u);
    EXPECT_EQ(ranges[0].start, kZeros);
    EXPECT_EQ(ranges[0].end, kOnes);

    EXPECT_FALSE(IPUtil::parse_ip6_ranges(",,", ranges));
    EXPECT_TRUE(ranges.empty());
    EXPECT_FALSE(IPUtil::parse_ip6_ranges(nullptr, ranges));
}

TEST(IPUtilRanges, Ipv4Membership) {
    std::vector<IP_RANGE> ranges;
    ASSERT_TRUE(IPUtil::parse_ip_ranges("10.0.0.0/24, 10.9.0.9-10.9.0.1", ranges));
    struct Case {
        const char* ip;
        bool in;
    };
    const Case cases[] = {
        {"10.0.0.0", true},  {"10.0.0.255", true}, {"10.0.1.0", false},        {"9.255.255.255", false},
        {"10.9.0.5", false}, {"10.9.0.9", false},  {"255.255.255.255", false}, {"bogus", false},
    };
    LogTap log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ip);
        log.Clear();
        EXPECT_EQ(IPUtil::is_ip_in_range(c.ip, ranges), c.in);
        EXPECT_EQ(IPUtil::IsWhiteIpList(c.ip, ranges), c.in);
        auto lines = log.Root();
        if (c.in) {
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].text, std::string("[PortScan] white ip found (") + c.ip + ")");
            EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_DEBUG);
        } else if (std::string(c.ip) == "255.255.255.255" || std::string(c.ip) == "bogus") {
            ASSERT_EQ(lines.size(), 2u);
            EXPECT_EQ(lines[0].text, "local ip is invalid");
            EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_DEBUG);
            EXPECT_EQ(lines[1].text, std::string("[IPUtil] local ip [") + c.ip + "] is invalid ip");
            EXPECT_EQ(lines[1].priority, Poco::Message::PRIO_ERROR);
        } else {
            EXPECT_TRUE(lines.empty());
        }
    }
    EXPECT_FALSE(IPUtil::is_ip_in_range(nullptr, ranges));
    EXPECT_FALSE(IPUtil::IsWhiteIpList(nullptr, ranges));

    // An "all" range still never admits the all-ones address; an empty list is silent.
    std::vector<IP_RANGE> all;
    ASSERT_TRUE(IPUtil::parse_ip_ranges("all", all));
    EXPECT_TRUE(IPUtil::IsWhiteIpList("0.0.0.0", all));
    log.Clear();
    EXPECT_FALSE(IPUtil::IsWhiteIpList("255.255.255.255", all));
    EXPECT_EQ(LogTap::Texts(log.Root()),
              std::vector<std::string>{"[IPUtil] local ip [255.255.255.255] is invalid ip"});
    log.Clear();
    EXPECT_FALSE(IPUtil::IsWhiteIpList("10.0.0.1", {}));
    EXPECT_TRUE(log.Root().empty());
}

TEST(IPUtilRanges, ListMembershipReportsFirstHit) {
    std::vector<IP_RANGE> ranges;
    ASSERT_TRUE(IPUtil::parse_ip_ranges("10.0.0.0/8", ranges));
    std::string hit = "untouched";
    EXPECT_TRUE(IPUtil::is_iplist_in_range({"1.1.1.1", "bogus", "10.0.0.7", "10.0.0.8"}, ranges, hit));
    EXPECT_EQ(hit, "10.0.0.7");
    hit = "untouched";
    EXPECT_FALSE(IPUtil::is_iplist_in_range({"1.1.1.1", "11.0.0.1"}, ranges, hit));
    EXPECT_FALSE(IPUtil::is_iplist_in_range({}, ranges, hit));
    EXPECT_EQ(hit, "untouched");
}

TEST(IPUtilRanges, Ipv6Membership) {
    std::vector<IP6_RANGE> ranges;
    ASSERT_TRUE(IPUtil::parse_ip6_ranges("fe80::/64, 2001:db8::10-2001:db8::1", ranges));
    EXPECT_TRUE(IPUtil::is_ip6_in_range("fe80::1", ranges));
    EXPECT_TRUE(IPUtil::is_ip6_in_range("fe80::ffff:ffff:ffff:ffff", ranges));
    EXPECT_FALSE(IPUtil::is_ip6_in_range("fe80:0:0:1::", ranges));
    EXPECT_FALSE(IPUtil::is_ip6_in_range("2001:db8::8", ranges));  // reversed range never matches
    EXPECT_FALSE(IPUtil::is_ip6_in_range("10.0.0.1", ranges));
    EXPECT_FALSE(IPUtil::is_ip6_in_range(nullptr, ranges));
}

// ---- Local addresses and the master interface ------------------------------------------------

TEST(IPUtilNet, CheckIpNet) {
    struct Case {
        const char* ip;
        const char* net;
        int prefix;
        bool in;
    };
    const Case cases[] = {
        {"10.231.0.7", "10.231.0.0", 24, true},
        {"10.231.1.7", "10.231.0.0", 24, false},
        {"10.1.2.3", "10.9.9.9", 8, true},
        {"11.1.2.3", "10.9.9.9", 8, false},
        {"10.1.2.2", "10.1.2.2", 32, true},
        {"10.1.2.3", "10.1.2.2", 32, false},
        {"10.1.2.3", "10.1.2.3", 0, true},
        {"10.1.2.4", "10.1.2.3", 0, false},
        {"10.1.2.3", "10.1.2.3", 33, false},
        // The mask is shifted on the network-order word, so only whole leading octets are
        // compared exactly; inside a partial octet the low bits are the ones compared.
        {"172.32.0.1", "172.16.0.0", 12, true},
        {"172.31.0.1", "172.16.0.0", 12, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ip) + " in " + c.net + "/" + std::to_string(c.prefix));
        const unsigned int ip = Net(c.ip);
        EXPECT_EQ(IPUtil::CheckIpNet(ip, Net(c.net), c.prefix), c.in);
    }
}

TEST(IPUtilNet, PrivateAddressesAndFind) {
    const std::pair<const char*, bool> cases[] = {
        {"10.0.0.0", true},        {"10.255.255.255", true},  {"9.255.255.255", false},
        {"11.0.0.0", false},       {"172.15.255.255", false}, {"172.16.0.0", true},
        {"172.31.255.255", true},  {"172.32.0.0", false},     {"192.168.0.0", true},
        {"192.168.255.255", true}, {"192.169.0.0", false},    {"192.167.255.255", false},
        {"8.8.8.8", false},
    };
    for (const auto& c : cases) {
        in_addr address;
        address.s_addr = Net(c.first);
        EXPECT_EQ(IPUtil::IsIntraIpList(address), c.second) << c.first;
    }

    std::vector<in_addr> list(2);
    list[0].s_addr = Net("10.0.0.1");
    list[1].s_addr = Net("10.0.0.2");
    in_addr probe;
    probe.s_addr = Net("10.0.0.2");
    EXPECT_TRUE(IPUtil::FindIP(list, probe));
    probe.s_addr = Net("10.0.0.3");
    EXPECT_FALSE(IPUtil::FindIP(list, probe));
    EXPECT_FALSE(IPUtil::FindIP({}, probe));
}

Engine::RouteTable Route(const char* dst, int dstLen, const char* name) {
    Engine::RouteTable route{};
    route.dst = Net(dst);
    route.dstLen = dstLen;
    route.ifName = name;
    return route;
}

TEST(IPUtilNet, InterfaceNameChoice) {
    const auto defaultRoute = Route("0.0.0.0", 0, "eth0");
    const auto lan = Route("10.231.0.0", 24, "vlan");
    const auto wide = Route("10.231.0.0", 16, "wide");
    struct Case {
        const char* what;
        std::vector<unsigned int> ips;
        std::vector<Engine::RouteTable> routes;
        std::string preset;
        bool ok;
        std::string name;
    };
    const Case cases[] = {
        {"no address", {}, {defaultRoute, lan}, "", false, ""},
        {"no route keeps a preset name", {Net("10.231.0.7")}, {}, "pre", true, "pre"},
        {"no route, no name", {Net("10.231.0.7")}, {}, "", false, ""},
        {"covering route", {Net("10.231.0.7")}, {defaultRoute, lan}, "", true, "vlan"},
        {"covering route before default", {Net("10.231.0.7")}, {lan, defaultRoute}, "", true, "vlan"},
        {"default route fall-back", {Net("10.77.0.7")}, {defaultRoute, lan}, "", true, "eth0"},
        {"later match overrides", {Net("10.231.0.7")}, {lan, wide}, "", true, "wide"},
        {"only the first address counts", {Net("10.77.0.7"), Net("10.231.0.7")}, {lan}, "", false, ""},
        {"no default, no match", {Net("10.77.0.7")}, {lan, wide}, "", false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::string name = c.preset;
        EXPECT_EQ(IPUtil::GetInterfaceName(c.ips, c.routes, name), c.ok);
        EXPECT_EQ(name, c.name);
    }
}

TEST(IPUtilMaster, ConnectConfigAddresses) {
    struct Case {
        std::vector<std::string> endpoints;
        bool ok;
        std::vector<unsigned int> list;  // after the preset value 7
    };
    const Case cases[] = {
        {{}, true, {}},
        {{"10.0.0.5:443"}, true, {0x0A000005u}},
        {{"10.0.0.5"}, true, {0x0A000005u}},
        {{"10.0.0.5:443", "manager.example:443"}, false, {0x0A000005u}},
        {{"manager.example:443", "10.0.0.5:443"}, false, {}},
        {{"10.0.0.300:80"}, true, {HostOrder("10.0.1.44")}},
        {{" 10.+0.0.1:1", "192.168.1.2:8443"}, true, {0x0A000001u, HostOrder("192.168.1.2")}},
        {{"10.-1.0.1:1"}, false, {}},
        {{"10..0.1:1"}, false, {}},
        {{"1.2.3.4.5:1"}, false, {}},
        {{"10.0.0.1 :80"}, false, {}},
        {{"10,0.0.0.1:80"}, false, {}},
        {{"4294967296.0.0.1:80"}, false, {}},
    };
    auto* config = Framework::ConfigManager::GetInstance();
    const auto saved = config->GetConnectConfig();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.endpoints.empty() ? std::string("(empty)") : c.endpoints[0]);
        config->SetConnectConfig(c.endpoints);
        std::vector<unsigned int> list{7};
        EXPECT_EQ(IPUtil::GetMasterIpList(list), c.ok);
        std::vector<unsigned int> expected{7};
        expected.insert(expected.end(), c.list.begin(), c.list.end());
        EXPECT_EQ(list, expected);
    }
    config->SetConnectConfig(saved);
}

TEST(IPUtilLocal, LoopbackText) {
    struct Case {
        const char* text;
        bool loopback;
        const char* error;
    };
    const Case cases[] = {
        {"127.0.0.1", true, nullptr},
        {"::1", true, nullptr},
        {"0:0:0:0:0:0:0:1", true, nullptr},
        {"127.0.0.2", false, nullptr},
        {"::2", false, nullptr},
        {"fe80::1", false, nullptr},
        {"localhost", false, "invalid ip [localhost]"},
        {"", false, "invalid ip []"},
        {"10.0.0.1#80", false, "invalid remote host [10.0.0.1#80]"},
    };
    LogTap log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        log.Clear();
        EXPECT_EQ(IPUtil::is_localhost_ip(c.text), c.loopback);
        std::vector<std::string> expected;
        if (c.error != nullptr) {
            expected.push_back(c.error);
        }
        EXPECT_EQ(LogTap::Texts(log.Root()), expected);
    }
}

TEST(IPUtilLocal, NumericHostLookupNeedsNoResolver) {
    std::vector<std::string> list{"keep"};
    ASSERT_TRUE(IPUtil::getipv4("10.1.2.3", list));
    EXPECT_EQ(list, (std::vector<std::string>{"keep", "10.1.2.3"}));

    LogTap log;
    EXPECT_FALSE(IPUtil::getipv4(nullptr, list));
    EXPECT_EQ(LogTap::Texts(log.Root()), std::vector<std::string>{"get host by name [] failed."});
}

}  // namespace
