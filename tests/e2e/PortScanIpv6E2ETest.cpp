// IPv6 capture against real scanners: hostagent with the port-scan module runs in a network namespace
// of its own, nmap reaches it from a neighbour namespace over IPv6 (unique-local and documentation
// prefixes, only between the two namespaces, no default route) and over IPv4. Two agent runs with the
// same policy (every opt-in switch on, so alarms leave at once): with "ipv6" on, a white-listed and a
// global scanner raise nothing, a unique-local scanner raises one alarm per watched port, a port an
// IPv6 listener takes raises nothing; with "ipv6" absent, IPv6 scans raise nothing and IPv4 scans
// raise exactly their alarms.

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <tuple>

#include "ScanLab.h"
#include "support/NetLab.h"

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

const unsigned kFirstTcpPort = 2501;
const unsigned kTcpPortCount = 4;
const unsigned kListenedPort = 2505;  // an IPv6 listener takes it once capture runs
const unsigned kUdpPort = 2500;       // numbered below the TCP ports
const int kTcpSourcePort = 42001;
const int kUdpSourcePort = 42002;

std::string PolicyText(bool ipv6) {
    std::vector<std::pair<unsigned, int>> watched;
    for (unsigned port = kFirstTcpPort; port < kFirstTcpPort + kTcpPortCount; ++port) {
        watched.emplace_back(port, 0);
    }
    watched.emplace_back(kListenedPort, 0);
    watched.emplace_back(kUdpPort, 1);
    Json::Value task = SwitchesOnTask(watched);
    task["white_ip6_list"] = kWhiteScanner6;
    if (ipv6) {
        task["ipv6"] = true;
    }
    return FeaturePolicyText(task, ipv6 ? "ipv6-on" : "ipv6-off");
}

std::string TcpPorts() {
    return std::to_string(kFirstTcpPort) + "-" + std::to_string(kFirstTcpPort + kTcpPortCount - 1);
}

