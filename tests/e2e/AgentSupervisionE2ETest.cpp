// The agent around the port-scan module in production conditions: a flood that stops the task,
// the supervisor starting it again, the renewal that lets a port alarm again, and the bounds on
// CPU and log volume when the module cannot capture.

#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

#include "ScanLab.h"
#include "support/NetLab.h"

using namespace TestSupport;

namespace {

const char* const kAgentAddr = "10.78.1.1";
const char* const kScannerAddr = "10.78.1.2";
// A public source the flood claims: counted against "package_max_num" like any frame, never alarmed,
// so its flood leaves the per-packet alarm lines of the later scan within the log budget.
const char* const kSpoofedPublicAddr = "198.51.100.7";

const unsigned kFloodedPort = 2401;  // its flood stops the task
const unsigned kRenewedPort = 2402;  // alarms once before and once after a renewal
const unsigned kPacedFirst = 2410;   // 20 ports scanned slowly after the restart
const unsigned kPacedCount = 20;

// The CPU limit the product ships with.
int ShippedCpuLimit() {
    Json::Value config;
    std::ifstream in(SHIPPED_AGENT_CONFIG);
    EXPECT_TRUE(Json::Reader().parse(in, config)) << SHIPPED_AGENT_CONFIG;
    return config["cpu_limit_percent"].asInt();
}

std::string Policy(const std::vector<unsigned>& ports) {
    // "package_max_num" is reached before any port freezes, and is above the paced scan.
    Json::Value task;
    Json::Reader().parse(R"({"white_ip_list": "", "check_port_before_alarm": true, "port_package_max_num": 40,
        "port_ip_max_num": 4, "alarm_max_num": 0, "package_max_num": 30, "only_master_interface": false,
        "enable": true, "task_condition": {}, "monitor_list": []})",
                         task);
    for (unsigned port : ports) {
        Json::Value& entry = task["monitor_list"].append(Json::objectValue);
        entry["port"] = port;
        entry["type"] = 0;
    }
    return ScanLab::FeaturePolicyText(task, "supervision");
}

void WriteAgentFiles(const TempDir& dir, int cpuLimit, int restartDelay, int renewAfter,
                     const std::vector<unsigned>& ports) {
    WriteFile(dir.File("agent.json"),
              R"({"log": {"level": "information", "console": false, "file": "log/hostagent.log"},
        "modules": [")" PORTSCAN_MODULE_PATH R"("], "policies": {"10001": "portscan.json"},
        "report": {"sinks": [{"type": "file", "path": "alarms.jsonl"}]}, "cpu_limit_percent": )" +
                  std::to_string(cpuLimit) + R"(, "supervisor": {"restart_delay_s": )" +
                  std::to_string(restartDelay) + R"(, "renew_after_s": )" + std::to_string(renewAfter) +
                  "}}");
    WriteFile(dir.File("portscan.json"), Policy(ports));
}

std::size_t CountContaining(const std::string& path, const std::string& needle) {
    std::size_t count = 0;
    for (const std::string& line : ReadLines(path)) {
        count += line.find(needle) != std::string::npos;
    }
    return count;
}

std::multiset<unsigned> AlarmedPorts(const std::string& path) {
    return ScanLab::AlarmPorts(ScanLab::ReadAlarms(path));
}

// CPU seconds (user + system) the process has used, from /proc.
double CpuSeconds(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));  // field 3 on, after the command name
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    unsigned long long utime = 0, stime = 0;
    fields >> utime >> stime;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Context switches (voluntary and not) of every thread of the process, by "tid name".
std::map<std::string, long> SwitchesByThread(pid_t pid) {
    std::map<std::string, long> switches;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    for (const auto& entry : std::filesystem::directory_iterator(tasks)) {
        const std::string tid = entry.path().filename();
        std::string name = ReadFile(tasks + tid + "/comm");
        name.erase(name.find_last_not_of('\n') + 1);
        long count = 0;
        for (const std::string& line : ReadLines(tasks + tid + "/status")) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                count += std::stol(line.substr(line.find(':') + 1));
            }
        }
        switches[tid + " " + name] = count;
    }
    return switches;
}

