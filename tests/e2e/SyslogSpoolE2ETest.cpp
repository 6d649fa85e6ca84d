// The agent's syslog sinks against Debian's rsyslog, both run by the test in a network namespace of
// its own (loopback only): rsyslog parses the agent's RFC 5424 messages over TCP and UDP, after
// kill -9 during a drain of the TCP spool every alarm reaches rsyslog exactly once, and a 64 MiB
// spool drains while the agent's peak RSS stays small.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kPort = "10516";
const char* const kUdpPort = "10517";

std::string Frame(int seq) {
    std::string message = "<28>1 2026-11-23T00:00:00.000000Z spooltest hostagent 1 portscan_0002 - " +
                          std::string(R"({"event_classid":"portscan_0002","pad":")") + std::string(200, 'x') +
                          R"(","seq":)" + std::to_string(seq) + "}";
    return std::to_string(message.size()) + " " + message;
}

// A spool of `count` frames, as an agent that could not reach its collector left it.
void WriteSpool(const std::string& path, int count) {
    MustRun({"mkdir", "-p", path.substr(0, path.rfind('/'))});
    std::ofstream out(path, std::ios::binary);
    for (int seq = 0; seq < count; ++seq) {
        out << Frame(seq);
    }
}

std::uint64_t FileSize(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

long VmHwmKb(pid_t pid) {
    for (const std::string& line : ReadLines("/proc/" + std::to_string(pid) + "/status")) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

// rsyslog listening on 127.0.0.1 (TCP kPort, UDP kUdpPort) and writing each message as `format`
// (rsyslog's template syntax), and an agent that spools for it over TCP.
struct SpoolLab {
    explicit SpoolLab(const std::string& format = "%msg%") : ns("hsp" + std::to_string(getpid())) {
        MustRun({"mkdir", "-p", dir.File("rsyslog")});
        WriteFile(dir.File("rsyslog.conf"),
                  "global(workDirectory=\"" + dir.File("rsyslog") + "\" net.enableDNS=\"off\")\n" +
                      "module(load=\"imtcp\")\ninput(type=\"imtcp\" address=\"127.0.0.1\" port=\"" + kPort +
                      "\")\nmodule(load=\"imudp\")\ninput(type=\"imudp\" address=\"127.0.0.1\" port=\"" +
                      kUdpPort + "\")\n" + "template(name=\"msg\" type=\"string\" string=\"" + format +
                      "\\n\")\n" + "action(type=\"omfile\" file=\"" + dir.File("received.log") +
                      "\" template=\"msg\")\n");
        WriteFile(
            dir.File("agent.json"),
            std::string(R"({"log": {"level": "information", "console": false, "file": "log/hostagent.log"},
            "report": {"sinks": [{"type": "syslog", "address": "127.0.0.1:)") +
                kPort + R"(", "protocol": "tcp",
                "spool": "spool/syslog.spool", "spool_max_bytes": 134217728}]}})");
    }
    ~SpoolLab() {
        agent.reset();
        collector.reset();
        if (::testing::Test::HasFailure()) {
            dir.Keep();
        }
    }

    std::string Spool() const { return dir.File("spool/syslog.spool"); }

    void StartCollector() {
        collector = std::make_unique<Child>(
            std::vector<std::string>{FindProgram("rsyslogd"), "-n", "-f", dir.File("rsyslog.conf"), "-i",
                                     dir.File("rsyslog/rsyslogd.pid")},
            ns.Name(), dir.File("rsyslog.out"), dir.File("rsyslog.out"));
        ASSERT_TRUE(WaitUntil(
            [&] {
                return Run({"ss", "-ltnH", std::string("sport = :") + kPort}, ns.Name())
                               .output.find("LISTEN") != std::string::npos &&
                       !Run({"ss", "-lunH", std::string("sport = :") + kUdpPort}, ns.Name()).output.empty();
            },
            Seconds(15)))
            << ReadFile(dir.File("rsyslog.out"));
    }
    // rsyslog writes out what it received before it exits.
    void StopCollector() {
        collector->Signal(SIGTERM);
        ASSERT_TRUE(collector->WaitExit(Seconds(15)));
        collector.reset();
    }
    void StartAgent() {
        agent = std::make_unique<Child>(
            std::vector<std::string>{HOSTAGENT_PATH, "--config", dir.File("agent.json"), "--pid-file",
                                     dir.File("agent.pid")},
            ns.Name(), dir.File("agent.out"), dir.File("agent.err"));
    }
    void StopAgent() {
        agent->Signal(SIGTERM);
        EXPECT_EQ(agent->WaitExit(Seconds(10)).value_or(-1), 0) << "the agent did not stop within 10 s";
        agent.reset();
    }
    // Until the agent's connection holds unsent bytes (the collector reads nothing), and a second
    // longer: the agent has then recorded what the kernel took.
    bool WaitFilled() {
        const std::string owner = "pid=" + std::to_string(agent->Pid()) + ",";
        bool filled = WaitUntil(
            [&] {
                std::istringstream lines(
                    TestSupport::Run(
                        {"ss", "-tnpH", "state", "established", "dport = :" + std::string(kPort)}, ns.Name())
                        .output);
                for (std::string line; std::getline(lines, line);) {
                    std::istringstream fields(line);
                    unsigned long recvQ = 0, sendQ = 0;
                    if (line.find(owner) != std::string::npos && fields >> recvQ >> sendQ && sendQ > 0) {
                        return true;
                    }
                }
                return false;
            },
            Seconds(20));
        WaitUntil([] { return false; }, Millis(1000));
        return filled;
    }
    bool WaitDrained(Seconds limit) {
        return WaitUntil([&] { return FileSize(Spool()) == 0; }, limit);
    }

    TempDir dir;
    NetNs ns;
    std::unique_ptr<Child> collector, agent;
};

TEST(SyslogSpoolE2E, EveryAlarmReachesRsyslogOnceAfterKill9DuringADrain) {
    if (const std::string why = MissingPrerequisite({"ip", "ss", "rsyslogd"}); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const int count = 50000;  // about 13 MB: more than the socket buffers hold
    SpoolLab lab;
    WriteSpool(lab.Spool(), count);
    const std::uint64_t spoolBytes = FileSize(lab.Spool());
    ASSERT_NO_FATAL_FAILURE(lab.StartCollector());
    // rsyslog stopped: the kernel takes the connection and fills the buffers, then nothing moves.
    lab.collector->Signal(SIGSTOP);
    lab.StartAgent();
    ASSERT_TRUE(lab.WaitFilled()) << "the agent did not fill its connection";
    lab.agent->Signal(SIGKILL);
    ASSERT_TRUE(lab.agent->WaitExit(Seconds(5)));
    lab.agent.reset();
    // A partial drain: the record says part of the spool was sent.
    std::istringstream record(ReadFile(lab.Spool() + ".offset"));
    std::uint64_t inode = 0, sent = 0;
    record >> inode >> sent;
    ASSERT_GT(sent, 0u);
    ASSERT_LT(sent, spoolBytes);

    // Still stopped: the next run fills a new connection and must stop within 10 s all the same.
    lab.StartAgent();
    ASSERT_TRUE(lab.WaitFilled()) << "the second run did not fill its connection";
    lab.StopAgent();
    lab.collector->Signal(SIGCONT);

    // Partly drained twice: the third run sends the rest.
    lab.StartAgent();
    ASSERT_TRUE(lab.WaitDrained(Seconds(120))) << "the spool was not drained";
    lab.StopAgent();
    ASSERT_NO_FATAL_FAILURE(lab.StopCollector());
    std::map<int, int> seen;
    for (const std::string& line : ReadLines(lab.dir.File("received.log"))) {
        Json::Value alarm;
        ASSERT_TRUE(ParseJson(line.substr(line.find('{')), alarm)) << line;
        ++seen[alarm["seq"].asInt()];
    }
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(count)) << "alarms lost";
    int twice = 0;
    for (const auto& [seq, times] : seen) {
        twice += times > 1 ? 1 : 0;
    }
    EXPECT_EQ(twice, 0) << "alarms sent twice";
    const std::string log = ReadFile(lab.dir.File("log/hostagent.log"));
    EXPECT_NE(log.find("alarm(s) from spool"), std::string::npos);
}

TEST(SyslogSpoolE2E, SixtyFourMebibyteSpoolDrainsWithASmallPeakRss) {
    if (const std::string why = MissingPrerequisite({"ip", "ss", "rsyslogd"}); !why.empty()) {
        GTEST_SKIP() << why;
    }
    SpoolLab lab;
    const int count = 64 * 1024 * 1024 / static_cast<int>(Frame(0).size()) + 1;
    WriteSpool(lab.Spool(), count);
    ASSERT_GE(FileSize(lab.Spool()), 64u * 1024 * 1024);
    ASSERT_NO_FATAL_FAILURE(lab.StartCollector());
    lab.StartAgent();
    ASSERT_TRUE(lab.WaitDrained(Seconds(180))) << "the spool was not drained";
    const long peakKb = VmHwmKb(lab.agent->Pid());
    RecordProperty("peak_rss_kb", static_cast<int>(peakKb));
    lab.StopAgent();
    ASSERT_NO_FATAL_FAILURE(lab.StopCollector());
    EXPECT_GT(peakKb, 0);
    EXPECT_LT(peakKb, 32 * 1000) << "peak RSS in kB while draining";
    EXPECT_EQ(ReadLines(lab.dir.File("received.log")).size(), static_cast<std::size_t>(count));
}

TEST(SyslogSpoolE2E, RsyslogParsesTheAgentsMessagesOverTcpAndUdpOnceEach) {
    if (const std::string why = MissingPrerequisite({"ip", "ss", "rsyslogd"}); !why.empty()) {
        GTEST_SKIP() << why;
    }
    SpoolLab lab("%inputname% %protocol-version% %app-name% %procid% %msgid% %msg%");
    // The test module sends three events when its policy arrives.
    WriteFile(lab.dir.File("test.json"), R"({"marker": "interop", "count": 3})");
    WriteFile(lab.dir.File("agent.json"),
              std::string(R"({"log": {"level": "information", "console": false, "file": "log/hostagent.log"},
            "modules": [")") +
                  TEST_MODULE + R"("], "policies": {"90001": "test.json"},
            "report": {"sinks": [{"type": "file", "path": "alarms.jsonl"},
                {"type": "syslog", "address": "127.0.0.1:)" +
                  kPort + R"(", "protocol": "tcp"},
                {"type": "syslog", "address": "127.0.0.1:)" +
                  kUdpPort + R"(", "protocol": "udp"}]}})");
    ASSERT_NO_FATAL_FAILURE(lab.StartCollector());
    lab.StartAgent();
    const std::string pid = std::to_string(lab.agent->Pid());
    ASSERT_TRUE(WaitUntil([&] { return ReadLines(lab.dir.File("received.log")).size() >= 6; }, Seconds(20)))
        << ReadFile(lab.dir.File("log/hostagent.log"));
    EXPECT_EQ(ReadFile(lab.dir.File("agent.pid")), pid + "\n");
    lab.StopAgent();
    EXPECT_NE(access(lab.dir.File("agent.pid").c_str(), F_OK), 0) << "the pid file stayed";
    ASSERT_NO_FATAL_FAILURE(lab.StopCollector());

    // Per filed document, the inputs whose MSG was exactly that document; each header as rsyslog
    // parsed it (MSGID is the event's event_classid).
    std::map<std::string, std::map<std::string, int>> received, expected;
    for (const std::string& line : ReadLines(lab.dir.File("received.log"))) {
        std::istringstream fields(line);
        std::string input, version, appName, procId, msgId, msg;
        fields >> input >> version >> appName >> procId >> msgId >> std::ws;
        std::getline(fields, msg);
        EXPECT_EQ(version + " " + appName + " " + procId + " " + msgId, "1 hostagent " + pid + " test_0001")
            << line;
        ++received[msg][input];
    }
    const std::vector<std::string> filed = ReadLines(lab.dir.File("alarms.jsonl"));
    EXPECT_EQ(filed.size(), 3u);
    for (const std::string& document : filed) {
        expected[document] = {{"imtcp", 1}, {"imudp", 1}};
    }
    EXPECT_EQ(received, expected);
}

}  // namespace
