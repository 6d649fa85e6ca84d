// The whole product against real scanners: hostagent with the port-scan module runs in a network
// namespace of its own, and nmap and hping3 probe it from three other namespaces (a private
// scanner, a white-listed one and one outside the private ranges). One agent run covers every
// scenario, each on ports of its own, over two one-minute ticks.

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>

#include "ScanLab.h"
#include "support/NetLab.h"

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitoredAddr = "10.77.1.1";
const char* const kScannerAddr = "10.77.1.2";
const char* const kWhiteAddr = "192.168.77.2";
const char* const kMonitoredWhiteSide = "192.168.77.1";
const char* const kPublicAddr = "198.51.100.2";
const char* const kMonitoredPublicSide = "198.51.100.1";
// The monitored host's addresses (loopback aside): the capture filter tests each of them twice.
const int kLocalAddrCount = 3;

// Watched ports, one group per scenario. The UDP ports lie above every TCP port: the port records'
// ordering is deliberately inconsistent when port and protocol disagree, and a record it cannot find
// again collects no alarm (a property of the module, kept out of this test's way).
enum : unsigned {
    kSynNmapA = 2301,
    kSynNmapB = 2302,
    kSynHping = 2303,
    kListened = 2304,
    kWhiteListed = 2305,
    kFromPublic = 2306,
    kProbedOnce = 2307,
    kFlooded = 2308,
    kDuringRewrite = 2309,
    kUdpNmap = 2351,
    kUdpHping = 2352,
};

struct ExpectedAlarm {
    unsigned port;
    const char* protocol;
    const char* classId;
    const char* name;
    const char* appProtocol;
    int remotePort;  // the scanner's fixed source port
};

// Alarms due at the first tick after the scans of the first minute.
const ExpectedAlarm kFirstTickAlarms[] = {
    {kSynNmapA, "TCP", "portscan_0002", "Secret port scan", "SYN", 41001},
    {kSynNmapB, "TCP", "portscan_0002", "Secret port scan", "SYN", 41001},
    {kSynHping, "TCP", "portscan_0002", "Secret port scan", "SYN", 41003},
    {kUdpNmap, "UDP", "portscan_0001", "Common port scan", "", 41004},
    {kUdpHping, "UDP", "portscan_0001", "Common port scan", "", 41005},
};
const ExpectedAlarm kRewriteAlarm = {kDuringRewrite,     "TCP", "portscan_0002",
                                     "Secret port scan", "SYN", 41009};
const unsigned kSilentPorts[] = {kListened, kWhiteListed, kFromPublic, kProbedOnce};
const unsigned kTcpPorts[] = {kSynNmapA,   kSynNmapB,   kSynHping, kListened,     kWhiteListed,
                              kFromPublic, kProbedOnce, kFlooded,  kDuringRewrite};
const unsigned kUdpPorts[] = {kUdpNmap, kUdpHping};

std::string PolicyText(const std::string& hash) {
    Json::Value list(Json::arrayValue);
    for (unsigned port : kTcpPorts) {
        Json::Value entry;
        entry["port"] = port;
        entry["type"] = 0;
        list.append(entry);
    }
    for (unsigned port : kUdpPorts) {
        Json::Value entry;
        entry["port"] = port;
        entry["type"] = 1;
        list.append(entry);
    }
    Json::Value task;
    task["monitor_list"] = list;
    task["white_ip_list"] = "192.168.77.0/24";
    task["check_port_before_alarm"] = true;
    task["port_package_max_num"] = 20;
    task["port_ip_max_num"] = 4;
    task["alarm_max_num"] = 1;
    task["package_max_num"] = 1000;
    task["only_master_interface"] = false;
    task["enable"] = true;
    task["task_condition"] = Json::Value(Json::objectValue);
    return FeaturePolicyText(task, hash);
}

std::set<std::string> EventIds(const std::vector<Json::Value>& alarms) {
    std::set<std::string> ids;
    for (const auto& alarm : alarms) {
        ids.insert(alarm["event_id"].asString());
    }
    return ids;
}

