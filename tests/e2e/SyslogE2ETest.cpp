// Alarms to a real collector: Debian's rsyslog, run by the test in a network namespace of its own
// with its own config (TCP and UDP inputs, one file output), receives the agent's alarms as RFC 5424
// messages. Then the collector goes down, a second scan raises alarms, the agent is stopped and
// started again, the collector comes back: the spooled alarms arrive over TCP, each exactly once.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
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
    EXPECT_TRUE(ParseJson(R"({"monitor_list": [{"port": 2401, "type": 0}, {"port": 2402, "type": 0},
        {"port": 2403, "type": 0}, {"port": 2404, "type": 0}], "white_ip_list": "",
        "check_port_before_alarm": true, "prompt_alarms": true, "enable": true, "task_condition": {}})",
                          task));
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
           R"(template(name="fields" type="string" string="%inputname% %protocol-version% %app-name% %procid% %msgid% %msg%\n"))" +
           "\naction(type=\"omfile\" file=\"" + dir + "/received.log\" template=\"fields\")\n";
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

// The agent's lab with a third namespace for the collector, rsyslog run there by pid.
struct CollectorLab : Lab {
    CollectorLab()
        : Lab("sl", kMonitoredAddr, kScannerAddr),
          col(AddNeighbour("col", kAgentCollectorSide, kCollectorAddr)) {
        MustRun({"mkdir", "-p", dir.File("rsyslog")});
        WriteFile(dir.File("rsyslog.conf"), RsyslogConfigText(dir.Path()));
    }
    ~CollectorLab() { collector.reset(); }

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

    // Two SYNs to each port: one alarm each.
    void ScanPorts(const unsigned (&ports)[2]) {
        for (unsigned port : ports) {
            Scan(Hping("-S", port, 2, "u200000", 42000, kMonitoredAddr));
        }
    }

    const NetNs& col;
    std::unique_ptr<Child> collector;
};

TEST(SyslogE2E, CollectorReceivesEveryAlarmOnceAcrossAnOutageAndARestart) {
    if (const std::string why = MissingPrerequisite({"ip", "ss", "hping3", "rsyslogd"}); !why.empty()) {
        GTEST_SKIP() << why;
    }
    CollectorLab lab;
    ASSERT_NO_FATAL_FAILURE(lab.StartCollector());
    ASSERT_NO_FATAL_FAILURE(lab.StartAgent(PolicyText(), AgentConfigText()));
    const std::string agentPid = std::to_string(lab.agent->Pid());
    // First scan, collector up: each alarm arrives once per input, as RFC 5424 with MSG the document.
    lab.ScanPorts(kFirstScanPorts);
    std::vector<Json::Value> filed = lab.WaitForAlarms(2, Seconds(90));
    ASSERT_EQ(filed.size(), 2u) << "alarms of the first scan";
    const std::set<std::string> firstIds = EventIds(filed);
    std::vector<Received> received;
    ASSERT_TRUE(WaitUntil(
        [&] {
            received = ReadReceived(lab.dir.File("received.log"));
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
    ASSERT_NO_FATAL_FAILURE(lab.StopCollector());
    lab.ScanPorts(kSecondScanPorts);
    filed = lab.WaitForAlarms(4, Seconds(90));
    std::set<std::string> secondIds = EventIds(filed);
    for (const std::string& id : firstIds) {
        secondIds.erase(id);
    }
    ASSERT_EQ(secondIds.size(), 2u);
    lab.StopAgent();
    EXPECT_NE(ReadFile(lab.dir.File("spool/syslog.spool")), "");

    // Started again before the collector is back: it keeps trying, then sends the spool.
    lab.RunAgent();
    ASSERT_TRUE(WaitForLine(lab.Log(), "from spool", Seconds(30)));
    ASSERT_NO_FATAL_FAILURE(lab.StartCollector());
    ASSERT_TRUE(
        WaitForLine(lab.Log(), "Sending alarms to syslog collector 10.78.2.2:10514 (tcp) again", Seconds(60)))
        << "the restarted agent did not reach the collector";
    sleep(1);  // anything sent twice would arrive now
    lab.StopAgent();
    ASSERT_NO_FATAL_FAILURE(lab.StopCollector());

    auto counts = CountByEvent(ReadReceived(lab.dir.File("received.log")));
    for (const std::string& id : secondIds) {
        EXPECT_EQ(counts[id]["imtcp"], 1) << "alarm " << id << " of the outage";
    }
    for (const std::string& id : firstIds) {
        EXPECT_EQ(counts[id]["imtcp"], 1) << "alarm " << id << " sent before the outage";
    }
    EXPECT_EQ(ReadFile(lab.dir.File("spool/syslog.spool")), "");
    std::string log = ReadFile(lab.Log());
    EXPECT_NE(log.find("2 alarm(s) for syslog collector 10.78.2.2:10514 (tcp) kept in spool"),
              std::string::npos);
}

}  // namespace
