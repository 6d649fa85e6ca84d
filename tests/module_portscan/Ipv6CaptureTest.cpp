// IPv6 capture without the kernel: the IPv6 frame parser, the IPv6 filter run by a reference
// evaluator, and the policy keys "ipv6" and "white_ip6_list".

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

// Runs a classic BPF program over `frame` as the kernel does for the instructions the IPv6 filter
// uses: the number of bytes kept, 0 for a drop (also for a load past the end).
unsigned Evaluate(const std::vector<sock_filter>& program, const std::vector<unsigned char>& frame) {
    uint32_t a = 0;
    for (size_t pc = 0; pc < program.size(); ++pc) {
        const sock_filter& op = program[pc];
        auto load = [&](size_t size) {
            if (op.k + size > frame.size()) {
                return false;
            }
            a = 0;
            for (size_t i = 0; i < size; ++i) {
                a = a << 8 | frame[op.k + i];
            }
            return true;
        };
        switch (op.code) {
            case BPF_LD | BPF_W | BPF_ABS:
            case BPF_LD | BPF_H | BPF_ABS:
            case BPF_LD | BPF_B | BPF_ABS:
                if (!load(BPF_SIZE(op.code) == BPF_W ? 4 : BPF_SIZE(op.code) == BPF_H ? 2 : 1)) {
                    return 0;
                }
                break;
            case BPF_JMP | BPF_JEQ | BPF_K:
                pc += a == op.k ? op.jt : op.jf;
                break;
            case BPF_JMP | BPF_JA:
                pc += op.k;
                break;
            case BPF_RET | BPF_K:
                return op.k;
            default:
                ADD_FAILURE() << "unexpected instruction " << op.code << " at " << pc;
                return 0;
        }
        if (pc >= program.size()) {
            ADD_FAILURE() << "jump past the end from instruction " << pc;
            return 0;
        }
    }
    ADD_FAILURE() << "no return";
    return 0;
}

// `count` local addresses: fd00:78::1, then fd00:1::<i>.
std::vector<in6_addr> LocalAddresses(size_t count) {
    std::vector<in6_addr> addresses;
    for (size_t i = 0; i < count; ++i) {
        addresses.push_back(Ip6(i == 0 ? "fd00:78::1" : ("fd00:1::" + std::to_string(i)).c_str()));
    }
    return addresses;
}

// The kernel test sends its frame table through a real filter; this one covers what a namespace does
// not hold: long address lists (32-bit jumps to the source tests), no address, no port list, refusals.
TEST(PortScanIpv6Filter, ReferenceEvaluationOfLongListsAndRefusals) {
    auto& log = ModuleLogs();
    std::vector<sock_filter> program;
    for (size_t count : {1u, 40u, 226u}) {
        SCOPED_TRACE(count);
        const std::vector<in6_addr> addresses = LocalAddresses(count);
        ASSERT_TRUE(SocketUtil::BuildPort6BpfProgram(addresses, {2501, 2500}, program));
        for (size_t i : {size_t(0), count - 1}) {
            const std::string local = Engine::IPUtil::Ip6Text(addresses[i]);
            Frame6 probe;
            probe.dst = local.c_str();
            EXPECT_EQ(74u, Evaluate(program, probe.Bytes())) << local;
            probe.port = 2502;
            EXPECT_EQ(0u, Evaluate(program, probe.Bytes())) << local << ", unwatched port";
            probe.port = 2500;
            probe.src = probe.dst;
            EXPECT_EQ(0u, Evaluate(program, probe.Bytes())) << local << " as source";
        }
        Frame6 foreign;
        foreign.dst = "fd00:78::1:0:1";  // the first address but for its third word
        EXPECT_EQ(0u, Evaluate(program, foreign.Bytes()));
    }
    Frame6 unwatched;
    unwatched.port = 2502;
    ASSERT_TRUE(SocketUtil::BuildPort6BpfProgram(LocalAddresses(3), {}, program));
    EXPECT_EQ(74u, Evaluate(program, unwatched.Bytes()));  // no port list: every port
    ASSERT_TRUE(SocketUtil::BuildPort6BpfProgram({}, {2501}, program));
    EXPECT_EQ(0u, Evaluate(program, Frame6{}.Bytes()));  // no local address: nothing

    // Past the kernel's length limit, or a port test whose jump to the accept needs 9 bits: refused.
    log.Clear();
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(LocalAddresses(227), {2501, 2500}, program));
    EXPECT_TRUE(SocketUtil::BuildPort6BpfProgram(LocalAddresses(1), std::vector<long>(256, 2501), program));
    EXPECT_FALSE(SocketUtil::BuildPort6BpfProgram(LocalAddresses(1), std::vector<long>(257, 2501), program));
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
