// Opt-in switches and IPv6 capture, scanned over IPv6 and IPv4. With "ipv6": white-listed and global
// scanners raise nothing, a unique-local one an alarm per port, an IPv6 listener's port nothing. Without:
// IPv6 scans, later addresses and dual-stack clients raise nothing, unpaced IPv4 passes alarm at once.
// Live: IPv6-only listeners leave IPv4 evidence, new addresses are watched, bad edits refused, ipv6 off acts.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <set>
#include <thread>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored4 = "10.79.1.1";
const char* const kScanner4 = "10.79.1.2";
const char* const kMonitored6 = "fd00:79::1";
const char* const kScanner6 = "fd00:79::2";
const char* const kWhiteScanner6 = "fd00:79::3";
const char* const kGlobalMonitored6 = "2001:db8:79::1";
const char* const kGlobalScanner6 = "2001:db8:79::2";
const std::string kLaterAddress = "10.79.1.9";  // gained after the agent started

// Ten closed TCP ports for one SYN pass, a TCP port a dual-stack listener takes once capture runs,
// and a UDP port numbered below all of them (the order the set of records cannot search).
const unsigned kFirstTcpPort = 2501;
const unsigned kTcpPortCount = 10;
const unsigned kListenedPort = 2511;
const unsigned kUdpPort = 2500;
const int kTcpSourcePort = 42001;
const int kUdpSourcePort = 42002;
const std::string kTcpPorts = "2501-2510";

// The four opt-in switches on, ports checked before counting, an alarm at a port's first probe.
std::string SwitchesOnPolicy(const std::vector<std::pair<unsigned, int>>& watched, bool ipv6,
                             const std::string& more) {
    return FeaturePolicyText(ipv6 ? "ipv6-on" : "ipv6-off", watched,
                             R"({"check_port_before_alarm": true, "alarm_max_num": 0, "task_condition": {},
        "drain_socket_queue": true, "exact_port_lookup": true, "dual_stack_occupancy": true,
        "prompt_alarms": true, )" +
                                 more + (ipv6 ? R"(, "ipv6": true})" : "}"));
}

class PortScanIpv6E2E : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT("ip", "ss", "nmap", "nc", "python3");
        m_lab = std::make_unique<Lab>("e2v", kMonitored4, kScanner4);
        // Without duplicate address detection, usable at once.
        for (const std::string address : {kMonitored6, kGlobalMonitored6}) {
            MustRun(
                {"ip", "-n", m_lab->mon.Name(), "addr", "add", address + "/64", "dev", "to-scan", "nodad"});
        }
        for (const std::string address : {kScanner6, kWhiteScanner6, kGlobalScanner6}) {
            MustRun(
                {"ip", "-n", m_lab->scanner.Name(), "addr", "add", address + "/64", "dev", "eth0", "nodad"});
        }
    }

    // The agent with every switch on and "ipv6" as given, its IPv4 filter attached; then a dual-stack
    // listener on the listened port.
    void StartAgent(bool ipv6) {
        std::vector<std::pair<unsigned, int>> watched = {{kListenedPort, 0}, {kUdpPort, 1}};
        for (unsigned port = kFirstTcpPort; port < kFirstTcpPort + kTcpPortCount; ++port) {
            watched.emplace_back(port, 0);
        }
        m_started = time(nullptr);
        ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(
            SwitchesOnPolicy(watched, ipv6, R"("white_ip6_list": ")" + std::string(kWhiteScanner6) + "\"")));
        ASSERT_TRUE(
            WaitUntil([&] { return Contains(FilterPorts(m_lab->AgentFilter("ip")), kUdpPort); }, Seconds(10)))
            << "no IPv4 filter attached to the agent's packet socket";
        m_listener = std::make_unique<Child>(
            std::vector<std::string>{"nc", "-6", "-lk", std::to_string(kListenedPort)}, m_lab->mon.Name(),
            "/dev/null", "/dev/null");
        ASSERT_TRUE(m_lab->WaitListening(kListenedPort));
    }

    void Nmap(const std::string& kind, const std::string& ports, const std::string& target,
              const std::string& source = "") {
        m_lab->Nmap({kind}, ports, kind == "-sU" ? kUdpSourcePort : kTcpSourcePort, target, source);
    }

    // Once the agent ended: one alarm per watched port but the listened one, `remote` to `local`, each
    // sent before the first minute's tick.
    void StopAndExpectScanAlarms(const std::string& local, const std::string& remote) {
        m_lab->WaitForAlarms(kTcpPortCount + 1);
        m_lab->StopAgent();
        const std::vector<Json::Value> alarms = ReadAlarms(m_lab->AlarmFile());
        EXPECT_EQ(kTcpPortCount + 1, alarms.size());
        const std::multiset<unsigned> ports = AlarmPorts(alarms);
        EXPECT_EQ(kTcpPortCount + 1, std::set<unsigned>(ports.begin(), ports.end()).size());
        EXPECT_EQ(0u, ports.count(kListenedPort)) << "the listener's port was alarmed";
        for (const Json::Value& alarm : alarms) {
            const bool udp = AlarmPort(alarm) == kUdpPort;
            ExpectAlarm(alarm, AlarmPort(alarm), udp, local, remote, udp ? kUdpSourcePort : kTcpSourcePort,
                        m_started);
            EXPECT_LT(alarm["occur_time"].asInt64(), m_started + 60) << AlarmPort(alarm);
        }
    }

    std::unique_ptr<Lab> m_lab;
    std::unique_ptr<Child> m_listener;  // ends before the lab's namespaces
    long m_started = 0;
};

