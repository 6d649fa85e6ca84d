// The socket layer against the kernel, between two namespaces joined by a veth pair: capture side
// 10.231.0.1/24 on "vcap", peer 10.231.0.2/24 on "vpeer" (the IPv6 test adds fd00:231::1 and ::2). Needs
// root; skips itself otherwise.

#include "IPUtil.h"
#include "SocketUtil.h"
#include "support/NetLab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

using Engine::SocketUtil;
using TestSupport::NetNs;

namespace {

class PortScanNetns : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root for network namespaces and packet sockets";
        }
        const std::string suffix = std::to_string(getpid());
        m_cap = std::make_unique<NetNs>("pscap" + suffix);
        m_peer = std::make_unique<NetNs>("pspeer" + suffix);
        TestSupport::AddVethPair(*m_cap, "vcap", "10.231.0.1/24", *m_peer, "vpeer", "10.231.0.2/24");
    }
    void TearDown() override {
        for (int fd : m_fds) {
            close(fd);
        }
    }

    // Runs `work` on a helper thread that entered `ns`: the test's own thread stays where it was.
    static void RunIn(const NetNs& ns, const std::function<void()>& work) {
        std::thread([&] {
            const int fd = open(("/run/netns/" + ns.Name()).c_str(), O_RDONLY | O_CLOEXEC);
            ASSERT_EQ(0, setns(fd, CLONE_NEWNET)) << ns.Name();
            close(fd);
            work();
        }).join();
    }

    int Capture(const std::vector<long>& ports) {
        int fd = -1;
        RunIn(*m_cap, [&] {
            SocketUtil::CreateRawSocket(fd);
            ASSERT_EQ(0, SocketUtil::BindPort(fd, "vcap"));
            ASSERT_TRUE(SocketUtil::LoadPortBpfRules(fd, ports));
            SocketUtil::ClearSocketBuff(fd);
        });
        m_fds.push_back(fd);
        return fd;
    }

    std::unique_ptr<NetNs> m_cap;
    std::unique_ptr<NetNs> m_peer;
    std::vector<int> m_fds;
};

struct Probe {
    const char *what, *src, *dst;
    int protocol;
    uint16_t port, fragment;  // fragment: the IPv4 flags and offset field
    bool watched, any;        // admitted by the filter for ports 4001 and 4002 / for no port list
};

// Ethernet broadcast, IPv4 with `id`, a TCP SYN or UDP header, and 60 bytes of payload.
std::vector<char> Frame(const Probe& p, uint16_t id) {
    std::vector<char> frame(14 + 20 + 20 + 60, 0);
    memset(frame.data(), 0xff, 6);
    // Offset and 16-bit value: type IPv4, version and header length, total length, id, fragment
    // field, TTL and protocol, destination port, TCP header length and SYN.
    const unsigned int fields[][2] = {{12, 0x0800}, {14, 0x4500},     {16, 100},
                                      {18, id},     {20, p.fragment}, {22, 64u << 8 | p.protocol},
                                      {36, p.port}, {46, 0x5002}};
    for (const auto& [at, value] : fields) {
        frame[at] = static_cast<char>(value >> 8);
        frame[at + 1] = static_cast<char>(value);
    }
    const in_addr_t addresses[] = {inet_addr(p.src), inet_addr(p.dst)};
    memcpy(&frame[26], addresses, 8);
    return frame;
}

TEST_F(PortScanNetns, FilterAdmitsExactlyForeignProbesOfWatchedPorts) {
    const Probe probes[] = {
        {"tcp syn, watched port", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0, true, true},
        {"udp, watched port", "10.231.0.2", "10.231.0.1", IPPROTO_UDP, 4002, 0, true, true},
        {"unwatched port", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4003, 0, false, true},
        {"local source", "10.231.0.1", "10.231.0.1", IPPROTO_TCP, 4001, 0, false, false},
        {"non-local destination", "10.231.0.2", "10.231.0.77", IPPROTO_UDP, 4001, 0, false, false},
        {"non-first fragment", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0x0064, false, false},
        {"icmp", "10.231.0.2", "10.231.0.1", IPPROTO_ICMP, 4001, 0, false, false},
        {"first fragment, more to come", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0x2000, true, true},
    };
    const int watched = Capture({4001, 4002});
    const int any = Capture({});
    RunIn(*m_peer, [&] {
        const int fd = socket(AF_PACKET, SOCK_RAW, 0);
        sockaddr_ll to{AF_PACKET, 0, static_cast<int>(if_nametoindex("vpeer")), 0, 0, 6, {}};
        for (size_t i = 0; i < std::size(probes); ++i) {
            const std::vector<char> frame = Frame(probes[i], static_cast<uint16_t>(i + 1));
            EXPECT_EQ(ssize_t(frame.size()), sendto(fd, frame.data(), frame.size(), 0,
                                                    reinterpret_cast<sockaddr*>(&to), sizeof(to)));
        }
        close(fd);
    });
    for (const int fd : {watched, any}) {
        std::set<size_t> admitted;
        pollfd entry{fd, POLLIN, 0};
        for (int i = 0; i < 50 && poll(&entry, 1, 300) > 0; ++i) {
            char buffer[256];
            EXPECT_EQ(60, recv(fd, buffer, sizeof(buffer), 0));  // only the headers are queued
            admitted.insert(
                (static_cast<unsigned char>(buffer[18]) << 8 | static_cast<unsigned char>(buffer[19])) - 1);
        }
        for (size_t i = 0; i < std::size(probes); ++i) {
            EXPECT_EQ(fd == watched ? probes[i].watched : probes[i].any, admitted.count(i) == 1)
                << probes[i].what << (fd == watched ? " (ports 4001, 4002)" : " (no port list)");
        }
    }
}

