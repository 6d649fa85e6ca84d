// The socket layer against the kernel, in two namespaces of the test's joined by a veth pair (root only).

#include "CollectPortInfoTask.h"
#include "IPUtil.h"
#include "PortScanPolicy.h"
#include "SocketUtil.h"
#include "TestFrames.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

using Engine::SocketUtil;
using TestSupport::NetNs;

static bool operator==(const sock_filter& a, const sock_filter& b) {
    return a.code == b.code && a.jt == b.jt && a.jf == b.jf && a.k == b.k;
}

namespace {

// The classic BPF program the kernel holds for `fd`.
std::vector<sock_filter> AttachedProgram(int fd) {
    std::vector<sock_filter> ops(BPF_MAXINSNS);
    socklen_t count = ops.size();
    EXPECT_EQ(0, getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, ops.data(), &count));
    ops.resize(count);
    return ops;
}

// A frame to or from the capture side, sent with the transport source port 0x1000 + its index.
struct Probe {
    const char *what, *src, *dst;
    int protocol;             // or the IPv6 next header
    uint16_t port, fragment;  // fragment: the IPv4 flags and offset field
    bool watched, any;        // admitted by the filter for ports 4001 and 4002 / for no port list
    int ihl = 5;              // IPv4 header words
};

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
        for (const auto& [ns, device, address] : {std::make_tuple(m_cap.get(), "vcap", "fd00:231::1/64"),
                                                  std::make_tuple(m_peer.get(), "vpeer", "fd00:231::2/64")}) {
            TestSupport::MustRun({"ip", "-n", ns->Name(), "addr", "add", address, "dev", device, "nodad"});
        }
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

    // A capture socket of the family (IPv6 when `ipv6`) whose filter watches `ports`.
    int Capture(const std::vector<long>& ports, bool ipv6 = false, bool reportableOnly = false) {
        int fd = -1;
        RunIn(*m_cap, [&] {
            ipv6 ? SocketUtil::CreateRawSocket6(fd) : SocketUtil::CreateRawSocket(fd);
            ASSERT_NE(-1, fd);
            ASSERT_TRUE(ipv6 || SocketUtil::BindPort(fd, "vcap") == 0);
            ASSERT_TRUE(ipv6 ? SocketUtil::LoadPort6BpfRules(fd, ports, reportableOnly)
                             : SocketUtil::LoadPortBpfRules(fd, ports, reportableOnly));
            SocketUtil::ClearSocketBuff(fd);
        });
        m_fds.push_back(fd);
        return fd;
    }

    // Sends each probe from the peer. Each capture (descriptor, IPv6, its column) must queue exactly the
    // probes of its family its column admits, each cut to its headers (Ethernet, IP, the start of TCP).
    void ExpectAdmitted(const std::vector<Probe>& probes,
                        std::initializer_list<std::tuple<int, bool, bool Probe::*>> captures) {
        RunIn(*m_peer, [&] {
            const int fd = socket(AF_PACKET, SOCK_RAW, 0);
            sockaddr_ll to{AF_PACKET, 0, static_cast<int>(if_nametoindex("vpeer")), 0, 0, 6, {}};
            for (size_t i = 0; i < probes.size(); ++i) {
                const Probe& p = probes[i];
                const std::string frame = Frame(p.src, p.dst, p.protocol, p.port, 0x1000 + i,
                                                strchr(p.src, ':') ? 94 : 114, p.fragment, p.ihl);
                EXPECT_EQ(ssize_t(frame.size()), sendto(fd, frame.data(), frame.size(), 0,
                                                        reinterpret_cast<sockaddr*>(&to), sizeof(to)));
            }
            close(fd);
        });
        for (const auto& [fd, v6, column] : captures) {
            std::set<size_t> admitted;
            pollfd entry{fd, POLLIN, 0};
            for (int i = 0; i < 50 && poll(&entry, 1, 300) > 0; ++i) {
                unsigned char buffer[256];
                EXPECT_EQ(v6 ? 74 : 60, recv(fd, buffer, sizeof(buffer), 0));
                const size_t transport = v6 ? 54 : 14 + 4 * (buffer[14] & 0x0f);
                admitted.insert((buffer[transport] << 8 | buffer[transport + 1]) - 0x1000u);
            }
            for (size_t i = 0; i < probes.size(); ++i) {
                const bool family = (strchr(probes[i].src, ':') != nullptr) == v6;
                EXPECT_EQ(family && probes[i].*column, admitted.count(i) == 1)
                    << probes[i].what << ", capture " << fd;
            }
        }
    }

    std::unique_ptr<NetNs> m_cap;
    std::unique_ptr<NetNs> m_peer;
    std::vector<int> m_fds;
};

