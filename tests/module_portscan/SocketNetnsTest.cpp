// The socket layer against the kernel. Every test builds two fresh network namespaces joined by a
// veth pair (capture side 10.231.0.1/24 on "vcap", peer 10.231.0.2/24 on "vpeer", no default
// route unless a test adds one to read it back), crafts frames on the peer's packet socket, and
// removes both namespaces afterwards. Needs root; skips itself otherwise.

#include "IPUtil.h"
#include "SockTestSupport.h"
#include "SocketUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/if_packet.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

using Engine::IPUtil;
using Engine::PacketNode;
using Engine::RouteTable;
using Engine::SocketUtil;
using SockTest::BuildFrame;
using SockTest::FrameFields;
using SockTest::HostOrder;
using SockTest::LogTap;

namespace {

// Bound for every wait on the capture socket: a frame crossing the veth pair arrives far sooner.
constexpr int kQuietMs = 300;

bool Shell(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

uint16_t FrameId(const std::vector<char>& frame) {
    return static_cast<uint16_t>(static_cast<unsigned char>(frame[18]) << 8 |
                                 static_cast<unsigned char>(frame[19]));
}

class NetnsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root to create network namespaces and veth pairs";
        }
        static int counter = 0;
        const std::string suffix = std::to_string(getpid()) + "_" + std::to_string(counter++);
        m_cap = "sockcap_" + suffix;
        m_peer = "sockpeer_" + suffix;
        if (!Shell("ip netns add " + m_cap)) {
            GTEST_SKIP() << "cannot create network namespaces on this machine";
        }
        m_created.push_back(m_cap);
        ASSERT_TRUE(Shell("ip netns add " + m_peer));
        m_created.push_back(m_peer);
        ASSERT_TRUE(Shell("ip link add vcap netns " + m_cap + " type veth peer name vpeer netns " + m_peer));
        ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 10.231.0.1/24 dev vcap"));
        ASSERT_TRUE(Shell("ip -n " + m_peer + " addr add 10.231.0.2/24 dev vpeer"));
        for (const auto& [ns, dev] : {std::pair{m_cap, "vcap"}, std::pair{m_peer, "vpeer"}}) {
            ASSERT_TRUE(Shell("ip -n " + ns + " link set lo up"));
            ASSERT_TRUE(Shell("ip -n " + ns + " link set " + dev + " up"));
        }
        RunIn(m_cap, [this] {
            m_capIndex = if_nametoindex("vcap");
            int fd = socket(AF_INET, SOCK_DGRAM, 0);
            ifreq request{};
            strncpy(request.ifr_name, "vcap", IFNAMSIZ - 1);
            ASSERT_EQ(ioctl(fd, SIOCGIFHWADDR, &request), 0);
            memcpy(m_capMac, request.ifr_hwaddr.sa_data, 6);
            close(fd);
        });
    }

    void TearDown() override {
        for (int fd : m_fds) {
            close(fd);
        }
        for (const auto& ns : m_created) {
            Shell("ip netns del " + ns);
        }
    }

    // Runs `work` on a helper thread that has entered the namespace `ns`.
    static void RunIn(const std::string& ns, const std::function<void()>& work) {
        std::thread helper([&] {
            int fd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
                ADD_FAILURE() << "cannot enter namespace " << ns;
                if (fd >= 0) {
                    close(fd);
                }
                return;
            }
            close(fd);
            work();
        });
        helper.join();
    }

    // Capture socket as the collection task sets it up, created inside the capture namespace.
    int OpenCapture(const std::vector<long>& ports) {
        int fd = -1;
        RunIn(m_cap, [&] {
            SocketUtil::CreateRawSocket(fd);
            ASSERT_GE(fd, 0);
            EXPECT_EQ(SocketUtil::BindPort(fd, "vcap"), 0);
            EXPECT_TRUE(SocketUtil::LoadPortBpfRules(fd, ports));
            SocketUtil::ClearSocketBuff(fd);
        });
        if (fd >= 0) {
            m_fds.push_back(fd);
        }
        return fd;
    }

    FrameFields Probe(uint16_t id, uint8_t protocol, uint16_t port) const {
        FrameFields fields;
        fields.src = "10.231.0.2";
        fields.dst = "10.231.0.1";
        fields.protocol = protocol;
        fields.dstPort = port;
        fields.id = id;
        fields.payload = 60;  // longer than the 60 bytes the filter keeps
        memcpy(fields.dstMac, m_capMac, 6);
        return fields;
    }

    void SendFromPeer(const std::vector<std::vector<char>>& frames) {
        RunIn(m_peer, [&] {
            int fd = socket(AF_PACKET, SOCK_RAW, 0);
            ASSERT_GE(fd, 0);
            sockaddr_ll to{};
            to.sll_family = AF_PACKET;
            to.sll_ifindex = static_cast<int>(if_nametoindex("vpeer"));
            to.sll_halen = 6;
            memcpy(to.sll_addr, m_capMac, 6);
            for (const auto& frame : frames) {
                EXPECT_EQ(
                    sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)),
                    static_cast<ssize_t>(frame.size()));
            }
            close(fd);
        });
    }

    static std::vector<std::vector<char>> Drain(int fd) {
        std::vector<std::vector<char>> frames;
        for (int i = 0; i < 2000; ++i) {
            pollfd entry{fd, POLLIN, 0};
            if (poll(&entry, 1, kQuietMs) <= 0) {
                break;
            }
            char buffer[2048];
            ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
            if (count < 0) {
                break;
            }
            frames.emplace_back(buffer, buffer + count);
        }
        return frames;
    }

    static std::vector<sock_filter> ReadFilter(int fd) {
        std::vector<sock_filter> program(1024);
        socklen_t count = static_cast<socklen_t>(program.size());
        if (getsockopt(fd, SOL_SOCKET, SO_GET_FILTER, program.data(), &count) != 0) {
            return {};
        }
        program.resize(count);
        return program;
    }

    struct Expectation {
        const char* what;
        FrameFields fields;
        bool admitted;
    };

    // Sends every probe from the peer and checks that exactly the admitted ones arrive, cut to 60
    // bytes, and parse as the frames that were sent.
    void ExpectAdmitted(int fd, const std::vector<Expectation>& probes) {
        std::vector<std::vector<char>> frames;
        std::set<uint16_t> expected;
        for (const auto& probe : probes) {
            frames.push_back(BuildFrame(probe.fields));
            if (probe.admitted) {
                expected.insert(probe.fields.id);
            }
        }
        SendFromPeer(frames);
        std::set<uint16_t> received;
        for (const auto& frame : Drain(fd)) {
            ASSERT_GE(frame.size(), 20u);
            const uint16_t id = FrameId(frame);
            received.insert(id);
            EXPECT_EQ(frame.size(), 60u) << "frame " << id;
            for (const auto& probe : probes) {
                if (probe.fields.id != id) {
                    continue;
                }
                SCOPED_TRACE(probe.what);
                std::vector<char> sent = BuildFrame(probe.fields);
                EXPECT_TRUE(std::equal(frame.begin(), frame.end(), sent.begin()));
                std::vector<char> buffer(100, 0);
                std::copy(frame.begin(), frame.end(), buffer.begin());
                PacketNode node{};
                ASSERT_TRUE(SocketUtil::ParsePacket(buffer.data(), buffer.size(), &node));
                EXPECT_EQ(node.localPort, probe.fields.dstPort);
                EXPECT_EQ(node.localAddress.s_addr, inet_addr(probe.fields.dst.c_str()));
                EXPECT_EQ(node.type, probe.fields.protocol == IPPROTO_UDP ? 1 : 0);
            }
        }
        for (const auto& probe : probes) {
            EXPECT_EQ(received.count(probe.fields.id) == 1, probe.admitted) << probe.what;
        }
        EXPECT_EQ(received, expected);
    }

    std::string m_cap;
    std::string m_peer;
    std::vector<std::string> m_created;
    std::vector<int> m_fds;
    unsigned int m_capIndex = 0;
    unsigned char m_capMac[6] = {};
};