TEST_F(PortScanIpv6E2E, WithTheKeyIpv6ScansAlarmLikeIpv4Ones) {
    ASSERT_NO_FATAL_FAILURE(StartAgent(true));
    ASSERT_TRUE(WaitUntil([&] { return Contains(FilterPorts(m_lab->AgentFilter("ipv6"), true), kUdpPort); },
                          Seconds(10)))
        << "no IPv6 filter attached";

    // A white-listed and a global scanner: every probe is classified safe, none is evidence.
    Nmap("-sS", kTcpPorts, kMonitored6, kWhiteScanner6);
    Nmap("-sS", kTcpPorts, kGlobalMonitored6, kGlobalScanner6);
    EXPECT_TRUE(WaitUntil(
        [&] {
            const std::string text = ReadFile(m_lab->Log());
            // Each classifier tests the white list; the half-open one alone names a safe probe.
            return Occurrences(text, std::string("[PortScan] white ip found (") + kWhiteScanner6 + ")") >=
                       2 * kTcpPortCount &&
                   Occurrences(text, "[PortScan] safe pkt found") >= 2 * kTcpPortCount;
        },
        Seconds(10)));
    EXPECT_TRUE(ReadAlarms(m_lab->AlarmFile()).empty());

    // The unique-local scanner: one alarm per watched closed port, none for the listened one.
    Nmap("-sS", kTcpPorts + "," + std::to_string(kListenedPort), kMonitored6, kScanner6);
    EXPECT_TRUE(WaitForLine(m_lab->Log(), "[PortScan] Port Occupied", Seconds(10)));
    Nmap("-sU", std::to_string(kUdpPort), kMonitored6, kScanner6);
    StopAndExpectScanAlarms(kMonitored6, kScanner6);
}

TEST_F(PortScanIpv6E2E, WithoutTheKeyIpv6ScansRaiseNothingAndIpv4BurstsAlarmAtOnce) {
    ASSERT_NO_FATAL_FAILURE(StartAgent(false));
    EXPECT_TRUE(m_lab->AgentFilter("ipv6").empty()) << "an IPv6 filter without the key";
    // IPv6 scans first: had they been seen, their evidence would name the IPv6 scanner.
    Nmap("-sS", kTcpPorts, kMonitored6, kScanner6);
    Nmap("-sU", std::to_string(kUdpPort), kMonitored6, kScanner6);
    // An address gained after the start is not followed: alarms from its scan would name it.
    MustRun({"ip", "-n", m_lab->mon.Name(), "addr", "add", kLaterAddress + "/24", "dev", "to-scan"});
    Nmap("-sS", kTcpPorts, kLaterAddress);
    // One unpaced pass: the ten SYNs arrive together and each port raises its alarm at once.
    Nmap("-sS", kTcpPorts, kMonitored4);
    m_lab->WaitForAlarms(kTcpPortCount, Seconds(5));
    // A private client reaches the dual-stack listener over IPv4: traffic to a port in use.
    for (int connection = 0; connection < 2; ++connection) {
        m_lab->Scan({"nc", "-z", "-w", "3", kMonitored4, std::to_string(kListenedPort)});
    }
    EXPECT_TRUE(WaitForLine(m_lab->Log(), "[PortScan] Port Occupied", Seconds(10)));
    // Sent after the client's packets were handled: an alarm for the listener's port would precede it.
    Nmap("-sU", std::to_string(kUdpPort), kMonitored4);
    m_lab->WaitForAlarms(kTcpPortCount + 1, Seconds(5));
    StopAndExpectScanAlarms(kMonitored4, kScanner4);
}

