// The whole product against nmap and hping3 from a private, a white-listed and a public neighbour: one
// agent run covers every scenario, each on ports of its own, over two one-minute ticks.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <tuple>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitoredAddr = "10.77.1.1";
const char* const kScannerAddr = "10.77.1.2";
const char* const kMonitoredWhiteSide = "192.168.77.1";
const char* const kMonitoredPublicSide = "198.51.100.1";

// Watched ports, one group per scenario. The UDP ports lie above every TCP port: the module's port
// records are not found again when port and protocol order disagree (kept out of this test's way).
const unsigned kSynNmapA = 2301, kSynNmapB = 2302, kSynHping = 2303, kListened = 2304, kWhiteListed = 2305,
               kFromPublic = 2306, kProbedOnce = 2307, kFlooded = 2308, kDuringRewrite = 2309;
const unsigned kUdpNmap = 2351, kUdpHping = 2352;

// Alarms due at the first tick after the scans of the first minute: port, UDP, the scanner's source port.
const std::tuple<unsigned, bool, int> kFirstTickAlarms[] = {
    {kSynNmapA, false, 41001}, {kSynNmapB, false, 41001}, {kSynHping, false, 41003},
    {kUdpNmap, true, 41004},   {kUdpHping, true, 41005},
};

std::string PolicyText(const std::string& hash) {
    std::vector<std::pair<unsigned, int>> watched;
    for (unsigned port = kSynNmapA; port <= kUdpHping; port = port == kDuringRewrite ? kUdpNmap : port + 1) {
        watched.emplace_back(port, port >= kUdpNmap ? 1 : 0);
    }
    return FeaturePolicyText(hash, watched, R"({"white_ip_list": "192.168.77.0/24",
        "check_port_before_alarm": true, "port_package_max_num": 20, "port_ip_max_num": 4, "alarm_max_num": 1,
        "package_max_num": 1000, "only_master_interface": false, "enable": true, "task_condition": {}})");
}

const Json::Value* AlarmFor(const std::vector<Json::Value>& alarms, unsigned port) {
    auto it = std::find_if(alarms.begin(), alarms.end(),
                           [&](const Json::Value& a) { return AlarmPort(a) == port; });
    return it == alarms.end() ? nullptr : &*it;
}