// ---- Capture socket and filter -------------------------------------------------------------

TEST_F(NetnsTest, FilterAdmitsProbesOfWatchedPortsOnly) {
    const int fd = OpenCapture({4001, 4002});
    ASSERT_GE(fd, 0);

    // One local address (N = 1) and two ports (P = 2): 17 instructions.
    const unsigned int local = HostOrder("10.231.0.1");
    const std::vector<sock_filter> expected = {
        {0x28, 0, 0, 12}, {0x15, 0, 14, 0x800}, {0x30, 0, 0, 23}, {0x15, 1, 0, 6},    {0x15, 0, 11, 17},
        {0x28, 0, 0, 20}, {0x45, 9, 0, 0x1fff}, {0xb1, 0, 0, 14}, {0x20, 0, 0, 30},   {0x15, 0, 6, local},
        {0x20, 0, 0, 26}, {0x15, 4, 0, local},  {0x48, 0, 0, 16}, {0x15, 1, 0, 4001}, {0x15, 0, 1, 4002},
        {0x06, 0, 0, 60}, {0x06, 0, 0, 0},
    };
    const auto program = ReadFilter(fd);
    ASSERT_EQ(program.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(program[i].code, expected[i].code) << i;
        EXPECT_EQ(program[i].jt, expected[i].jt) << i;
        EXPECT_EQ(program[i].jf, expected[i].jf) << i;
        EXPECT_EQ(program[i].k, expected[i].k) << i;
    }

    std::vector<Expectation> probes;
    probes.push_back({"tcp syn to a watched port", Probe(1, IPPROTO_TCP, 4001), true});
    probes.push_back({"udp to a watched port", Probe(2, IPPROTO_UDP, 4002), true});
    probes.push_back({"tcp to an unwatched port", Probe(3, IPPROTO_TCP, 4003), false});
    probes.push_back({"udp to an unwatched port", Probe(4, IPPROTO_UDP, 4000), false});
    auto fromLocal = Probe(5, IPPROTO_TCP, 4001);
    fromLocal.src = "10.231.0.1";
    probes.push_back({"from a local source", fromLocal, false});
    auto toForeign = Probe(6, IPPROTO_TCP, 4001);
    toForeign.dst = "10.231.0.77";
    probes.push_back({"to a non-local destination", toForeign, false});
    auto laterFragment = Probe(7, IPPROTO_TCP, 4001);
    laterFragment.fragment = 0x0064;
    probes.push_back({"non-first fragment", laterFragment, false});
    probes.push_back({"icmp", Probe(8, IPPROTO_ICMP, 0), false});
    auto firstFragment = Probe(9, IPPROTO_TCP, 4001);
    firstFragment.fragment = 0x2000;
    probes.push_back({"first fragment with more-fragments", firstFragment, true});
    auto withOptions = Probe(10, IPPROTO_TCP, 4002);
    withOptions.ihl = 7;
    probes.push_back({"ip options move the ports", withOptions, true});
    auto notIpv4 = Probe(11, IPPROTO_TCP, 4001);
    notIpv4.etherType = 0x86DD;
    probes.push_back({"not ipv4", notIpv4, false});
    auto dontFragment = Probe(12, IPPROTO_UDP, 4001);
    dontFragment.fragment = 0x4000;
    probes.push_back({"don't-fragment bit", dontFragment, true});
    ExpectAdmitted(fd, probes);
}