TEST_F(PortScanIpv6E2E, SwitchesAndEditsTakeEffectWhileScansGoOn) {
    const unsigned kV6OnlyPort = 2601, kLaterAddressPort = 2602, kAfterBrokenEditPort = 2603,
                   kAfterIpv6OffPort = 2604;
    auto policy = [&](bool ipv6) {
        return SwitchesOnPolicy(
            {{kV6OnlyPort, 0}, {kLaterAddressPort, 0}, {kAfterBrokenEditPort, 0}, {kAfterIpv6OffPort, 0}},
            ipv6, R"("follow_address_changes": true)");
    };
    auto alarmedPorts = [&](size_t count) { return AlarmPorts(m_lab->WaitForAlarms(count)); };
    ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(policy(true)));
    ASSERT_TRUE(WaitUntil([&] { return !m_lab->AgentFilter("ipv6").empty(); }, Seconds(10)));

    // An IPv6-only socket on the port: no IPv4 client can reach it, so an IPv4 probe is evidence.
    m_listener = std::make_unique<Child>(
        std::vector<std::string>{"python3", "-c",
                                 "import socket,time; s=socket.socket(socket.AF_INET6); "
                                 "s.setsockopt(socket.IPPROTO_IPV6,socket.IPV6_V6ONLY,1); s.bind(('::'," +
                                     std::to_string(kV6OnlyPort) + ")); s.listen(); time.sleep(120)"},
        m_lab->mon.Name(), "/dev/null", "/dev/null");
    ASSERT_TRUE(m_lab->WaitListening(kV6OnlyPort));
    Nmap("-sS", std::to_string(kV6OnlyPort), kMonitored4);
    EXPECT_EQ(alarmedPorts(1).count(kV6OnlyPort), 1u) << ReadFile(m_lab->Log());

    // An address the host gains after the filters were built.
    MustRun({"ip", "-n", m_lab->mon.Name(), "addr", "add", kLaterAddress + "/24", "dev", "to-scan"});
    ASSERT_TRUE(
        WaitForLine(m_lab->Log(), "[PortScan] Local addresses changed, reloading filters", Seconds(10)));
    Nmap("-sS", std::to_string(kLaterAddressPort), kLaterAddress);
    EXPECT_EQ(alarmedPorts(2).count(kLaterAddressPort), 1u) << ReadFile(m_lab->Log());

    // A broken edit is refused; detection goes on with the policy in force.
    WriteFile(m_lab->dir.File("portscan.json"), "{\"content\": ");
    ASSERT_TRUE(WaitForLine(m_lab->Log(), "refused: not valid JSON", Seconds(10)));
    Nmap("-sS", std::to_string(kAfterBrokenEditPort), kMonitored4);
    EXPECT_EQ(alarmedPorts(3).count(kAfterBrokenEditPort), 1u) << ReadFile(m_lab->Log());

    // "ipv6" turned off with the same ports: the IPv6 socket goes at once, IPv6 probes are not seen.
    WriteFile(m_lab->dir.File("portscan.json"), policy(false));
    ASSERT_TRUE(WaitUntil([&] { return m_lab->AgentFilter("ipv6").empty(); }, Seconds(10)))
        << "the IPv6 socket stayed open";
    Nmap("-sS", std::to_string(kAfterIpv6OffPort), kMonitored6, kScanner6);
    std::this_thread::sleep_for(Seconds(3));
    EXPECT_EQ(AlarmPorts(ReadAlarms(m_lab->AlarmFile())).count(kAfterIpv6OffPort), 0u)
        << "an IPv6 probe alarmed with ipv6 off";
    m_lab->StopAgent();
}

}  // namespace