class PortScanIpv6E2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: it builds network namespaces and runs raw-socket scanners";
        }
        for (const char* tool : {"ip", "ss", "nmap", "nc"}) {
            if (FindProgram(tool).empty()) {
                GTEST_SKIP() << tool << " is missing (scripts/install-deps.sh installs it)";
            }
        }
        RemoveStaleNamespaces("e2v");
        const std::string tag = std::to_string(getpid());
        m_mon = std::make_unique<NetNs>("e2v" + tag + "-mon");
        m_scanner = std::make_unique<NetNs>("e2v" + tag + "-scan");
        AddVethPair(*m_mon, "to-scan", std::string(kMonitored4) + "/24", *m_scanner, "eth0",
                    std::string(kScanner4) + "/24");
        // No duplicate address detection: the addresses are usable at once.
        for (const auto& [ns, device, address] :
             {std::make_tuple(m_mon.get(), "to-scan", kMonitored6),
              std::make_tuple(m_mon.get(), "to-scan", kGlobalMonitored6),
              std::make_tuple(m_scanner.get(), "eth0", kScanner6),
              std::make_tuple(m_scanner.get(), "eth0", kWhiteScanner6),
              std::make_tuple(m_scanner.get(), "eth0", kGlobalScanner6)}) {
            MustRun({"ip", "-n", ns->Name(), "addr", "add", std::string(address) + "/64", "dev", device,
                     "nodad"});
        }
    }

    // Starts the agent with the policy; returns once its capture filters are attached.
    std::unique_ptr<Child> StartAgent(const TempDir& dir, bool ipv6) {
        WriteFile(dir.File("agent.json"), AgentConfigText(PORTSCAN_MODULE_PATH));
        WriteFile(dir.File("portscan.json"), PolicyText(ipv6));
        auto agent = std::make_unique<Child>(
            std::vector<std::string>{HOSTAGENT_PATH, "--config", dir.File("agent.json")}, m_mon->Name(),
            dir.File("agent.out"), dir.File("agent.err"));
        EXPECT_TRUE(WaitForLine(dir.File("log/hostagent.log"), "Reload BPF rules", Seconds(30)))
            << "no capture filter loaded; agent stderr:\n"
            << ReadFile(dir.File("agent.err"));
        EXPECT_TRUE(WaitUntil(
            [&] {
                return Contains(FilterPorts(AttachedFilter(m_mon->Name(), agent->Pid(), "ip")), kUdpPort);
            },
            Seconds(10)))
            << "no IPv4 filter attached to the agent's packet socket";
        return agent;
    }

    // One nmap run from the scanner namespace (`source`: the address to send from, empty for its own).
    void Nmap(const std::vector<std::string>& kind, const std::string& ports, int sourcePort,
              const std::string& target, const std::string& source = "") {
        std::vector<std::string> argv = {"nmap"};
        argv.insert(argv.end(), kind.begin(), kind.end());
        for (const std::string& arg :
             {std::string("-Pn"), std::string("-n"), std::string("-p"), ports, std::string("-g"),
              std::to_string(sourcePort), std::string("--max-retries"), std::string("1"),
              std::string("--host-timeout"), std::string("30s")}) {
            argv.push_back(arg);
        }
        if (!source.empty()) {
            argv.insert(argv.end(), {"-S", source, "-e", "eth0"});
        }
        argv.push_back(target);
        const RunResult result = TestSupport::Run(argv, m_scanner->Name(), Seconds(60));
        EXPECT_EQ(0, result.code) << result.output;
    }

    static void Stop(Child& agent) {
        agent.Signal(SIGTERM);
        const std::optional<int> code = agent.WaitExit(Seconds(30));
        ASSERT_TRUE(code) << "the agent did not stop within 30 s of SIGTERM";
        EXPECT_EQ(0, *code);
    }

    // Waits until the alarm file holds `count` alarms; they are returned.
    static std::vector<Json::Value> WaitForAlarms(const TempDir& dir, size_t count) {
        std::vector<Json::Value> alarms;
        EXPECT_TRUE(WaitUntil(
            [&] {
                alarms = ReadAlarms(dir.File("alarms.jsonl"));
                return alarms.size() >= count;
            },
            Seconds(10)))
            << "alarms so far: " << alarms.size() << "\nlog tail:\n"
            << MustRun({"tail", "-n", "40", dir.File("log/hostagent.log")});
        return alarms;
    }

    // One alarm per watched TCP port and one for the UDP port, all from `remote` to `local`.
    void ExpectScanAlarms(const std::vector<Json::Value>& alarms, const std::string& local,
                          const std::string& remote) {
        EXPECT_EQ(kTcpPortCount + 1, alarms.size());
        const std::multiset<unsigned> ports = AlarmPorts(alarms);
        for (unsigned port = kFirstTcpPort; port < kFirstTcpPort + kTcpPortCount; ++port) {
            EXPECT_EQ(1u, ports.count(port)) << port;
        }
        EXPECT_EQ(1u, ports.count(kUdpPort));
        for (const Json::Value& alarm : alarms) {
            SCOPED_TRACE(alarm.toStyledString());
            const bool udp = AlarmPort(alarm) == kUdpPort;
            const Json::Value& network = alarm["network_info"];
            EXPECT_EQ(udp ? "portscan_0001" : "portscan_0002", alarm["event_classid"].asString());
            EXPECT_EQ(udp ? "UDP" : "TCP", network["protocol"].asString());
            EXPECT_EQ(udp ? "" : "SYN", network["app_protocol"].asString());
            EXPECT_EQ(local, network["local_address"].asString());
            EXPECT_EQ(remote, network["remote_address"].asString());
            EXPECT_EQ(udp ? kUdpSourcePort : kTcpSourcePort, network["remote_port"].asInt());
            EXPECT_TRUE(network["local_port"].isUInt() && alarm["occur_time"].isInt64() &&
                        alarm["event_count"].isInt() && alarm["event_id"].isString());
        }
    }

    static void KeepOnFailure(TempDir& dir, bool failed) {
        if (failed) {
            dir.Keep();
            std::cerr << "agent files kept in " << dir.Path() << "\n";
        }
    }

    std::unique_ptr<NetNs> m_mon;
    std::unique_ptr<NetNs> m_scanner;
};