TEST_F(NetnsTest, EmptyPortListAdmitsEveryProbeFromForeignHosts) {
    const int fd = OpenCapture({});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadFilter(fd).size(), 15u);

    std::vector<Expectation> probes;
    probes.push_back({"tcp to any port", Probe(1, IPPROTO_TCP, 9999), true});
    probes.push_back({"udp to any port", Probe(2, IPPROTO_UDP, 1), true});
    auto fromLocal = Probe(3, IPPROTO_UDP, 53);
    fromLocal.src = "10.231.0.1";
    probes.push_back({"from a local source", fromLocal, false});
    probes.push_back({"icmp", Probe(4, IPPROTO_ICMP, 0), false});
    auto laterFragment = Probe(5, IPPROTO_UDP, 53);
    laterFragment.fragment = 0x2001;
    probes.push_back({"non-first fragment", laterFragment, false});
    auto toForeign = Probe(6, IPPROTO_TCP, 80);
    toForeign.dst = "10.231.0.2";
    probes.push_back({"to the peer's address", toForeign, false});
    ExpectAdmitted(fd, probes);
}

TEST_F(NetnsTest, SeveralLocalAddressesAreAllTested) {
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 10.231.0.3/24 dev vcap"));
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 10.231.0.4/24 dev vcap"));
    const int fd = OpenCapture({4001});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadFilter(fd).size(), 2u * 3 + 1 + 13);

    std::vector<Expectation> probes;
    uint16_t id = 1;
    for (const char* local : {"10.231.0.1", "10.231.0.3", "10.231.0.4"}) {
        auto to = Probe(id++, IPPROTO_TCP, 4001);
        to.dst = local;
        probes.push_back({"to a local address", to, true});
        auto from = Probe(id++, IPPROTO_TCP, 4001);
        from.src = local;
        probes.push_back({"from a local address", from, false});
    }
    auto toForeign = Probe(id++, IPPROTO_TCP, 4001);
    toForeign.dst = "10.231.0.5";
    probes.push_back({"to a non-local destination", toForeign, false});
    ExpectAdmitted(fd, probes);
}

