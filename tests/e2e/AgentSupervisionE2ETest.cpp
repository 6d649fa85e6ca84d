// The agent around the port-scan module: a flood stops the task, the supervisor restarts it, a renewal
// lets a port alarm again; CPU and log volume stay bounded when the module cannot capture.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ctime>
#include <iterator>
#include <sstream>
#include <thread>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kAgentAddr = "10.78.1.1";
const char* const kScannerAddr = "10.78.1.2";
// A public source the flood claims: counted against "package_max_num" like any frame, never alarmed.
const char* const kSpoofedPublicAddr = "198.51.100.7";

const unsigned kFloodedPort = 2401;  // its flood stops the task
const unsigned kRenewedPort = 2402;  // alarms once before and once after a renewal
const unsigned kPacedFirst = 2410;   // 20 ports scanned slowly after the restart
const unsigned kPacedCount = 20;

int ShippedCpuLimit() {
    return Parsed(ReadFile(SOURCE_DIR "/config/agent.json"))["cpu_limit_percent"].asInt();
}

// "package_max_num" is reached before any port freezes, and is above the paced scan.
std::string Policy(const std::vector<std::pair<unsigned, int>>& watched) {
    return FeaturePolicyText("supervision", watched, R"({"white_ip_list": "",
        "check_port_before_alarm": true, "port_package_max_num": 40, "port_ip_max_num": 4, "alarm_max_num": 0,
        "package_max_num": 30, "only_master_interface": false, "enable": true, "task_condition": {}})");
}

Json::Value Config(int cpuLimit, int restartDelay, int renewAfter) {
    Json::Value config = AgentConfig();
    config["log"]["level"] = "information";  // the level the log bound holds for
    config["cpu_limit_percent"] = cpuLimit;
    config["supervisor"]["restart_delay_s"] = restartDelay;
    config["supervisor"]["renew_after_s"] = renewAfter;
    return config;
}