TEST_F(PortScanNetns, ProgramReadBackAndLengthBound) {
    const int fd = Capture({4001, 4002});
    // N = 1 local address, P = 2 ports: 2N + P + 13 instructions.
    const unsigned int local = ntohl(inet_addr("10.231.0.1"));
    const std::vector<std::vector<unsigned int>> expected = {
        {0x28, 0, 0, 12}, {0x15, 0, 14, 0x800}, {0x30, 0, 0, 23}, {0x15, 1, 0, 6},    {0x15, 0, 11, 17},
        {0x28, 0, 0, 20}, {0x45, 9, 0, 0x1fff}, {0xb1, 0, 0, 14}, {0x20, 0, 0, 30},   {0x15, 0, 6, local},
        {0x20, 0, 0, 26}, {0x15, 4, 0, local},  {0x48, 0, 0, 16}, {0x15, 1, 0, 4001}, {0x15, 0, 1, 4002},
        {0x06, 0, 0, 60}, {0x06, 0, 0, 0},
    };
    auto readBack = [&] {
        std::vector<std::vector<unsigned int>> program;
        std::vector<sock_filter> ops(512);
        socklen_t count = ops.size();
        EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, ops.data(), &count));
        ops.resize(count);
        for (const sock_filter& op : ops) {
            program.push_back({op.code, op.jt, op.jf, op.k});
        }
        return program;
    };
    EXPECT_EQ(expected, readBack());
    // P + 2N + 10 = 256 would wrap an 8-bit jump: refused, and the attached program stays.
    bool attached = true;
    RunIn(*m_cap, [&] { attached = SocketUtil::LoadPortBpfRules(fd, std::vector<long>(244, 5000)); });
    EXPECT_FALSE(attached);
    EXPECT_EQ(expected, readBack());
}

TEST_F(PortScanNetns, SocketDiagnosticsAndRouteDump) {
    RunIn(*m_cap, [&] {
        auto bound = [&](int type, uint16_t port) {
            const int fd = socket(AF_INET, type, 0);
            sockaddr_in address{AF_INET, htons(port), {0}, {}};
            EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
            m_fds.push_back(fd);
            return fd;
        };
        ASSERT_EQ(0, listen(bound(SOCK_STREAM, 4100), 4));
        bound(SOCK_STREAM, 4102);  // bound only: must not make other ports look taken
        bound(SOCK_DGRAM, 4103);
        // port, protocol code, result (0: a socket holds it)
        const int cases[][3] = {{4100, 0, 0}, {4101, 0, 1}, {4100, 1, 1}, {4103, 1, 0}};
        for (const auto& [port, protocol, expected] : cases) {
            const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
            int result = -1;
            EXPECT_TRUE(SocketUtil::SendNetlinkMsgQuery(fd, port, protocol, SOCK_DIAG_BY_FAMILY));
            EXPECT_TRUE(SocketUtil::RecvNetLinkMsgQuery(fd, result, protocol));
            EXPECT_EQ(expected, result) << port << "/" << protocol;
            close(fd);
        }
    });

    // Only inside this isolated namespace; nothing is sent along it.
    TestSupport::MustRun({"ip", "-n", m_cap->Name(), "route", "add", "default", "via", "10.231.0.254"});
    std::vector<Engine::RouteTable> table;
    bool result = true;
    RunIn(*m_cap, [&] { result = Engine::IPUtil::GetRouteTable(table); });
    EXPECT_FALSE(result);         // inverted: a completed dump answers false
    ASSERT_EQ(2u, table.size());  // the local table's routes are skipped
    std::sort(table.begin(), table.end(), [](auto& a, auto& b) { return a.dstLen < b.dstLen; });
    EXPECT_EQ(std::make_tuple(0, 0u, inet_addr("10.231.0.254"), std::string("vcap")),
              std::make_tuple(table[0].dstLen, table[0].dst, table[0].gateway, table[0].ifName));
    EXPECT_EQ(std::make_tuple(24, inet_addr("10.231.0.0"), 0u, std::string("vcap")),
              std::make_tuple(table[1].dstLen, table[1].dst, table[1].gateway, table[1].ifName));
}