TEST_F(PortScanIpv6E2E, Ipv6ScansAlarmLikeIpv4OnesOnlyWithTheKey) {
    {
        SCOPED_TRACE("ipv6 on");
        TempDir dir;
        const std::string log = dir.File("log/hostagent.log");
        std::unique_ptr<Child> agent = StartAgent(dir, true);
        ASSERT_FALSE(HasFailure());
        std::vector<BpfInsn> filter6;
        ASSERT_TRUE(WaitUntil(
            [&] {
                filter6 = AttachedFilter(m_mon->Name(), agent->Pid(), "ipv6");
                return Contains(FilterPorts6(filter6), kUdpPort);
            },
            Seconds(10)))
            << "no IPv6 filter attached";
        EXPECT_EQ(kTcpPortCount + 2, FilterPorts6(filter6).size());
        // The first word of the monitored unique-local address is among the address tests.
        EXPECT_TRUE(std::any_of(filter6.begin(), filter6.end(), [](const BpfInsn& insn) {
            return insn.code == 0x15 && insn.k == 0xfd000079u;
        }));

        // A white-listed and a global scanner: every probe is classified safe, none is evidence.
        Nmap({"-6", "-sS"}, TcpPorts(), kTcpSourcePort, kMonitored6, kWhiteScanner6);
        Nmap({"-6", "-sS"}, TcpPorts(), kTcpSourcePort, kGlobalMonitored6, kGlobalScanner6);
        const std::string white = std::string("[PortScan] white ip found (") + kWhiteScanner6 + ")";
        EXPECT_TRUE(WaitUntil(
            [&] {
                const std::string text = ReadFile(log);
                auto count = [&text](const std::string& needle) {
                    size_t n = 0;
                    for (auto at = text.find(needle); at != std::string::npos;
                         at = text.find(needle, at + 1)) {
                        ++n;
                    }
                    return n;
                };
                // Each classifier tests the white list; the half-open one alone names a safe probe.
                return count(white) >= 2 * kTcpPortCount &&
                       count("[PortScan] safe pkt found") >= 2 * kTcpPortCount;
            },
            Seconds(10)));
        EXPECT_TRUE(ReadAlarms(dir.File("alarms.jsonl")).empty());

        // A listener takes a watched port after the list was built: its probe counts as traffic to a
        // port in use.
        Child listener({"nc", "-6", "-lk", std::to_string(kListenedPort)}, m_mon->Name(), "/dev/null",
                       "/dev/null");
        ASSERT_TRUE(WaitUntil(
            [&] {
                return TestSupport::Run({"ss", "-ltnH", "sport = :" + std::to_string(kListenedPort)},
                                        m_mon->Name())
                           .output.find("LISTEN") != std::string::npos;
            },
            Seconds(10)));

        // The unique-local scanner: one alarm per watched closed port, none for the listened one.
        Nmap({"-6", "-sS"}, TcpPorts() + "," + std::to_string(kListenedPort), kTcpSourcePort, kMonitored6,
             kScanner6);
        EXPECT_TRUE(WaitForLine(log, "[PortScan] Port Occupied", Seconds(10)));
        Nmap({"-6", "-sU"}, std::to_string(kUdpPort), kUdpSourcePort, kMonitored6, kScanner6);
        WaitForAlarms(dir, kTcpPortCount + 1);
        Stop(*agent);
        // Read after the agent ended: an alarm for the listened port would be there by now.
        ExpectScanAlarms(ReadAlarms(dir.File("alarms.jsonl")), kMonitored6, kScanner6);
        KeepOnFailure(dir, HasFailure());
    }
    {
        SCOPED_TRACE("ipv6 absent");
        TempDir dir;
        std::unique_ptr<Child> agent = StartAgent(dir, false);
        ASSERT_FALSE(HasFailure());
        EXPECT_TRUE(AttachedFilter(m_mon->Name(), agent->Pid(), "ipv6").empty())
            << "an IPv6 filter without the key";
        // IPv6 scans first: had they been seen, their evidence would name the IPv6 scanner.
        Nmap({"-6", "-sS"}, TcpPorts(), kTcpSourcePort, kMonitored6, kScanner6);
        Nmap({"-6", "-sU"}, std::to_string(kUdpPort), kUdpSourcePort, kMonitored6, kScanner6);
        Nmap({"-sS"}, TcpPorts(), kTcpSourcePort, kMonitored4);
        Nmap({"-sU"}, std::to_string(kUdpPort), kUdpSourcePort, kMonitored4);
        WaitForAlarms(dir, kTcpPortCount + 1);
        Stop(*agent);
        ExpectScanAlarms(ReadAlarms(dir.File("alarms.jsonl")), kMonitored4, kScanner4);
        KeepOnFailure(dir, HasFailure());
    }
}

}  // namespace
