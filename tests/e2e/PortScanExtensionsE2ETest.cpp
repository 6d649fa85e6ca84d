// The four opt-in switches of the task policy against real scanners: hostagent with the port-scan
// module runs in a network namespace of its own with every switch on, and nmap and nc reach it from
// a private neighbour namespace. One agent run, within the first minute (before any tick could
// send the alarms): an unpaced SYN pass over ten ports, a client of an IPv6 wildcard service, an
// unpaced UDP probe of a port numbered below the TCP ports.

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <iostream>
#include <memory>
#include <set>

#include "ScanLab.h"
#include "support/NetLab.h"

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitoredAddr = "10.78.1.1";
const char* const kScannerAddr = "10.78.1.2";

// Ten closed TCP ports for one SYN pass, a TCP port a dual-stack service takes once capture runs, and
// a UDP port numbered below all of them (the order the set of records cannot search).
const unsigned kFirstSynPort = 2401;
const unsigned kSynPortCount = 10;
const unsigned kDualStackPort = 2411;
const unsigned kLowUdpPort = 2300;

std::string PolicyText() {
    Json::Value list(Json::arrayValue);
    auto watch = [&list](unsigned port, int type) {
        Json::Value entry;
        entry["port"] = port;
        entry["type"] = type;
        list.append(entry);
    };
    for (unsigned port = kFirstSynPort; port < kFirstSynPort + kSynPortCount; ++port) {
        watch(port, 0);
    }
    watch(kDualStackPort, 0);
    watch(kLowUdpPort, 1);
    Json::Value task;
    task["monitor_list"] = list;
    task["check_port_before_alarm"] = true;
    task["alarm_max_num"] = 0;  // one probe per port is evidence enough: nmap sends one to a closed port
    task["task_condition"] = Json::Value(Json::objectValue);
    for (const char* key :
         {"drain_socket_queue", "exact_port_lookup", "dual_stack_occupancy", "prompt_alarms"}) {
        task[key] = true;
    }
    return FeaturePolicyText(task, "extensions");
}

using Clock = std::chrono::steady_clock;