// Frames of both families from the peer through the filters the kernel holds. A hundred more local
// addresses take the IPv6 filter's long jumps, with and without a port list. With
// "reportable_sources_only" the filters admit exactly the private ranges the module reports.
TEST_F(PortScanNetns, FiltersAdmitExactlyForeignProbesOfWatchedPorts) {
    for (int i = 1; i <= 100; ++i) {
        TestSupport::MustRun({"ip", "-n", m_cap->Name(), "addr", "add",
                              "fd00:1::" + std::to_string(i) + "/128", "dev", "vcap", "nodad"});
    }
    const int watched = Capture({4001, 4002}), any = Capture({});
    const int watched6 = Capture({4001, 4002}, true), any6 = Capture({}, true);
    // 244 ports and a local address would wrap an 8-bit jump: refused, and the probes below find the
    // filter attached before still in place.
    bool attached = true;
    RunIn(*m_cap, [&] { attached = SocketUtil::LoadPortBpfRules(watched, std::vector<long>(244, 5000)); });
    EXPECT_FALSE(attached);
    // The link-local address the kernel gave vcap is local too.
    std::vector<in6_addr> local6;
    RunIn(*m_cap, [&] { ASSERT_TRUE(Engine::IPUtil::GetLocalhostIp6(local6)); });
    const auto linkLocal = std::find_if(local6.begin(), local6.end(),
                                        [](const in6_addr& a) { return IN6_IS_ADDR_LINKLOCAL(&a); });
    ASSERT_NE(local6.end(), linkLocal);
    const std::string linkLocalText = Engine::IPUtil::Ip6Text(*linkLocal);
    const std::vector<Probe> probes = {
        {"tcp syn, watched port", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0, true, true},
        {"udp, watched port", "10.231.0.2", "10.231.0.1", IPPROTO_UDP, 4002, 0, true, true},
        {"ip options", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4002, 0, true, true, 6},
        {"unwatched port", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4003, 0, false, true},
        {"local source", "10.231.0.1", "10.231.0.1", IPPROTO_TCP, 4001, 0, false, false},
        {"non-local destination", "10.231.0.2", "10.231.0.77", IPPROTO_UDP, 4001, 0, false, false},
        {"non-first fragment", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0x0064, false, false},
        {"icmp", "10.231.0.2", "10.231.0.1", IPPROTO_ICMP, 4001, 0, false, false},
        {"first fragment, more to come", "10.231.0.2", "10.231.0.1", IPPROTO_TCP, 4001, 0x2000, true, true},
        {"ipv6 tcp syn, watched port", "fd00:231::2", "fd00:231::1", IPPROTO_TCP, 4001, 0, true, true},
        {"ipv6 udp, watched port", "fd00:231::2", "fd00:231::1", IPPROTO_UDP, 4002, 0, true, true},
        {"ipv6 to link-local", "fe80::2", linkLocalText.c_str(), IPPROTO_TCP, 4002, 0, true, true},
        {"ipv6 unwatched port", "fd00:231::2", "fd00:231::1", IPPROTO_TCP, 4003, 0, false, true},
        {"ipv6 local source", "fd00:231::1", "fd00:231::1", IPPROTO_TCP, 4001, 0, false, false},
        {"ipv6 non-local destination", "fd00:231::2", "fd00:231::77", IPPROTO_UDP, 4001, 0, false, false},
        {"ipv6 destination options header", "fd00:231::2", "fd00:231::1", 60, 4001, 0, false, false},
        {"icmpv6", "fd00:231::2", "fd00:231::1", IPPROTO_ICMPV6, 4001, 0, false, false},
        {"first added address", "fd00:231::2", "fd00:1::1", IPPROTO_TCP, 4001, 0, true, true},
        {"last added address", "fd00:231::2", "fd00:1::100", IPPROTO_UDP, 4002, 0, true, true},
        {"last added, unwatched port", "fd00:231::2", "fd00:1::100", IPPROTO_TCP, 4003, 0, false, true},
        {"an added address as source", "fd00:1::1", "fd00:1::100", IPPROTO_TCP, 4001, 0, false, false},
        {"one word off", "fd00:231::2", "fd00:1::1:0:1", IPPROTO_TCP, 4001, 0, false, false},
    };
    ExpectAdmitted(probes, {{watched, false, &Probe::watched},
                            {any, false, &Probe::any},
                            {watched6, true, &Probe::watched},
                            {any6, true, &Probe::any}});

    const int reportable = Capture({4001}, false, true), reportable6 = Capture({4001}, true, true);
    const std::pair<const char*, bool> sources[] = {
        // source, reported
        {"9.255.255.255", false}, {"10.0.0.0", true},        {"10.255.255.255", true},
        {"11.0.0.0", false},      {"172.15.255.255", false}, {"172.16.0.0", true},
        {"172.31.255.255", true}, {"172.32.0.0", false},     {"192.167.255.255", false},
        {"192.168.0.0", true},    {"192.168.255.255", true}, {"192.169.0.0", false},
        {"198.51.100.7", false},  {"fbff:ffff::1", false},   {"fc00::1", true},
        {"fdff:ffff::1", true},   {"fe7f:ffff::1", false},   {"fe80::5", true},
        {"febf:ffff::1", true},   {"fec0::1", false},        {"2001:db8::7", false},
    };
    std::vector<Probe> fromSources;
    for (const auto& [src, reported] : sources) {
        fromSources.push_back({src, src, strchr(src, ':') ? "fd00:231::1" : "10.231.0.1", IPPROTO_TCP, 4001,
                               0, reported, false});
    }
    ExpectAdmitted(fromSources, {{reportable, false, &Probe::watched}, {reportable6, true, &Probe::watched}});
    // Eight more instructions on the longest jump: the bound on ports shrinks by as many.
    EXPECT_EQ(SocketUtil::MaxFilterPorts(3), SocketUtil::MaxFilterPorts(3, true) + 8);
    RunIn(*m_cap, [&] {
        attached = SocketUtil::LoadPortBpfRules(
            reportable, std::vector<long>(SocketUtil::MaxFilterPorts(1, true) + 1, 5000), true);
    });
    EXPECT_FALSE(attached);
}