void ExpectAlarm(const Json::Value& alarm, const ExpectedAlarm& want, long notBefore) {
    SCOPED_TRACE("alarm for port " + std::to_string(want.port) + ": " + alarm.toStyledString());
    EXPECT_EQ(alarm["event_classid"].asString(), want.classId);
    EXPECT_EQ(alarm["event_name"].asString(), want.name);
    const Json::Value& net = alarm["network_info"];
    ASSERT_TRUE(net.isObject());
    EXPECT_EQ(net["protocol"].asString(), want.protocol);
    EXPECT_TRUE(net["app_protocol"].isString());
    EXPECT_EQ(net["app_protocol"].asString(), want.appProtocol);
    EXPECT_EQ(net["remote_address"].asString(), kScannerAddr);
    ASSERT_TRUE(net["remote_port"].isInt());
    EXPECT_EQ(net["remote_port"].asInt(), want.remotePort);
    EXPECT_EQ(net["local_address"].asString(), kMonitoredAddr);
    ASSERT_TRUE(net["local_port"].isUInt());
    EXPECT_EQ(net["local_port"].asUInt(), want.port);

    for (const auto& [key, value] : std::map<std::string, int>{{"event_category", 6000},
                                                               {"event_type", 6002},
                                                               {"severity", 1},
                                                               {"attack_phase", 1},
                                                               {"attack_tag", 1},
                                                               {"confidence", 60}}) {
        ASSERT_TRUE(alarm[key].isInt()) << key;
        EXPECT_EQ(alarm[key].asInt(), value) << key;
    }
    EXPECT_EQ(alarm["detect_module"].asString(), "portscan_module");
    EXPECT_TRUE(std::regex_match(alarm["event_id"].asString(),
                                 std::regex("[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-"
                                            "[0-9a-fA-F]{12}")));
    ASSERT_TRUE(alarm["occur_time"].isInt64());
    EXPECT_GE(alarm["occur_time"].asInt64(), notBefore);
    EXPECT_LE(alarm["occur_time"].asInt64(), static_cast<long>(time(nullptr)) + 5);
    ASSERT_TRUE(alarm["event_count"].isInt());
    EXPECT_GE(alarm["event_count"].asInt(), 1);
}

// Everything the run creates, torn down in reverse order: the agent and the listener are ended
// (by pid) before the namespaces go, the folder last (kept when the test failed).
struct Lab {
    TempDir dir;
    std::string tag = std::to_string(getpid());
    NetNs mon{"e2e" + tag + "-mon"};
    NetNs scanner{"e2e" + tag + "-scan"};
    NetNs white{"e2e" + tag + "-white"};
    NetNs pub{"e2e" + tag + "-pub"};
    std::unique_ptr<Child> listener;
    std::unique_ptr<Child> agent;

    Lab() {
        AddVethPair(mon, "to-scan", std::string(kMonitoredAddr) + "/24", scanner, "eth0",
                    std::string(kScannerAddr) + "/24");
        AddVethPair(mon, "to-white", std::string(kMonitoredWhiteSide) + "/24", white, "eth0",
                    std::string(kWhiteAddr) + "/24");
        AddVethPair(mon, "to-pub", std::string(kMonitoredPublicSide) + "/24", pub, "eth0",
                    std::string(kPublicAddr) + "/24");
    }

    std::string Log() const { return dir.File("log/hostagent.log"); }
    std::string AlarmFile() const { return dir.File("alarms.jsonl"); }
};

class PortScanE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: it builds network namespaces and runs raw-socket scanners";
        }
        for (const char* tool : {"ip", "ss", "nmap", "hping3", "nc"}) {
            if (FindProgram(tool).empty()) {
                GTEST_SKIP() << tool << " is missing (scripts/install-deps.sh installs it)";
            }
        }
        RemoveStaleNamespaces("e2e");
        lab = std::make_unique<Lab>();
    }

    void TearDown() override {
        if (lab && HasFailure()) {
            lab->dir.Keep();
            std::cerr << "agent files kept in " << lab->dir.Path() << "\n";
        }
        lab.reset();
    }

    // Runs a bounded scan from `ns`. Both scanners exit 0 only when their probes went out and were
    // answered (a reset or an ICMP error counts), so a probe that never left fails here.
    void Scan(const NetNs& ns, const std::vector<std::string>& argv) {
        RunResult result = TestSupport::Run(argv, ns.Name(), Seconds(60));
        EXPECT_EQ(result.code, 0) << argv[0] << " failed:\n" << result.output;
    }

    // The agent reads one frame per wake-up of its capture socket, so frames that arrive together
    // are read late; probes are spaced.
    void Nmap(const std::string& kind, const std::string& ports, int sourcePort) {
        Scan(lab->scanner,
             {"nmap", kind, "-Pn", "-n", "-p", ports, "-g", std::to_string(sourcePort), "--scan-delay",
              "100ms", "--max-retries", "1", "--host-timeout", "30s", kMonitoredAddr});
    }

    static std::vector<std::string> Hping(const std::string& mode, unsigned port, int count,
                                          const std::string& interval, int sourcePort,
                                          const char* target = kMonitoredAddr) {
        return {"hping3",
                "-q",
                mode,
                "-c",
                std::to_string(count),
                "-i",
                interval,
                "-p",
                std::to_string(port),
                "-s",
                std::to_string(sourcePort),
                "-k",
                target};
    }

    std::unique_ptr<Lab> lab;
};