// CPU seconds (user + system, fields 14 and 15 of its stat) the process has used.
double CpuSeconds(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream in(stat.substr(stat.rfind(')') + 2));
    const std::vector<std::string> fields{std::istream_iterator<std::string>(in), {}};
    return (std::stod(fields[11]) + std::stod(fields[12])) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

TEST(AgentSupervisionE2E, FloodStopIsRestartedAndRenewalLetsAPortAlarmAgain) {
    SKIP_WITHOUT("ip", "nmap", "hping3");
    Lab lab("sup", kAgentAddr, kScannerAddr);
    std::vector<std::pair<unsigned, int>> ports = {{kFloodedPort, 0}, {kRenewedPort, 0}};
    std::multiset<unsigned> pacedAndRenewed = {kRenewedPort};
    for (unsigned i = 0; i < kPacedCount; ++i) {
        ports.emplace_back(kPacedFirst + i, 0);
        pacedAndRenewed.insert(kPacedFirst + i);
    }
    const int restartDelay = 5;
    ASSERT_NO_FATAL_FAILURE(lab.StartAgent(Policy(ports), Config(ShippedCpuLimit(), restartDelay, 5)));
    auto Status = [&] {
        return TestSupport::Run({HOSTAGENT_PATH, "--status", "--config", lab.dir.File("agent.json")});
    };
    auto Tail = [&] { return TestSupport::Run({"tail", "-n", "30", lab.Log()}).output; };
    auto CaptureBuilt = [&](size_t times) {
        return WaitUntil([&] { return Occurrences(ReadFile(lab.Log()), "Reload BPF rules") >= times; },
                         Seconds(30));
    };
    RunResult status;
    ASSERT_TRUE(WaitUntil([&] { return (status = Status()).code == 0; }, Seconds(10))) << status.output;

    // More frames in a minute than "package_max_num", though from an unreported source: the task stops.
    TestSupport::Run(Hping("-S", kFloodedPort, 36, "u5000", 42003, kAgentAddr, kSpoofedPublicAddr),
                     lab.scanner.Name());
    ASSERT_TRUE(WaitForLine(
        lab.Log(), "[Agent] Task port_scan_task of module portscan_module stopped by itself", Seconds(20)))
        << Tail();
    EXPECT_TRUE(WaitUntil([&] { return (status = Status()).code == 1; }, Seconds(restartDelay - 1)))
        << status.output;
    EXPECT_NE(status.output.find("restarting"), std::string::npos) << status.output;

    // After the delay the task runs again: one restart, status 0.
    ASSERT_TRUE(WaitUntil(
        [&] {
            status = Status();
            return status.code == 0 && status.output.find("restarts 1") != std::string::npos;
        },
        Seconds(restartDelay + 10)))
        << status.output << Tail();
    ASSERT_TRUE(CaptureBuilt(2)) << Tail();
    const long restarted = time(nullptr);

    // A paced scan of 20 other watched ports and one probe of another: each alarms once at the next
    // tick; none for the flooded port: its alarms went down with the stopped task.
    lab.Nmap({"-sS", "--scan-delay", "100ms"},
             std::to_string(kPacedFirst) + "-" + std::to_string(kPacedFirst + kPacedCount - 1), 42002,
             kAgentAddr);
    lab.Scan(Hping("-S", kRenewedPort, 1, "1", 42001, kAgentAddr));
    EXPECT_EQ(AlarmPorts(lab.WaitForAlarms(kPacedCount + 1, Seconds(restarted + 80 - time(nullptr)))),
              pacedAndRenewed);

    // The renewal right after that tick lets the same port alarm again, which one run never does.
    ASSERT_TRUE(WaitForLine(lab.Log(), "[Agent] Renewing task port_scan_task", Seconds(20))) << Tail();
    ASSERT_TRUE(CaptureBuilt(3)) << Tail();
    const long renewed = time(nullptr);
    lab.Scan(Hping("-S", kRenewedPort, 1, "1", 42001, kAgentAddr));
    EXPECT_TRUE(WaitUntil([&] { return AlarmPorts(ReadAlarms(lab.AlarmFile())).count(kRenewedPort) >= 2; },
                          Seconds(renewed + 80 - time(nullptr))))
        << Tail();
    lab.StopAgent();
    EXPECT_EQ(Status().code, 3);
}

// Needs no root: the capture socket must fail to build. With nothing to watch the loop has nothing to
// wait on: only the CPU governor keeps it from a core (a capturing agent's idle cost is `make bench`'s).
TEST(AgentBoundsE2E, EmptyMonitorListStaysUnderTheCpuLimitAndAFailingSocketBuildUnderTheLogBound) {
    const int limit = ShippedCpuLimit();
    ASSERT_GT(limit, 0) << "the shipped config must bound the CPU";
    ASSERT_LE(limit, 10);
    TempDir idleDir;
    const std::unique_ptr<Child> idle = StartAgentIn(idleDir.Path(), Config(limit, 60, 0), Policy({}));

    // The socket build fails for lack of CAP_NET_RAW; no CPU limit, so only the log budget bounds it.
    TempDir failDir;
    const std::unique_ptr<Child> failing =
        StartAgentIn(failDir.Path(), Config(0, 60, 0), Policy({{2501, 0}, {2502, 0}, {2503, 0}}), "",
                     geteuid() == 0 ? std::vector<std::string>{FindProgram("setpriv"), "--bounding-set",
                                                               "-net_raw", "--inh-caps", "-net_raw", "--"}
                                    : std::vector<std::string>{});
    const std::string failLog = failDir.File("log/hostagent.log");
    ASSERT_TRUE(WaitForLine(failLog, "first run port_scan_task", Seconds(15)))
        << ReadFile(failDir.File("agent.err"));
    const auto failingSince = std::chrono::steady_clock::now();

    // CPU of the idle agent over 10 s, once it has settled.
    ASSERT_TRUE(WaitForLine(idleDir.File("log/hostagent.log"), "first run port_scan_task", Seconds(15)));
    sleep(2);
    const double before = CpuSeconds(idle->Pid());
    sleep(10);
    const double share = (CpuSeconds(idle->Pid()) - before) * 10.0;  // percent of one core over 10 s
    EXPECT_LE(share, limit + 2.0) << "an agent with nothing to watch used " << share << " % of a core";

    std::this_thread::sleep_until(failingSince + std::chrono::seconds(60));
    EXPECT_LE(ReadLines(failLog).size(), 300u) << "log lines in 60 s of failing socket builds";
    EXPECT_GT(Occurrences(ReadFile(failLog), "suppressed in"), 0u)
        << "the socket build did not fail: is CAP_NET_RAW still there?";
    // The operator is told at start which privilege is missing and what it costs.
    EXPECT_EQ(Occurrences(ReadFile(failLog), "No CAP_NET_RAW: packet capture will fail"), 1u);
    EXPECT_TRUE(idle->Running());
    EXPECT_TRUE(failing->Running());
}

}  // namespace
