// Alarms to a real collector: Debian's rsyslog, run by the test in a network namespace of its own
// with its own config (TCP and UDP inputs, one file output), receives the agent's alarms as RFC 5424
// messages. Then the collector goes down, a second scan raises alarms, the agent is stopped and
// started again, the collector comes back: the spooled alarms arrive over TCP, each exactly once.

#include "ScanLab.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitoredAddr = "10.78.1.1";
const char* const kScannerAddr = "10.78.1.2";
const char* const kAgentCollectorSide = "10.78.2.1";
const char* const kCollectorAddr = "10.78.2.2";
const char* const kTcpPort = "10514";
const char* const kUdpPort = "10515";
// Two ports per scan, SYN-scanned: one alarm each.
const unsigned kFirstScanPorts[] = {2401, 2402};
const unsigned kSecondScanPorts[] = {2403, 2404};

// Alarms leave promptly (not at the minute tick), so the test waits seconds, not minutes.
std::string PolicyText() {
    Json::Value task;
    for (unsigned port : {2401, 2402, 2403, 2404}) {
        Json::Value entry;
        entry["port"] = port;
        entry["type"] = 0;
        task["monitor_list"].append(entry);
    }
    task["white_ip_list"] = "";
    task["check_port_before_alarm"] = true;
    task["prompt_alarms"] = true;
    task["enable"] = true;
    task["task_condition"] = Json::Value(Json::objectValue);
    return FeaturePolicyText(task, "syslog-e2e");
}

std::string AgentConfigText() {
    return std::string(R"({"log": {"level": "debug", "console": false, "file": "log/hostagent.log"},
        "modules": [")") +
           PORTSCAN_MODULE_PATH + R"("], "policies": {"10001": "portscan.json"},
        "report": {"sinks": [{"type": "file", "path": "alarms.jsonl"},
            {"type": "syslog", "address": ")" +
           kCollectorAddr + ":" + kTcpPort + R"(", "protocol": "tcp", "spool": "spool/syslog.spool"},
            {"type": "syslog", "address": ")" +
           kCollectorAddr + ":" + kUdpPort + R"(", "protocol": "udp"}]}})";
}

// The collector's own config: no local inputs (the host's logging is not touched), its work
// folder in the test's folder, one line per message: input, the RFC 5424 fields as rsyslog parsed
// them, and MSG.
std::string RsyslogConfigText(const std::string& dir) {
    return "global(workDirectory=\"" + dir + "/rsyslog\" net.enableDNS=\"off\")\n" +
           "module(load=\"imtcp\")\nmodule(load=\"imudp\")\n" + "input(type=\"imtcp\" address=\"" +
           kCollectorAddr + "\" port=\"" + kTcpPort + "\")\n" + "input(type=\"imudp\" address=\"" +
           kCollectorAddr + "\" port=\"" + kUdpPort + "\")\n" +
           "template(name=\"fields\" type=\"list\") {\n"
           "  property(name=\"inputname\") constant(value=\" \")\n"
           "  property(name=\"protocol-version\") constant(value=\" \")\n"
           "  property(name=\"app-name\") constant(value=\" \")\n"
           "  property(name=\"procid\") constant(value=\" \")\n"
           "  property(name=\"msgid\") constant(value=\" \")\n"
           "  property(name=\"msg\") constant(value=\"\\n\")\n"
           "}\n" +
           "action(type=\"omfile\" file=\"" + dir + "/received.log\" template=\"fields\")\n";
}

struct Received {
    std::string input, version, appName, procId, msgId;
    Json::Value alarm;
};

std::vector<Received> ReadReceived(const std::string& path) {
    std::vector<Received> all;
    for (const std::string& line : ReadLines(path)) {
        std::istringstream fields(line);
        Received r;
        fields >> r.input >> r.version >> r.appName >> r.procId >> r.msgId;
        std::string msg;
        std::getline(fields, msg);
        EXPECT_TRUE(ParseJson(msg.substr(msg.find_first_not_of(' ')), r.alarm))
            << "MSG is no JSON object: " << line;
        all.push_back(r);
    }
    return all;
}