TEST_F(NetnsTest, NoLocalAddressMeansNoAddressTest) {
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr flush dev vcap"));
    const int fd = OpenCapture({4001});
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ReadFilter(fd).size(), 1u + 13);

    std::vector<Expectation> probes;
    auto anywhere = Probe(1, IPPROTO_TCP, 4001);
    anywhere.dst = "10.231.0.99";
    probes.push_back({"any destination", anywhere, true});
    probes.push_back({"unwatched port", Probe(2, IPPROTO_TCP, 4002), false});
    ExpectAdmitted(fd, probes);
}

TEST_F(NetnsTest, ProgramLengthBound) {
    LogTap log;
    const int fd = OpenCapture({4001});
    ASSERT_GE(fd, 0);
    // N = 1: P + 2N + 10 may reach 255 exactly.
    std::vector<long> ports(243);
    for (size_t i = 0; i < ports.size(); ++i) {
        ports[i] = 5000 + static_cast<long>(i);
    }
    bool attached = false;
    RunIn(m_cap, [&] { attached = SocketUtil::LoadPortBpfRules(fd, ports); });
    ASSERT_TRUE(attached);
    const auto program = ReadFilter(fd);
    ASSERT_EQ(program.size(), 2u + 243 + 13);
    EXPECT_EQ(program[1].jf, 255);
    EXPECT_EQ(program[11].jt, 243 + 2);
    EXPECT_EQ(program[13].jt, 242);

    std::vector<Expectation> probes;
    probes.push_back({"first port", Probe(1, IPPROTO_TCP, 5000), true});
    probes.push_back({"last port", Probe(2, IPPROTO_UDP, 5242), true});
    probes.push_back({"one past", Probe(3, IPPROTO_TCP, 5243), false});
    ExpectAdmitted(fd, probes);

    // One more port would need a 256-instruction jump: refused, the old program stays.
    ports.push_back(6000);
    log.Clear();
    RunIn(m_cap, [&] { attached = SocketUtil::LoadPortBpfRules(fd, ports); });
    EXPECT_FALSE(attached);
    EXPECT_EQ(ReadFilter(fd).size(), 2u + 243 + 13);
    auto lines = log.Module();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text,
              "[SocketUtil] Too many ports or addresses for the filter (ports 244, addresses 1)");
    EXPECT_EQ(lines[0].priority, Poco::Message::PRIO_ERROR);
}

TEST_F(NetnsTest, ClearSocketBuffDropsAtMost301Frames) {
    const int fd = OpenCapture({4001});
    ASSERT_GE(fd, 0);
    const int big = 8 << 20;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)), 0);
    tpacket_stats reset{};
    socklen_t size = sizeof(reset);
    ASSERT_EQ(getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &reset, &size), 0);

    std::vector<std::vector<char>> frames;
    for (uint16_t id = 1; id <= 305; ++id) {
        frames.push_back(BuildFrame(Probe(id, IPPROTO_UDP, 4001)));
    }
    SendFromPeer(frames);
    // Wait (bounded) until the kernel has queued all of them.
    unsigned int queued = 0;
    unsigned int dropped = 0;
    for (int i = 0; i < 100 && queued < 305; ++i) {
        tpacket_stats stats{};
        size = sizeof(stats);
        ASSERT_EQ(getsockopt(fd, SOL_PACKET, PACKET_STATISTICS, &stats, &size), 0);
        queued += stats.tp_packets;
        dropped += stats.tp_drops;
        if (queued < 305) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ASSERT_EQ(queued, 305u);
    ASSERT_EQ(dropped, 0u);

    SocketUtil::ClearSocketBuff(fd);
    EXPECT_EQ(Drain(fd).size(), 4u);
    SocketUtil::ClearSocketBuff(fd);  // nothing queued: returns at once
    EXPECT_TRUE(Drain(fd).empty());
}