// A filter past the namespace's net.core.optmem_max is refused with a line naming the sysctl. Older
// kernels keep that sysctl for the host only: nothing is changed there.
// The kernel charges a filter against net.core.optmem_max, the new one before it frees the old.
TEST_F(PortScanNetns, Ipv6FilterWithinOptmemMaxReloadsAndPastItIsNamed) {
    if (TestSupport::Run(
            {"ip", "netns", "exec", m_cap->Name(), "test", "-w", "/proc/sys/net/core/optmem_max"})
            .code != 0) {
        GTEST_SKIP() << "net.core.optmem_max is not kept per network namespace here";
    }
    TestSupport::RecordingChannel& log = ModuleLogs();
    const std::vector<long> ports = {4001, 4002};
    RunIn(*m_cap, [&] {
        auto setOptmemMax = [](long bytes) { std::ofstream("/proc/sys/net/core/optmem_max") << bytes; };
        // The least room the kernel takes the filter in, as the lint finds it.
        long low = 0, high = 1 << 20;
        std::size_t addresses = 0;
        while (high - low > 8) {
            setOptmemMax((low + high) / 2);
            (SocketUtil::Port6FilterFitsOptionMemory(ports, false, addresses) ? high : low) =
                (low + high) / 2;
        }
        EXPECT_GE(addresses, 1u);
        setOptmemMax(high + 8);
        int fd = -1;
        SocketUtil::CreateRawSocket6(fd);
        m_fds.push_back(fd);
        ASSERT_TRUE(SocketUtil::LoadPort6BpfRules(fd, ports));
        // Room for one filter, not for two: the reload still takes.
        ASSERT_TRUE(SocketUtil::LoadPort6BpfRules(fd, ports));
        std::vector<sock_filter> expected;
        std::vector<in6_addr> local;
        Engine::IPUtil::GetLocalhostIp6(local);
        ASSERT_TRUE(SocketUtil::BuildPort6BpfProgram(local, ports, expected));
        EXPECT_EQ(expected, AttachedProgram(fd));
        EXPECT_EQ(0u, log.CountContaining("optmem_max"));

        setOptmemMax(low);
        // The lint warns with the "ipv6" key only.
        const std::string policy = R"({"content": {"port_scan_task": {"monitor_list": [{"port": 4001,
            "type": 0}, {"port": 4002, "type": 1}], "check_port_before_alarm": true)";
        const Engine::PortScanModule module;
        for (const bool ipv6 : {false, true}) {
            const std::vector<std::string> findings =
                module.LintPolicy("10001", policy + (ipv6 ? R"(, "ipv6": true}}})" : "}}}"));
            EXPECT_EQ(ipv6, findings.size() == 1 &&
                                findings[0].find("exceeds net.core.optmem_max") != std::string::npos)
                << ipv6 << ": " << (findings.empty() ? "" : findings[0]);
        }
        EXPECT_FALSE(SocketUtil::LoadPort6BpfRules(fd, ports));
        EXPECT_EQ(1u, log.CountContaining("exceeds net.core.optmem_max"));
    });
}