// Messages per event id and input.
std::map<std::string, std::map<std::string, int>> CountByEvent(const std::vector<Received>& received) {
    std::map<std::string, std::map<std::string, int>> counts;
    for (const Received& r : received) {
        ++counts[r.alarm["event_id"].asString()][r.input];
    }
    return counts;
}

struct Lab {
    TempDir dir;
    std::string tag = std::to_string(getpid());
    NetNs mon{"sl" + tag + "-mon"};
    NetNs scanner{"sl" + tag + "-scan"};
    NetNs col{"sl" + tag + "-col"};
    std::unique_ptr<Child> collector;
    std::unique_ptr<Child> agent;

    Lab() {
        AddVethPair(mon, "to-scan", std::string(kMonitoredAddr) + "/24", scanner, "eth0",
                    std::string(kScannerAddr) + "/24");
        AddVethPair(mon, "to-col", std::string(kAgentCollectorSide) + "/24", col, "eth0",
                    std::string(kCollectorAddr) + "/24");
        MustRun({"mkdir", "-p", dir.File("rsyslog")});
        WriteFile(dir.File("rsyslog.conf"), RsyslogConfigText(dir.Path()));
        WriteFile(dir.File("agent.json"), AgentConfigText());
        WriteFile(dir.File("portscan.json"), PolicyText());
    }

    std::string Log() const { return dir.File("log/hostagent.log"); }

    void StartCollector() {
        collector = std::make_unique<Child>(
            std::vector<std::string>{FindProgram("rsyslogd"), "-n", "-f", dir.File("rsyslog.conf"), "-i",
                                     dir.File("rsyslog/rsyslogd.pid")},
            col.Name(), dir.File("rsyslog.out"), dir.File("rsyslog.out"));
        bool up = WaitUntil(
            [&] {
                return Run({"ss", "-ltnH", std::string("sport = :") + kTcpPort}, col.Name())
                               .output.find("LISTEN") != std::string::npos &&
                       !Run({"ss", "-lunH", std::string("sport = :") + kUdpPort}, col.Name()).output.empty();
            },
            Seconds(15));
        ASSERT_TRUE(up) << "rsyslog did not come up:\n" << ReadFile(dir.File("rsyslog.out"));
    }

    void StopCollector() {
        collector->Signal(SIGTERM);
        ASSERT_TRUE(collector->WaitExit(Seconds(15))) << "rsyslog did not stop";
        collector.reset();
    }

    void StartAgent() {
        agent = std::make_unique<Child>(
            std::vector<std::string>{HOSTAGENT_PATH, "--config", dir.File("agent.json")}, mon.Name(),
            dir.File("agent.out"), dir.File("agent.err"));
    }

    void StopAgent() {
        agent->Signal(SIGTERM);
        std::optional<int> code = agent->WaitExit(Seconds(30));
        ASSERT_TRUE(code) << "the agent did not stop within 30 s of SIGTERM";
        EXPECT_EQ(*code, 0);
        agent.reset();
    }

    void Scan(const unsigned (&ports)[2]) {
        for (unsigned port : ports) {
            RunResult result = Run({"hping3", "-q", "-S", "-c", "2", "-i", "u200000", "-p",
                                    std::to_string(port), "-s", "42000", "-k", kMonitoredAddr},
                                   scanner.Name(), Seconds(30));
            EXPECT_EQ(result.code, 0) << "hping3 failed:\n" << result.output;
        }
    }
};

class SyslogE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root: it builds network namespaces and runs a raw-socket scanner";
        }
        for (const char* tool : {"ip", "ss", "hping3", "rsyslogd"}) {
            if (FindProgram(tool).empty()) {
                GTEST_SKIP() << tool << " is missing (scripts/install-deps.sh installs it)";
            }
        }
        RemoveStaleNamespaces("sl");
        lab = std::make_unique<Lab>();
    }
    void TearDown() override {
        if (lab && HasFailure()) {
            lab->dir.Keep();
            std::cerr << "agent and collector files kept in " << lab->dir.Path() << "\n";
        }
        lab.reset();
    }
    std::unique_ptr<Lab> lab;
};