TEST(SocketUtilPrivileged, CreateRawSocketFailureCountsDown) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: drops CAP_NET_RAW from a helper thread to make socket creation fail";
    }
    LogTap log;
    int fd = 7;
    std::thread helper([&] {
        // Capabilities are per thread: only this helper loses CAP_NET_RAW.
        __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
        __user_cap_data_struct data[2] = {};
        ASSERT_EQ(syscall(SYS_capget, &header, data), 0);
        data[CAP_NET_RAW / 32].effective &= ~(1u << (CAP_NET_RAW % 32));
        ASSERT_EQ(syscall(SYS_capset, &header, data), 0);
        SocketUtil::CreateRawSocket(fd);
    });
    helper.join();
    EXPECT_EQ(fd, -1);
    std::vector<std::string> expected;
    for (int left = 10; left >= 1; --left) {
        expected.push_back("[PortScan] CreateSocket return ERR! Retry (" + std::to_string(left) + ") times");
    }
    EXPECT_EQ(LogTap::Texts(log.Module()), expected);
}

// ---- Socket diagnostics --------------------------------------------------------------------

struct QueryOutcome {
    bool sent = false;
    bool received = false;
    int result = -1;
};

QueryOutcome Query(unsigned short port, int protocol) {
    QueryOutcome outcome;
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        return outcome;
    }
    outcome.sent = SocketUtil::SendNetlinkMsgQuery(fd, port, protocol, SOCK_DIAG_BY_FAMILY);
    if (outcome.sent) {
        outcome.received = SocketUtil::RecvNetLinkMsgQuery(fd, outcome.result, protocol);
    }
    close(fd);
    return outcome;
}