// The agent on the files in `dir`, in namespace `ns` ("" for this one), run by `argv` if it names a
// program.
std::unique_ptr<Child> StartAgent(const TempDir& dir, const std::string& ns,
                                  std::vector<std::string> argv = {}) {
    argv.insert(argv.end(), {HOSTAGENT_PATH, "--config", dir.File("agent.json")});
    return std::make_unique<Child>(argv, ns, dir.File("agent.out"), dir.File("agent.err"));
}

RunResult Status(const TempDir& dir) {
    return Run({HOSTAGENT_PATH, "--status", "--config", dir.File("agent.json")}, "", Seconds(10));
}

class AgentSupervisionE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: it builds network namespaces and runs a raw-socket scanner";
        }
        for (const char* tool : {"ip", "nmap", "hping3"}) {
            if (FindProgram(tool).empty()) {
                GTEST_SKIP() << tool << " is missing (scripts/install-deps.sh installs it)";
            }
        }
        RemoveStaleNamespaces("sup");
        const std::string tag = std::to_string(getpid());
        m_agentNs = std::make_unique<NetNs>("sup" + tag + "-agent");
        m_scannerNs = std::make_unique<NetNs>("sup" + tag + "-scan");
        AddVethPair(*m_agentNs, "to-scan", std::string(kAgentAddr) + "/24", *m_scannerNs, "eth0",
                    std::string(kScannerAddr) + "/24");
    }

    void TearDown() override {
        if (HasFailure()) {
            m_dir.Keep();
            std::cerr << "agent files kept in " << m_dir.Path() << "\n";
        }
    }

    void Scan(const std::vector<std::string>& argv) {
        RunResult result = TestSupport::Run(argv, m_scannerNs->Name(), Seconds(60));
        EXPECT_EQ(result.code, 0) << argv[0] << " failed:\n" << result.output;
    }
    void Probe(unsigned port) {
        Scan({"hping3", "-q", "-S", "-c", "1", "-p", std::to_string(port), "-s", "42001", "-k", kAgentAddr});
    }
    // Nobody answers a spoofed source, so hping3's exit code says nothing here; the agent's log does.
    void SpoofedFlood(unsigned port, int count) {
        TestSupport::Run({"hping3", "-q", "-S", "-a", kSpoofedPublicAddr, "-c", std::to_string(count), "-i",
                          "u5000", "-p", std::to_string(port), "-s", "42003", "-k", kAgentAddr},
                         m_scannerNs->Name(), Seconds(30));
    }
    bool CaptureBuilt(std::size_t times) {
        return WaitUntil([&] { return CountContaining(Log(), "Reload BPF rules") >= times; }, Seconds(30));
    }
    std::string Log() const { return m_dir.File("log/hostagent.log"); }
    std::string Tail() const { return MustRun({"tail", "-n", "30", Log()}); }

    TempDir m_dir;
    std::unique_ptr<NetNs> m_agentNs;
    std::unique_ptr<NetNs> m_scannerNs;
    std::unique_ptr<Child> m_agent;  // declared last: it ends before its namespaces go
};