// The IPv6 socket and filter: real frames from the peer, and the program the kernel holds read back.
TEST_F(PortScanNetns, Ipv6FilterAdmitsExactlyForeignProbesOfWatchedPorts) {
    TestSupport::MustRun(
        {"ip", "-n", m_cap->Name(), "addr", "add", "fd00:231::1/64", "dev", "vcap", "nodad"});
    TestSupport::MustRun(
        {"ip", "-n", m_peer->Name(), "addr", "add", "fd00:231::2/64", "dev", "vpeer", "nodad"});
    std::vector<in6_addr> local;
    int fd = -1;
    RunIn(*m_cap, [&] {
        ASSERT_TRUE(Engine::IPUtil::GetLocalhostIp6(local));
        SocketUtil::CreateRawSocket6(fd);
        ASSERT_NE(-1, fd);
        ASSERT_TRUE(SocketUtil::LoadPort6BpfRules(fd, {4001, 4002}));
        SocketUtil::ClearSocketBuff(fd);
    });
    m_fds.push_back(fd);
    // The link-local address the kernel gave vcap is local too.
    const auto linkLocal =
        std::find_if(local.begin(), local.end(), [](const in6_addr& a) { return IN6_IS_ADDR_LINKLOCAL(&a); });
    ASSERT_NE(local.end(), linkLocal);
    const std::string linkLocalText = Engine::IPUtil::Ip6Text(*linkLocal);

    std::vector<sock_filter> expected;
    ASSERT_TRUE(SocketUtil::BuildPort6BpfProgram(local, {4001, 4002}, expected));
    std::vector<sock_filter> attached(BPF_MAXINSNS);
    socklen_t count = attached.size();
    ASSERT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, attached.data(), &count));
    attached.resize(count);
    ASSERT_EQ(expected.size(), attached.size());
    for (size_t i = 0; i < attached.size(); ++i) {
        EXPECT_EQ(std::make_tuple(expected[i].code, expected[i].jt, expected[i].jf, expected[i].k),
                  std::make_tuple(attached[i].code, attached[i].jt, attached[i].jf, attached[i].k))
            << i;
    }

    const struct {
        const char *what, *src, *dst;
        int nextHeader;
        uint16_t port;
        bool admitted;
    } probes[] = {
        {"tcp syn, watched port", "fd00:231::2", "fd00:231::1", IPPROTO_TCP, 4001, true},
        {"udp, watched port", "fd00:231::2", "fd00:231::1", IPPROTO_UDP, 4002, true},
        {"to the link-local address", "fe80::2", linkLocalText.c_str(), IPPROTO_TCP, 4002, true},
        {"unwatched port", "fd00:231::2", "fd00:231::1", IPPROTO_TCP, 4003, false},
        {"local source", "fd00:231::1", "fd00:231::1", IPPROTO_TCP, 4001, false},
        {"non-local destination", "fd00:231::2", "fd00:231::77", IPPROTO_UDP, 4001, false},
        {"destination options header", "fd00:231::2", "fd00:231::1", 60, 4001, false},
        {"icmpv6", "fd00:231::2", "fd00:231::1", IPPROTO_ICMPV6, 4001, false},
    };
    RunIn(*m_peer, [&] {
        const int out = socket(AF_PACKET, SOCK_RAW, 0);
        sockaddr_ll to{AF_PACKET, 0, static_cast<int>(if_nametoindex("vpeer")), 0, 0, 6, {}};
        for (size_t i = 0; i < std::size(probes); ++i) {
            // Ethernet broadcast, IPv6, the transport header (source port: the probe's index) and payload.
            std::vector<unsigned char> frame(14 + 40 + 20 + 20, 0);
            memset(frame.data(), 0xff, 6);
            frame[12] = 0x86, frame[13] = 0xdd, frame[14] = 0x60, frame[19] = 40;
            frame[20] = static_cast<unsigned char>(probes[i].nextHeader), frame[21] = 64;
            EXPECT_EQ(1, inet_pton(AF_INET6, probes[i].src, &frame[22]));
            EXPECT_EQ(1, inet_pton(AF_INET6, probes[i].dst, &frame[38]));
            frame[54] = 0x10, frame[55] = static_cast<unsigned char>(i);
            frame[56] = static_cast<unsigned char>(probes[i].port >> 8);
            frame[57] = static_cast<unsigned char>(probes[i].port);
            frame[66] = 0x50, frame[67] = 0x02;
            EXPECT_EQ(ssize_t(frame.size()), sendto(out, frame.data(), frame.size(), 0,
                                                    reinterpret_cast<sockaddr*>(&to), sizeof(to)));
        }
        close(out);
    });
    std::set<size_t> admitted;
    pollfd entry{fd, POLLIN, 0};
    for (int i = 0; i < 50 && poll(&entry, 1, 300) > 0; ++i) {
        unsigned char buffer[256];
        EXPECT_EQ(74, recv(fd, buffer, sizeof(buffer), 0));  // Ethernet, IPv6 and TCP headers only
        if (buffer[54] == 0x10) {
            admitted.insert(buffer[55]);
        }
    }
    for (size_t i = 0; i < std::size(probes); ++i) {
        EXPECT_EQ(probes[i].admitted, admitted.count(i) == 1) << probes[i].what;
    }
}

}  // namespace