int BoundSocket(int type, unsigned short port) {
    int fd = socket(AF_INET, type, 0);
    if (fd < 0) {
        return -1;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

TEST_F(NetnsTest, SocketDiagnosticsFindPortOwners) {
    RunIn(m_cap, [&] {
        const int listener = BoundSocket(SOCK_STREAM, 4100);
        ASSERT_GE(listener, 0);
        ASSERT_EQ(listen(listener, 4), 0);
        const int boundOnly = BoundSocket(SOCK_STREAM, 4102);  // neither listening nor connected
        ASSERT_GE(boundOnly, 0);
        const int udp = BoundSocket(SOCK_DGRAM, 4103);
        ASSERT_GE(udp, 0);
        m_fds.insert(m_fds.end(), {listener, boundOnly, udp});

        struct Case {
            const char* what;
            unsigned short port;
            int protocol;
            int result;
        };
        const Case cases[] = {
            {"tcp listener", 4100, 0, 0},
            {"codes other than 1 ask for tcp (2)", 4100, 2, 0},
            {"codes other than 1 ask for tcp (-1)", 4100, -1, 0},
            {"udp asked, only tcp holds it", 4100, 1, 1},
            {"free port beside a bound-only socket", 4101, 0, 1},
            {"udp socket", 4103, 1, 0},
            {"tcp asked, only udp holds it", 4103, 0, 1},
        };
        for (const auto& c : cases) {
            SCOPED_TRACE(c.what);
            const QueryOutcome outcome = Query(c.port, c.protocol);
            EXPECT_TRUE(outcome.sent);
            EXPECT_TRUE(outcome.received);
            EXPECT_EQ(outcome.result, c.result);
        }
    });
}

// ---- Route dump ----------------------------------------------------------------------------

TEST_F(NetnsTest, RouteDumpReadsTheMainTable) {
    // The namespace is isolated: these routes only need to exist, nothing is sent along them.
    ASSERT_TRUE(Shell("ip -n " + m_cap + " route add default via 10.231.0.254 dev vcap"));
    ASSERT_TRUE(Shell("ip -n " + m_cap + " route add 10.232.0.0/16 via 10.231.0.254 dev vcap mtu 1400"));
    const unsigned int gateway = inet_addr("10.231.0.254");

    std::vector<RouteTable> table;
    std::vector<RouteTable> direct;
    int sent = -1;
    bool received = false;
    bool result = true;
    RunIn(m_cap, [&] {
        result = IPUtil::GetRouteTable(table);
        int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
        ASSERT_GE(fd, 0);
        sockaddr_nl kernel;
        sent = SocketUtil::SendNetlinkMsg(fd, &kernel);
        received = SocketUtil::RecvNetlinkMsg(fd, &kernel, direct);
        close(fd);
    });
    EXPECT_FALSE(result);  // a completed dump answers false
    EXPECT_EQ(sent, 17);
    EXPECT_TRUE(received);

    auto byDestination = [](const RouteTable& a, const RouteTable& b) {
        return ntohl(a.dst) < ntohl(b.dst) || (a.dst == b.dst && a.dstLen < b.dstLen);
    };
    for (auto* routes : {&table, &direct}) {
        std::sort(routes->begin(), routes->end(), byDestination);
        // Local-table routes (10.231.0.1, broadcasts, 127/8) are skipped.
        ASSERT_EQ(routes->size(), 3u);
        const RouteTable& def = (*routes)[0];
        EXPECT_EQ(def.dstLen, 0);
        EXPECT_EQ(def.dst, 0u);
        EXPECT_EQ(def.gateway, gateway);
        EXPECT_EQ(def.metrics, 0);
        const RouteTable& connected = (*routes)[1];
        EXPECT_EQ(connected.dstLen, 24);
        EXPECT_EQ(connected.dst, inet_addr("10.231.0.0"));
        EXPECT_EQ(connected.gateway, 0u);
        const RouteTable& remote = (*routes)[2];
        EXPECT_EQ(remote.dstLen, 16);
        EXPECT_EQ(remote.dst, inet_addr("10.232.0.0"));
        EXPECT_EQ(remote.gateway, gateway);
        // The first word of the metrics attribute is the header of its MTU entry.
        EXPECT_EQ(remote.metrics, 8 | (RTAX_MTU << 16));
        for (const auto& route : *routes) {
            EXPECT_EQ(route.ifIndex, static_cast<int>(m_capIndex));
            EXPECT_EQ(route.ifName, "vcap");
        }
    }

    std::string name;
    EXPECT_TRUE(IPUtil::GetInterfaceName({inet_addr("10.232.9.9")}, table, name));
    EXPECT_EQ(name, "vcap");
}

// ---- Local addresses -----------------------------------------------------------------------

TEST_F(NetnsTest, LocalAddressesOfTheNamespace) {
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 127.1.0.1/8 dev lo"));
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 127.0.0.9/8 dev lo"));
    ASSERT_TRUE(Shell("ip -n " + m_cap + " addr add 10.231.0.3/24 dev vcap"));

    std::vector<unsigned int> skip{42};
    std::vector<unsigned int> all;
    std::vector<unsigned int> localhost;
    std::vector<std::string> skipText{"stale"};
    std::vector<std::string> allText;
    RunIn(m_cap, [&] {
        EXPECT_TRUE(IPUtil::get_local_ip_list_hl(skip, true));
        EXPECT_TRUE(IPUtil::get_local_ip_list_hl(all, false));
        EXPECT_TRUE(IPUtil::GetLocalhostIp(localhost));
        EXPECT_TRUE(IPUtil::get_local_ip_list(skipText, true));
        EXPECT_TRUE(IPUtil::get_local_ip_list(allText, false));
    });
    auto sorted = [](auto list) {
        std::sort(list.begin(), list.end());
        return list;
    };
    const std::vector<unsigned int> kept = {HostOrder("10.231.0.1"), HostOrder("10.231.0.3"),
                                            HostOrder("127.1.0.1")};
    EXPECT_EQ(sorted(skip), kept);
    EXPECT_EQ(sorted(localhost), kept);
    EXPECT_EQ(sorted(all), sorted(std::vector<unsigned int>{HostOrder("10.231.0.1"), HostOrder("10.231.0.3"),
                                                            HostOrder("127.1.0.1"), HostOrder("127.0.0.1"),
                                                            HostOrder("127.0.0.9")}));
    EXPECT_EQ(sorted(skipText), (std::vector<std::string>{"10.231.0.1", "10.231.0.3", "127.1.0.1"}));
    EXPECT_EQ(sorted(allText),
              (std::vector<std::string>{"10.231.0.1", "10.231.0.3", "127.0.0.1", "127.0.0.9", "127.1.0.1"}));
}

}  // namespace