TEST_F(AgentSupervisionE2E, FloodStopIsRestartedAndRenewalLetsAPortAlarmAgain) {
    std::vector<unsigned> ports = {kFloodedPort, kRenewedPort};
    for (unsigned i = 0; i < kPacedCount; ++i) {
        ports.push_back(kPacedFirst + i);
    }
    const int restartDelay = 5;
    WriteAgentFiles(m_dir, ShippedCpuLimit(), restartDelay, 5, ports);
    m_agent = StartAgent(m_dir, m_agentNs->Name());
    ASSERT_TRUE(CaptureBuilt(1)) << ReadFile(m_dir.File("agent.err"));
    RunResult status;
    ASSERT_TRUE(WaitUntil([&] { return (status = Status(m_dir)).code == 0; }, Seconds(10))) << status.output;

    // More frames in a minute than "package_max_num", even from a source that is never reported:
    // the task stops itself; the status says so.
    SpoofedFlood(kFloodedPort, 36);
    ASSERT_TRUE(WaitForLine(Log(), "[Agent] Task port_scan_task of module portscan_module stopped by itself",
                            Seconds(20)))
        << Tail();
    EXPECT_TRUE(WaitUntil([&] { return (status = Status(m_dir)).code == 1; }, Seconds(restartDelay - 1)))
        << status.output;
    EXPECT_NE(status.output.find("restarting"), std::string::npos) << status.output;

    // After the delay the task runs again: one restart, status 0.
    ASSERT_TRUE(WaitUntil(
        [&] {
            status = Status(m_dir);
            return status.code == 0 && status.output.find("restarts 1") != std::string::npos;
        },
        Seconds(restartDelay + 10)))
        << status.output << Tail();
    ASSERT_TRUE(CaptureBuilt(2)) << Tail();
    const long restarted = time(nullptr);

    // A paced scan of 20 other watched ports and one probe of another: every per-packet alarm line
    // shows (the log budget holds back floods, not these), and every port alarms at the next tick.
    Scan({"nmap", "-sS", "-Pn", "-n", "-p",
          std::to_string(kPacedFirst) + "-" + std::to_string(kPacedFirst + kPacedCount - 1), "-g", "42002",
          "--scan-delay", "100ms", "--max-retries", "0", "--host-timeout", "30s", kAgentAddr});
    Probe(kRenewedPort);
    EXPECT_TRUE(WaitUntil([&] { return CountContaining(Log(), "[PortScan] Alarm found") >= kPacedCount + 1; },
                          Seconds(10)))
        << Tail();
    std::multiset<unsigned> alarmed;
    ASSERT_TRUE(WaitUntil(
        [&] {
            alarmed = AlarmedPorts(m_dir.File("alarms.jsonl"));
            return alarmed.size() >= kPacedCount + 1;
        },
        Seconds(restarted + 80 - time(nullptr))))
        << alarmed.size() << " alarm(s)\n"
        << Tail();
    for (unsigned i = 0; i < kPacedCount; ++i) {
        EXPECT_EQ(alarmed.count(kPacedFirst + i), 1u) << "port " << kPacedFirst + i;
    }
    EXPECT_EQ(alarmed.count(kRenewedPort), 1u);
    EXPECT_EQ(alarmed.count(kFloodedPort), 0u);  // its alarms went down with the stopped task

    // The renewal comes right after that tick; a new probe of the same port alarms again, which one
    // run of the task never does.
    ASSERT_TRUE(WaitForLine(Log(), "[Agent] Renewing task port_scan_task", Seconds(20))) << Tail();
    ASSERT_TRUE(CaptureBuilt(3)) << Tail();
    const long renewed = time(nullptr);
    Probe(kRenewedPort);
    EXPECT_TRUE(WaitUntil([&] { return AlarmedPorts(m_dir.File("alarms.jsonl")).count(kRenewedPort) >= 2; },
                          Seconds(renewed + 80 - time(nullptr))))
        << Tail();
    EXPECT_EQ(Status(m_dir).code, 0);

    m_agent->Signal(SIGTERM);
    EXPECT_EQ(m_agent->WaitExit(Seconds(30)), 0);
    EXPECT_EQ(Status(m_dir).code, 3);
}