TEST(PortScanExtensionsE2E, BurstsLowUdpPortsAndDualStackServicesWithPromptAlarms) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root: it builds network namespaces and runs raw-socket scanners";
    }
    for (const char* tool : {"ip", "ss", "nmap", "nc"}) {
        if (FindProgram(tool).empty()) {
            GTEST_SKIP() << tool << " is missing (scripts/install-deps.sh installs it)";
        }
    }
    RemoveStaleNamespaces("e2x");
    TempDir dir;
    const std::string tag = std::to_string(getpid());
    NetNs mon("e2x" + tag + "-mon");
    NetNs scanner("e2x" + tag + "-scan");
    AddVethPair(mon, "to-scan", std::string(kMonitoredAddr) + "/24", scanner, "eth0",
                std::string(kScannerAddr) + "/24");
    WriteFile(dir.File("agent.json"), AgentConfigText(PORTSCAN_MODULE_PATH));
    WriteFile(dir.File("portscan.json"), PolicyText());
    const std::string log = dir.File("log/hostagent.log");
    const std::string alarmFile = dir.File("alarms.jsonl");

    const long started = time(nullptr);
    Child agent({HOSTAGENT_PATH, "--config", dir.File("agent.json")}, mon.Name(), dir.File("agent.out"),
                dir.File("agent.err"));
    ASSERT_TRUE(WaitForLine(log, "Reload BPF rules", Seconds(30)))
        << "no capture filter loaded; agent stderr:\n"
        << ReadFile(dir.File("agent.err"));
    ASSERT_TRUE(
        WaitUntil([&] { return Contains(FilterPorts(AttachedFilter(mon.Name(), agent.Pid())), kLowUdpPort); },
                  Seconds(10)))
        << "no filter attached to the agent's packet socket";

    // Alarms of the watched ports in the alarm file, once each of `ports` has one; the time it took.
    auto waitForAlarms = [&](const std::set<unsigned>& ports, Clock::time_point since) {
        std::vector<Json::Value> alarms;
        const bool all = WaitUntil(
            [&] {
                alarms = ReadAlarms(alarmFile);
                const std::multiset<unsigned> got = AlarmPorts(alarms);
                for (unsigned port : ports) {
                    if (got.count(port) == 0) {
                        return false;
                    }
                }
                return true;
            },
            Seconds(10));
        const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since);
        EXPECT_TRUE(all) << "alarms so far: " << alarms.size() << "\nlog tail:\n"
                         << MustRun({"tail", "-n", "40", log});
        return took;
    };
    auto nmap = [&](const std::string& kind, const std::string& ports, int sourcePort) {
        const RunResult result =
            TestSupport::Run({"nmap", kind, "-Pn", "-n", "-p", ports, "-g", std::to_string(sourcePort),
                              "--max-retries", "1", "--host-timeout", "30s", kMonitoredAddr},
                             scanner.Name(), Seconds(60));
        EXPECT_EQ(0, result.code) << result.output;
    };

    // One unpaced pass: the ten SYNs arrive together and each port raises its alarm at once (timed
    // from the scan's end).
    nmap("-sS", std::to_string(kFirstSynPort) + "-" + std::to_string(kFirstSynPort + kSynPortCount - 1),
         42001);
    std::set<unsigned> synPorts;
    for (unsigned port = kFirstSynPort; port < kFirstSynPort + kSynPortCount; ++port) {
        synPorts.insert(port);
    }
    const auto synTook = waitForAlarms(synPorts, Clock::now());
    EXPECT_LE(synTook.count(), 5000) << "the SYN pass's alarms took " << synTook.count() << " ms";

    // A service that takes a watched port on an IPv6 wildcard socket after the list was built; a
    // private client reaches it over IPv4. Its packets count as traffic to a port in use.
    Child service({"nc", "-6", "-lk", std::to_string(kDualStackPort)}, mon.Name(), "/dev/null", "/dev/null");
    ASSERT_TRUE(WaitUntil(
        [&] {
            return TestSupport::Run({"ss", "-ltnH", "sport = :" + std::to_string(kDualStackPort)}, mon.Name())
                       .output.find("LISTEN") != std::string::npos;
        },
        Seconds(10)));
    for (int connection = 0; connection < 2; ++connection) {
        const RunResult client =
            TestSupport::Run({"nc", "-z", "-w", "3", kMonitoredAddr, std::to_string(kDualStackPort)},
                             scanner.Name(), Seconds(10));
        EXPECT_EQ(0, client.code) << "the client did not reach the service: " << client.output;
    }
    EXPECT_TRUE(WaitForLine(log, "[PortScan] Port Occupied", Seconds(10)));

    // An unpaced UDP probe of the low UDP port. Its alarm is sent after the client's packets were
    // handled, so an alarm for the service's port would be in the file by then.
    nmap("-sU", std::to_string(kLowUdpPort), 42002);
    const auto udpTook = waitForAlarms({kLowUdpPort}, Clock::now());
    EXPECT_LE(udpTook.count(), 5000) << "the UDP probe's alarm took " << udpTook.count() << " ms";

    agent.Signal(SIGTERM);
    const std::optional<int> code = agent.WaitExit(Seconds(30));
    ASSERT_TRUE(code) << "the agent did not stop within 30 s of SIGTERM";
    EXPECT_EQ(0, *code);

    const std::vector<Json::Value> alarms = ReadAlarms(alarmFile);
    const std::multiset<unsigned> ports = AlarmPorts(alarms);
    EXPECT_EQ(kSynPortCount + 1, alarms.size());
    for (unsigned port : synPorts) {
        EXPECT_EQ(1u, ports.count(port)) << port;
    }
    EXPECT_EQ(1u, ports.count(kLowUdpPort));
    EXPECT_EQ(0u, ports.count(kDualStackPort)) << "the dual-stack service's client was alarmed";
    for (const Json::Value& alarm : alarms) {
        SCOPED_TRACE(alarm.toStyledString());
        const bool udp = AlarmPort(alarm) == kLowUdpPort;
        EXPECT_EQ(udp ? "portscan_0001" : "portscan_0002", alarm["event_classid"].asString());
        EXPECT_EQ(udp ? "UDP" : "TCP", alarm["network_info"]["protocol"].asString());
        EXPECT_EQ(kScannerAddr, alarm["network_info"]["remote_address"].asString());
        EXPECT_EQ(udp ? 42002 : 42001, alarm["network_info"]["remote_port"].asInt());
        // Sent before the first minute tick after start could have sent it.
        EXPECT_LT(alarm["occur_time"].asInt64(), started + 60);
    }
    if (HasFailure()) {
        dir.Keep();
        std::cerr << "agent files kept in " << dir.Path() << "\n";
    }
}

}  // namespace