TEST(PortScanE2E, RealScansRaiseExactlyTheExpectedAlarms) {
    SKIP_WITHOUT("ip", "ss", "nmap", "hping3", "nc");
    Lab lab("e2e", kMonitoredAddr, kScannerAddr);
    lab.AddNeighbour("white", kMonitoredWhiteSide, "192.168.77.2");
    lab.AddNeighbour("pub", kMonitoredPublicSide, "198.51.100.2");

    // A local program on a watched port, there before the agent looks.
    Child listener({"nc", "-lk", std::to_string(kListened)}, lab.mon.Name(), "/dev/null", "/dev/null");
    ASSERT_TRUE(lab.WaitListening(kListened)) << "the listener did not come up";

    const long started = time(nullptr);
    // Tick 0 builds the monitor list and the capture socket.
    ASSERT_NO_FATAL_FAILURE(lab.StartAgent(PolicyText("first")));
    std::vector<unsigned> portsBefore;
    ASSERT_TRUE(
        WaitUntil([&] { return !(portsBefore = FilterPorts(lab.AgentFilter())).empty(); }, Seconds(10)))
        << "no filter attached to the agent's packet socket";
    ASSERT_TRUE(Contains(portsBefore, kFlooded));

    // First minute: two probes per alarmed port (nmap sends a closed port one SYN, so it runs twice),
    // spaced: the agent reads one frame per wake-up of its capture socket.
    for (int round = 0; round < 2; ++round) {
        lab.Nmap({"-sS", "--scan-delay", "100ms"},
                 std::to_string(kSynNmapA) + "," + std::to_string(kSynNmapB), 41001, kMonitoredAddr);
        lab.Nmap({"-sU", "--scan-delay", "100ms"}, std::to_string(kUdpNmap), 41004, kMonitoredAddr);
    }
    lab.Scan(Hping("-S", kSynHping, 2, "u200000", 41003, kMonitoredAddr));
    lab.Scan(Hping("--udp", kUdpHping, 2, "u200000", 41005, kMonitoredAddr));
    lab.Scan(Hping("-S", kListened, 3, "u200000", 41006, kMonitoredAddr));
    lab.Scan(Hping("-S", kWhiteListed, 3, "u200000", 41007, kMonitoredWhiteSide), lab.Namespace("white"));
    lab.Scan(Hping("-S", kFromPublic, 3, "u200000", 41008, kMonitoredPublicSide), lab.Namespace("pub"));
    lab.Scan(Hping("-S", kProbedOnce, 1, "u200000", 41010, kMonitoredAddr));
    // More packets than "port_package_max_num" (20) freeze the port.
    lab.Scan(Hping("-S", kFlooded, 25, "u20000", 41011, kMonitoredAddr));

    std::vector<unsigned> portsAfter;
    EXPECT_TRUE(WaitUntil(
        [&] {
            portsAfter = FilterPorts(lab.AgentFilter());
            return !portsAfter.empty() && !Contains(portsAfter, kFlooded);
        },
        Seconds(20)))
        << "the frozen port stayed in the capture filter";
    for (unsigned port : portsBefore) {  // the listener's port may leave once the agent knows it
        EXPECT_TRUE(port == kFlooded || port == kListened || Contains(portsAfter, port))
            << "port " << port << " left the filter";
    }

    // Tick 1 (about a minute after start) sends the alarms of the first minute, one per port.
    const std::vector<Json::Value> firstTick =
        lab.WaitForAlarms(std::size(kFirstTickAlarms), Seconds(started + 110 - time(nullptr)));
    for (const auto& [port, udp, remotePort] : kFirstTickAlarms) {
        const Json::Value* alarm = AlarmFor(firstTick, port);
        ASSERT_TRUE(alarm) << "no alarm for port " << port;
        ExpectAlarm(*alarm, port, udp, kMonitoredAddr, kScannerAddr, remotePort, started);
    }

    // Second minute: the policy file is rewritten while a scan is running.
    const size_t sentAtFirstTick = LoggedAlarms(lab.Log()).size();
    {
        Child scan(Hping("-S", kDuringRewrite, 12, "1", 41009, kMonitoredAddr), lab.scanner.Name(),
                   lab.dir.File("scan.out"), lab.dir.File("scan.out"));
        sleep(2);
        WriteFile(lab.dir.File("portscan.json"), PolicyText("second-after-rewrite"));
        EXPECT_TRUE(scan.WaitExit(Seconds(40))) << "hping3 did not finish";
    }
    EXPECT_EQ(2u, Occurrences(ReadFile(lab.Log()), "Start to refresh"))
        << "the rewritten policy was not delivered during the scan";

    // SIGTERM right after tick 2 logs its alarm: whatever was logged as sent must still reach the sinks.
    ASSERT_TRUE(WaitUntil([&] { return LoggedAlarms(lab.Log()).size() > sentAtFirstTick; },
                          Seconds(started + 200 - time(nullptr))))
        << "no alarm at the second tick";
    lab.StopAgent();

    const std::vector<Json::Value> logged = LoggedAlarms(lab.Log());
    const std::vector<Json::Value> filed = ReadAlarms(lab.AlarmFile());
    EXPECT_EQ(EventIds(filed), EventIds(logged)) << "the alarm file and the log disagree";
    const std::multiset<unsigned> ports = AlarmPorts(filed);
    EXPECT_EQ(std::set<unsigned>(ports.begin(), ports.end()).size(), ports.size())
        << "a port alarmed more than once in one run";
    for (unsigned port : {kListened, kWhiteListed, kFromPublic, kProbedOnce}) {
        EXPECT_EQ(ports.count(port), 0u) << "port " << port << " must raise no alarm";
    }
    // Silent for the right reason: their probes were captured and classified.
    const std::string log = ReadFile(lab.Log());
    for (unsigned port : {kWhiteListed, kFromPublic, kProbedOnce}) {
        EXPECT_NE(log.find("[PortScan] Check port (" + std::to_string(port) + ")"), std::string::npos)
            << "probes to port " << port << " never reached the classifiers";
    }
    const Json::Value* rewrite = AlarmFor(filed, kDuringRewrite);
    ASSERT_TRUE(rewrite) << "no alarm for the scan during the policy rewrite";
    ExpectAlarm(*rewrite, kDuringRewrite, false, kMonitoredAddr, kScannerAddr, 41009, started);
}

}  // namespace