// Needs no root: without CAP_NET_RAW the capture socket cannot be built, which is the case measured.
TEST(AgentBoundsE2E, EmptyMonitorListStaysUnderTheCpuLimitAndAFailingSocketBuildUnderTheLogBound) {
    const int limit = ShippedCpuLimit();
    ASSERT_GT(limit, 0) << "the shipped config must bound the CPU";
    ASSERT_LE(limit, 10);

    TempDir idleDir;
    WriteAgentFiles(idleDir, limit, 60, 0, {});
    const std::unique_ptr<Child> idle = StartAgent(idleDir, "");

    // The socket build fails for lack of CAP_NET_RAW; no CPU limit, so only the log budget bounds it.
    TempDir failDir;
    WriteAgentFiles(failDir, 0, 60, 0, {2501, 2502, 2503});
    const std::unique_ptr<Child> failing =
        StartAgent(failDir, "",
                   geteuid() == 0 ? std::vector<std::string>{FindProgram("setpriv"), "--bounding-set",
                                                             "-net_raw", "--inh-caps", "-net_raw", "--"}
                                  : std::vector<std::string>{});
    const std::string failLog = failDir.File("log/hostagent.log");
    ASSERT_TRUE(WaitForLine(failLog, "first run port_scan_task", Seconds(15)))
        << ReadFile(failDir.File("agent.err"));
    const auto failingSince = std::chrono::steady_clock::now();

    // The shipped config and policy, capturing in a namespace of its own where no traffic flows:
    // its wake-ups are measured while the other two agents are.
    std::unique_ptr<NetNs> quietNs;
    TempDir quietDir;
    std::unique_ptr<Child> quiet;
    std::map<std::string, long> quietBefore;
    std::chrono::steady_clock::time_point quietSince;
    if (geteuid() == 0) {
        RemoveStaleNamespaces("quiet");
        quietNs = std::make_unique<NetNs>("quiet" + std::to_string(getpid()));
        WriteAgentFiles(quietDir, limit, 60, 86400, {});
        WriteFile(quietDir.File("portscan.json"), ReadFile(SHIPPED_POLICY));
        quiet = StartAgent(quietDir, quietNs->Name());
        ASSERT_TRUE(WaitForLine(quietDir.File("log/hostagent.log"), "Reload BPF rules", Seconds(15)))
            << ReadFile(quietDir.File("log/hostagent.log"));
        sleep(1);
        quietBefore = SwitchesByThread(quiet->Pid());
        quietSince = std::chrono::steady_clock::now();
    }

    // CPU of the idle agent over 10 s, once it has settled.
    ASSERT_TRUE(WaitForLine(idleDir.File("log/hostagent.log"), "first run port_scan_task", Seconds(15)));
    sleep(2);
    const double before = CpuSeconds(idle->Pid());
    sleep(10);
    const double share = (CpuSeconds(idle->Pid()) - before) * 10.0;  // percent of one core over 10 s
    EXPECT_LE(share, limit + 2.0) << "an agent with nothing to watch used " << share << " % of a core";
    std::cout << "idle agent CPU: " << share << " % of a core (limit " << limit << " %)\n";

    if (quiet) {
        constexpr int kQuietSeconds = 25;
        std::this_thread::sleep_until(quietSince + std::chrono::seconds(kQuietSeconds));
        const std::map<std::string, long> after = SwitchesByThread(quiet->Pid());
        long total = 0;
        long besideTheModuleLoop = 0;
        for (const auto& [thread, count] : after) {
            const long woken = count - quietBefore[thread];
            total += woken;
            besideTheModuleLoop += thread.find("port_scan_task") == std::string::npos ? woken : 0;
            std::cout << "idle wake-ups of " << thread << ": " << double(woken) / kQuietSeconds << " /s\n";
        }
        std::cout << "idle wake-ups in all: " << double(total) / kQuietSeconds << " /s\n";
        // The module's loop wakes twice a second (its one-second wait, then its 10 ms pause); the
        // rest of the agent sleeps but for the status file's minute write.
        EXPECT_LE(double(total) / kQuietSeconds, 2.1);
        EXPECT_LE(besideTheModuleLoop, 2) << "the agent's own threads woke while idle";
        EXPECT_TRUE(quiet->Running());
    }

    std::this_thread::sleep_until(failingSince + std::chrono::seconds(60));
    const std::size_t lines = ReadLines(failLog).size();
    std::cout << "log lines in 60 s of failing socket builds: " << lines << "\n";
    EXPECT_LE(lines, 300u);
    EXPECT_GT(CountContaining(failLog, "suppressed in"), 0u)
        << "the socket build did not fail: is CAP_NET_RAW still there?";
    // The operator is told at start which privilege is missing and what it costs.
    EXPECT_EQ(CountContaining(failLog, "No CAP_NET_RAW: packet capture will fail"), 1u);
    EXPECT_TRUE(idle->Running());
    EXPECT_TRUE(failing->Running());
}

}  // namespace