// Who holds a port against an IPv4 probe, without and with "dual_stack_occupancy", and against an IPv6
// one (clients try IPv6 first: IPv4 holders count too). Each port is free for the other protocol.
TEST_F(PortScanNetns, OccupancyQueriesAndRouteDump) {
    // port, bound address (dotted: IPv4), IPV6_V6ONLY, type (0: TCP, bound but not listening); the answers
    // (0: held, 1: free) of the IPv4 query without and with the switch, and of the IPv6 query
    using Answers = std::array<int, 3>;
    const std::tuple<uint16_t, const char*, int, int, Answers> sockets[] = {
        {4110, "::", 1, SOCK_STREAM, {1, 1, 0}},     {4111, "::", 0, SOCK_STREAM, {1, 0, 0}},
        {4112, "::1", 0, SOCK_STREAM, {1, 1, 0}},    {4113, "::ffff:127.0.0.1", 0, SOCK_STREAM, {1, 0, 0}},
        {4114, "::", 0, SOCK_DGRAM, {1, 0, 0}},      {4115, "0.0.0.0", 0, SOCK_STREAM, {0, 0, 0}},
        {4116, "0.0.0.0", 0, SOCK_DGRAM, {0, 0, 0}}, {4117, "0.0.0.0", 0, 0, {1, 1, 1}},
    };
    Engine::PortScanTaskPolicy plain("port_scan_task"), dualStack("port_scan_task");
    ASSERT_TRUE(plain.Parse(R"({"monitor_list":[],"task_condition":{}})"));
    ASSERT_TRUE(dualStack.Parse(R"({"monitor_list":[],"task_condition":{},"dual_stack_occupancy":true})"));
    Engine::CollectPortInfoTask task;
    RunIn(*m_cap, [&] {
        for (const auto& [port, address, v6only, type, answers] : sockets) {
            const bool v6 = strchr(address, ':') != nullptr;
            const int fd = socket(v6 ? AF_INET6 : AF_INET, type == SOCK_DGRAM ? SOCK_DGRAM : SOCK_STREAM, 0);
            m_fds.push_back(fd);
            setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6only, sizeof(v6only));  // refused on IPv4
            sockaddr_in6 at{};  // an IPv4 socket's port lies where an IPv6 one's does, its address is 0
            at.sin6_family = v6 ? AF_INET6 : AF_INET;
            at.sin6_port = htons(port);
            ASSERT_TRUE(!v6 || inet_pton(AF_INET6, address, &at.sin6_addr) == 1);
            ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&at), v6 ? sizeof(at) : sizeof(sockaddr_in)))
                << port;
            ASSERT_TRUE(type != SOCK_STREAM || listen(fd, 4) == 0);
        }
        for (const auto& [port, address, v6only, type, answers] : sockets) {
            for (int protocol : {0, 1}) {
                Answers got{7, 7, 7};
                task.SetTaskPolicy(&plain);
                task.CheckPortStatus(port, got[0], protocol);
                task.SetTaskPolicy(&dualStack);
                task.CheckPortStatus(port, got[1], protocol);
                task.CheckPortStatus6(port, got[2], protocol);
                EXPECT_EQ(protocol == (type == SOCK_DGRAM ? 1 : 0) ? answers : (Answers{1, 1, 1}), got)
                    << port << "/" << protocol;
            }
        }
    });
    // A gatewayed route inside this isolated namespace (no default route); nothing is sent along it.
    TestSupport::MustRun({"ip", "-n", m_cap->Name(), "route", "add", "10.99.0.0/16", "via", "10.231.0.254"});
    std::vector<Engine::RouteTable> table;
    bool result = true;
    RunIn(*m_cap, [&] { result = Engine::IPUtil::GetRouteTable(table); });
    EXPECT_FALSE(result);         // inverted: a completed dump answers false
    ASSERT_EQ(2u, table.size());  // the local table's routes are skipped
    std::sort(table.begin(), table.end(), [](auto& a, auto& b) { return a.dstLen < b.dstLen; });
    EXPECT_EQ(std::make_tuple(16, inet_addr("10.99.0.0"), inet_addr("10.231.0.254"), std::string("vcap")),
              std::make_tuple(table[0].dstLen, table[0].dst, table[0].gateway, table[0].ifName));
    EXPECT_EQ(std::make_tuple(24, inet_addr("10.231.0.0"), 0u, std::string("vcap")),
              std::make_tuple(table[1].dstLen, table[1].dst, table[1].gateway, table[1].ifName));
}

}  // namespace