TEST_F(SyslogE2E, CollectorReceivesEveryAlarmOnceAcrossAnOutageAndARestart) {
    ASSERT_NO_FATAL_FAILURE(lab->StartCollector());
    lab->StartAgent();
    const std::string agentPid = std::to_string(lab->agent->Pid());
    ASSERT_TRUE(WaitForLine(lab->Log(), "Reload BPF rules", Seconds(30)))
        << ReadFile(lab->dir.File("agent.err"));

    // First scan, collector up: each alarm arrives once per input, as RFC 5424 with MSG the document.
    lab->Scan(kFirstScanPorts);
    std::vector<Json::Value> filed;
    ASSERT_TRUE(WaitUntil(
        [&] {
            filed = ReadAlarms(lab->dir.File("alarms.jsonl"));
            return filed.size() >= 2;
        },
        Seconds(90)))
        << "no alarms from the first scan";
    ASSERT_EQ(filed.size(), 2u);
    const std::set<std::string> firstIds = EventIds(filed);
    std::vector<Received> received;
    ASSERT_TRUE(WaitUntil(
        [&] {
            received = ReadReceived(lab->dir.File("received.log"));
            return received.size() >= 4;
        },
        Seconds(20)))
        << "rsyslog received " << received.size() << " of 4 messages";
    for (const Received& r : received) {
        SCOPED_TRACE(r.input + " " + r.alarm.toStyledString());
        EXPECT_EQ(r.version, "1");
        EXPECT_EQ(r.appName, "hostagent");
        EXPECT_EQ(r.procId, agentPid);
        EXPECT_EQ(r.msgId, r.alarm["event_classid"].asString());
        auto same = std::find(filed.begin(), filed.end(), r.alarm);
        EXPECT_NE(same, filed.end()) << "MSG differs from every document of the alarm file";
    }
    for (const std::string& id : firstIds) {
        EXPECT_EQ(CountByEvent(received)[id], (std::map<std::string, int>{{"imtcp", 1}, {"imudp", 1}})) << id;
    }

    // Collector down: the second scan's alarms go to the spool; the agent stops with them there.
    ASSERT_NO_FATAL_FAILURE(lab->StopCollector());
    lab->Scan(kSecondScanPorts);
    ASSERT_TRUE(WaitUntil(
        [&] {
            filed = ReadAlarms(lab->dir.File("alarms.jsonl"));
            return filed.size() >= 4;
        },
        Seconds(90)))
        << "no alarms from the second scan";
    std::set<std::string> secondIds = EventIds(filed);
    for (const std::string& id : firstIds) {
        secondIds.erase(id);
    }
    ASSERT_EQ(secondIds.size(), 2u);
    ASSERT_NO_FATAL_FAILURE(lab->StopAgent());
    EXPECT_NE(ReadFile(lab->dir.File("spool/syslog.spool")), "");

    // Started again before the collector is back: it keeps trying, then sends the spool.
    lab->StartAgent();
    ASSERT_TRUE(WaitForLine(lab->Log(), "from spool", Seconds(30)));
    ASSERT_NO_FATAL_FAILURE(lab->StartCollector());
    ASSERT_TRUE(WaitForLine(lab->Log(), "Sending alarms to syslog collector 10.78.2.2:10514 (tcp) again",
                            Seconds(60)))
        << "the restarted agent did not reach the collector";
    sleep(1);  // anything sent twice would arrive now
    ASSERT_NO_FATAL_FAILURE(lab->StopAgent());
    ASSERT_NO_FATAL_FAILURE(lab->StopCollector());

    auto counts = CountByEvent(ReadReceived(lab->dir.File("received.log")));
    for (const std::string& id : secondIds) {
        EXPECT_EQ(counts[id]["imtcp"], 1) << "alarm " << id << " of the outage";
    }
    for (const std::string& id : firstIds) {
        EXPECT_EQ(counts[id]["imtcp"], 1) << "alarm " << id << " sent before the outage";
    }
    EXPECT_EQ(ReadFile(lab->dir.File("spool/syslog.spool")), "");
    std::string log = ReadFile(lab->Log());
    EXPECT_NE(log.find("2 alarm(s) for syslog collector 10.78.2.2:10514 (tcp) kept in spool"),
              std::string::npos);
}

}  // namespace