TEST_F(PortScanE2E, RealScansRaiseExactlyTheExpectedAlarms) {
    WriteFile(lab->dir.File("agent.json"), AgentConfigText(PORTSCAN_MODULE_PATH));
    WriteFile(lab->dir.File("portscan.json"), PolicyText("first"));

    // A local program on a watched port, there before the agent looks.
    lab->listener = std::make_unique<Child>(std::vector<std::string>{"nc", "-lk", std::to_string(kListened)},
                                            lab->mon.Name(), "/dev/null", "/dev/null");
    ASSERT_TRUE(WaitUntil(
        [&] {
            return TestSupport::Run({"ss", "-ltnH", "sport = :" + std::to_string(kListened)}, lab->mon.Name())
                       .output.find("LISTEN") != std::string::npos;
        },
        Seconds(10)))
        << "the listener did not come up";

    const long started = time(nullptr);
    lab->agent = std::make_unique<Child>(
        std::vector<std::string>{HOSTAGENT_PATH, "--config", lab->dir.File("agent.json")}, lab->mon.Name(),
        lab->dir.File("agent.out"), lab->dir.File("agent.err"));
    const pid_t agentPid = lab->agent->Pid();

    // Tick 0 builds the monitor list and the capture socket.
    ASSERT_TRUE(WaitForLine(lab->Log(), "Reload BPF rules", Seconds(30)))
        << "no capture filter loaded; agent stderr:\n"
        << ReadFile(lab->dir.File("agent.err"));
    std::vector<BpfInsn> before;
    ASSERT_TRUE(WaitUntil(
        [&] {
            before = AttachedFilter(lab->mon.Name(), agentPid);
            return !before.empty();
        },
        Seconds(10)))
        << "no filter attached to the agent's packet socket";
    std::vector<unsigned> portsBefore = FilterPorts(before);
    EXPECT_EQ(before.size(), 2 * kLocalAddrCount + portsBefore.size() + 13);
    // Every watched port is in it, except perhaps the listened one (left out once the agent's
    // process cache knows the listener).
    std::vector<unsigned> watched(std::begin(kTcpPorts), std::end(kTcpPorts));
    watched.insert(watched.end(), std::begin(kUdpPorts), std::end(kUdpPorts));
    EXPECT_EQ(portsBefore.size() + (Contains(portsBefore, kListened) ? 0 : 1), watched.size());
    for (unsigned port : watched) {
        EXPECT_TRUE(port == kListened || Contains(portsBefore, port))
            << "port " << port << " not in the filter";
    }

    // First minute: every scenario on its own ports. Two probes per alarmed port cross the default
    // threshold; nmap is run twice because it sends one SYN to a port that answers with a reset.
    for (int round = 0; round < 2; ++round) {
        Nmap("-sS", std::to_string(kSynNmapA) + "," + std::to_string(kSynNmapB), 41001);
        Nmap("-sU", std::to_string(kUdpNmap), 41004);
    }
    Scan(lab->scanner, Hping("-S", kSynHping, 2, "u200000", 41003));
    Scan(lab->scanner, Hping("--udp", kUdpHping, 2, "u200000", 41005));
    Scan(lab->scanner, Hping("-S", kListened, 3, "u200000", 41006));
    Scan(lab->white, Hping("-S", kWhiteListed, 3, "u200000", 41007, kMonitoredWhiteSide));
    Scan(lab->pub, Hping("-S", kFromPublic, 3, "u200000", 41008, kMonitoredPublicSide));
    Scan(lab->scanner, Hping("-S", kProbedOnce, 1, "u200000", 41010));
    // More packets than "port_package_max_num" (20) freeze the port.
    Scan(lab->scanner, Hping("-S", kFlooded, 25, "u20000", 41011));

    EXPECT_TRUE(
        WaitForLine(lab->Log(), "[PortScan] Freeze port [" + std::to_string(kFlooded) + "]", Seconds(20)));
    std::vector<BpfInsn> after;
    EXPECT_TRUE(WaitUntil(
        [&] {
            after = AttachedFilter(lab->mon.Name(), agentPid);
            return !after.empty() && !Contains(FilterPorts(after), kFlooded);
        },
        Seconds(20)))
        << "the frozen port stayed in the capture filter";
    std::vector<unsigned> portsAfter = FilterPorts(after);
    EXPECT_LT(after.size(), before.size());
    EXPECT_EQ(before.size() - after.size(), portsBefore.size() - portsAfter.size());
    for (unsigned port : portsBefore) {
        // The listened port may leave too, once the agent's process cache knows the listener.
        if (port != kFlooded && port != kListened) {
            EXPECT_TRUE(Contains(portsAfter, port)) << "port " << port << " left the filter";
        }
    }

    // Tick 1 (about a minute after start) sends the alarms of the first minute, one per port.
    std::vector<Json::Value> firstTick;
    ASSERT_TRUE(WaitUntil(
        [&] {
            firstTick = ReadAlarms(lab->AlarmFile());
            return firstTick.size() >= std::size(kFirstTickAlarms);
        },
        Seconds(started + 110 - time(nullptr))))
        << "alarms so far: " << firstTick.size() << "\nlog tail:\n"
        << MustRun({"tail", "-n", "40", lab->Log()});
    for (const auto& want : kFirstTickAlarms) {
        auto it = std::find_if(firstTick.begin(), firstTick.end(),
                               [&](const Json::Value& alarm) { return AlarmPort(alarm) == want.port; });
        ASSERT_NE(it, firstTick.end()) << "no alarm for port " << want.port;
        ExpectAlarm(*it, want, started);
    }
    // One tick numbers its documents 1, 2, 3, ... (the flooded port is left out of this count: it
    // leaves the monitored list when it freezes).
    std::set<int> counts, expectedCounts;
    for (const auto& alarm : firstTick) {
        counts.insert(alarm["event_count"].asInt());
        expectedCounts.insert(static_cast<int>(expectedCounts.size()) + 1);
    }
    EXPECT_EQ(counts, expectedCounts);
    EXPECT_EQ(firstTick.size() - AlarmPorts(firstTick).count(kFlooded), std::size(kFirstTickAlarms));

    // Second minute: the policy file is rewritten while a scan is running.
    const size_t sentAtFirstTick = LoggedAlarms(lab->Log()).size();
    {
        Child scan(Hping("-S", kDuringRewrite, 12, "1", 41009), lab->scanner.Name(),
                   lab->dir.File("scan.out"), lab->dir.File("scan.out"));
        sleep(2);
        WriteFile(lab->dir.File("portscan.json"), PolicyText("second-after-rewrite"));
        EXPECT_TRUE(scan.WaitExit(Seconds(40))) << "hping3 did not finish";
    }
    EXPECT_TRUE(lab->agent->Running()) << "the agent ended after the policy rewrite";
    std::string log = ReadFile(lab->Log());
    size_t deliveries = 0;
    for (auto at = log.find("Start to refresh"); at != std::string::npos;
         at = log.find("Start to refresh", at + 1)) {
        ++deliveries;
    }
    EXPECT_EQ(deliveries, 2u) << "the rewritten policy was not delivered during the scan";

    // SIGTERM right after tick 2 logs its alarm: whatever was logged as sent must still reach the sinks.
    ASSERT_TRUE(WaitUntil([&] { return LoggedAlarms(lab->Log()).size() > sentAtFirstTick; },
                          Seconds(started + 200 - time(nullptr))))
        << "no alarm at the second tick";
    lab->agent->Signal(SIGTERM);
    std::optional<int> code = lab->agent->WaitExit(Seconds(30));
    ASSERT_TRUE(code) << "the agent did not stop within 30 s of SIGTERM";
    EXPECT_EQ(*code, 0);

    std::vector<Json::Value> logged = LoggedAlarms(lab->Log());
    std::vector<Json::Value> filed = ReadAlarms(lab->AlarmFile());
    std::vector<Json::Value> printed = ReadAlarms(lab->dir.File("agent.out"));
    EXPECT_EQ(EventIds(filed), EventIds(logged)) << "the alarm file and the log disagree";
    EXPECT_EQ(EventIds(printed), EventIds(logged)) << "stdout and the log disagree";
    EXPECT_EQ(EventIds(filed).size(), filed.size()) << "an event id repeats";

    std::multiset<unsigned> ports = AlarmPorts(filed);
    for (unsigned port : ports) {
        EXPECT_EQ(ports.count(port), 1u) << "port " << port << " alarmed more than once in one run";
    }
    for (unsigned port : kSilentPorts) {
        EXPECT_EQ(ports.count(port), 0u) << "port " << port << " must raise no alarm";
    }
    // The silent ports were silent for the right reason: their probes were captured and classified
    // (or, for the listened port, never watched or found occupied).
    log = ReadFile(lab->Log());
    for (unsigned port : {kWhiteListed, kFromPublic, kProbedOnce}) {
        EXPECT_NE(log.find("[PortScan] Check port (" + std::to_string(port) + ")"), std::string::npos)
            << "probes to port " << port << " never reached the classifiers";
    }
    EXPECT_NE(log.find("[PortScan] safe pkt found"), std::string::npos);
    EXPECT_TRUE(!Contains(portsBefore, kListened) ||
                log.find("[PortScan] Port Occupied") != std::string::npos);
    auto rewrite = std::find_if(filed.begin(), filed.end(),
                                [](const Json::Value& alarm) { return AlarmPort(alarm) == kDuringRewrite; });
    ASSERT_NE(rewrite, filed.end()) << "no alarm for the scan during the policy rewrite";
    ExpectAlarm(*rewrite, kRewriteAlarm, started);
}

}  // namespace
