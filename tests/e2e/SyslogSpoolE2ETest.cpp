// The syslog sinks against Debian's rsyslog in a namespace of the test's (loopback only): RFC 5424 over
// TCP and UDP parsed once each, every alarm of the TCP spool delivered exactly once across kill -9
// during a drain, and a 64 MiB spool drained with a small peak RSS.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const std::string kPort = "10516", kUdpPort = "10517";

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

// rsyslog listening on 127.0.0.1 (TCP kPort, UDP kUdpPort), and an agent that spools for it over TCP.
class SyslogSpoolE2E : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT("ip", "ss", "rsyslogd");
        ns = std::make_unique<NetNs>("hsp" + std::to_string(getpid()));
        WriteFile(dir.File("agent.json"),
                  R"({"log": {"level": "information", "console": false,
            "file": "log/hostagent.log"}, "report": {"sinks": [{"type": "syslog", "protocol": "tcp",
            "address": "127.0.0.1:)" +
                      kPort + R"(", "spool": "spool/syslog.spool", "spool_max_bytes": 134217728}]}})");
    }
    void TearDown() override {
        if (HasFailure()) {
            dir.Keep();
        }
    }

    std::string Spool() const { return dir.File("spool/syslog.spool"); }

    // rsyslog writes each message as `format` (its template syntax) to received.log.
    void StartCollector(const std::string& format = "%msg%") {
        const std::string on = " address=\"127.0.0.1\" port=\"";
        collector = StartRsyslog(dir,
                                 "module(load=\"imtcp\")\nmodule(load=\"imudp\")\ninput(type=\"imtcp\"" + on +
                                     kPort + "\")\ninput(type=\"imudp\"" + on + kUdpPort +
                                     "\")\ntemplate(name=\"msg\" type=\"string\" string=\"" + format +
                                     "\\n\")\naction(type=\"omfile\" template=\"msg\" file=\"" +
                                     dir.File("received.log") + "\")\n",
                                 ns->Name());
        ASSERT_TRUE(
            WaitUntil([&] { return Listening(ns->Name(), kPort) && Listening(ns->Name(), kUdpPort, true); },
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
            ns->Name(), dir.File("agent.out"), dir.File("agent.err"));
    }
    void StopAgent() {
        agent->Signal(SIGTERM);
        EXPECT_EQ(agent->WaitExit(Seconds(10)).value_or(-1), 0) << "the agent did not stop within 10 s";
        agent.reset();
    }
    // Until the agent's connection holds unsent bytes (Send-Q, second when `ss` is given the state), and
    // a second longer: the agent has then recorded what the kernel took.
    bool WaitFilled() {
        const std::regex unsent("^\\s*\\d+\\s+[1-9].*pid=" + std::to_string(agent->Pid()) + ",",
                                std::regex::multiline);
        const std::vector<std::string> ss = {"ss", "-tnpH", "state", "established", "dport = :" + kPort};
        const bool filled = WaitUntil(
            [&] { return std::regex_search(TestSupport::Run(ss, ns->Name()).output, unsent); }, Seconds(20));
        std::this_thread::sleep_for(Seconds(1));
        return filled;
    }

    TempDir dir;
    std::unique_ptr<NetNs> ns;
    std::unique_ptr<Child> collector, agent;
};

TEST_F(SyslogSpoolE2E, EveryAlarmReachesRsyslogOnceAfterKill9DuringADrain) {
    const int count = 50000;  // about 13 MB: more than the socket buffers hold
    WriteSpool(Spool(), count);
    const std::uint64_t spoolBytes = FileSize(Spool());
    ASSERT_NO_FATAL_FAILURE(StartCollector());
    // rsyslog stopped: the kernel takes the connection and fills the buffers, then nothing moves.
    collector->Signal(SIGSTOP);
    StartAgent();
    ASSERT_TRUE(WaitFilled()) << "the agent did not fill its connection";
    agent->Signal(SIGKILL);
    agent.reset();  // reaped
    // A partial drain: the record says part of the spool was sent.
    std::istringstream record(ReadFile(Spool() + ".offset"));
    std::uint64_t inode = 0, sent = 0;
    record >> inode >> sent;
    ASSERT_GT(sent, 0u);
    ASSERT_LT(sent, spoolBytes);

    // Still stopped: the next run fills a new connection and must stop within 10 s all the same.
    StartAgent();
    ASSERT_TRUE(WaitFilled()) << "the second run did not fill its connection";
    StopAgent();
    collector->Signal(SIGCONT);

    // Partly drained twice: the third run sends the rest.
    StartAgent();
    ASSERT_TRUE(WaitUntil([&] { return FileSize(Spool()) == 0; }, Seconds(120)))
        << "the spool was not drained";
    StopAgent();
    ASSERT_NO_FATAL_FAILURE(StopCollector());
    std::map<int, int> seen;
    for (const std::string& line : ReadLines(dir.File("received.log"))) {
        ++seen[Parsed(line.substr(line.find('{')))["seq"].asInt()];
    }
    ASSERT_EQ(seen.size(), static_cast<std::size_t>(count)) << "alarms lost";
    EXPECT_EQ(std::count_if(seen.begin(), seen.end(), [](const auto& entry) { return entry.second > 1; }), 0)
        << "alarms sent twice";
    EXPECT_NE(ReadFile(dir.File("log/hostagent.log")).find("alarm(s) from spool"), std::string::npos);
}

TEST_F(SyslogSpoolE2E, SixtyFourMebibyteSpoolDrainsWithASmallPeakRss) {
    const int count = 64 * 1024 * 1024 / static_cast<int>(Frame(0).size()) + 1;
    WriteSpool(Spool(), count);
    ASSERT_GE(FileSize(Spool()), 64u * 1024 * 1024);
    ASSERT_NO_FATAL_FAILURE(StartCollector());
    StartAgent();
    ASSERT_TRUE(WaitUntil([&] { return FileSize(Spool()) == 0; }, Seconds(180)))
        << "the spool was not drained";
    const std::string status = ReadFile("/proc/" + std::to_string(agent->Pid()) + "/status");
    std::smatch peakKb;
    ASSERT_TRUE(std::regex_search(status, peakKb, std::regex("VmHWM:\\s*(\\d+) kB"))) << status;
    StopAgent();
    ASSERT_NO_FATAL_FAILURE(StopCollector());
    EXPECT_LT(std::stol(peakKb[1]), 32 * 1000) << "peak RSS in kB while draining";
    EXPECT_EQ(ReadLines(dir.File("received.log")).size(), static_cast<std::size_t>(count));
}

TEST_F(SyslogSpoolE2E, RsyslogParsesTheAgentsMessagesOverTcpAndUdpOnceEach) {
    // The test module sends three events when its policy arrives.
    WriteFile(dir.File("test.json"), R"({"marker": "interop", "count": 3})");
    WriteFile(dir.File("agent.json"),
              R"({"log": {"level": "information", "console": false, "file": "log/hostagent.log"},
            "modules": [")" TEST_MODULE
              R"("], "policies": {"90001": "test.json"},
            "report": {"sinks": [{"type": "file", "path": "alarms.jsonl"},
                {"type": "syslog", "address": "127.0.0.1:)" +
                  kPort + R"(", "protocol": "tcp"},
                {"type": "syslog", "address": "127.0.0.1:)" +
                  kUdpPort + R"(", "protocol": "udp"}]}})");
    ASSERT_NO_FATAL_FAILURE(
        StartCollector("%inputname% %protocol-version% %app-name% %procid% %msgid% %msg%"));
    StartAgent();
    const std::string pid = std::to_string(agent->Pid());
    ASSERT_TRUE(WaitUntil([&] { return ReadLines(dir.File("received.log")).size() >= 6; }, Seconds(20)))
        << ReadFile(dir.File("log/hostagent.log"));
    EXPECT_EQ(ReadFile(dir.File("agent.pid")), pid + "\n");
    StopAgent();
    EXPECT_NE(access(dir.File("agent.pid").c_str(), F_OK), 0) << "the pid file stayed";
    ASSERT_NO_FATAL_FAILURE(StopCollector());

    // Per filed document, the inputs whose MSG was exactly it; each header as rsyslog parsed it.
    std::map<std::string, std::map<std::string, int>> received, expected;
    for (const std::string& line : ReadLines(dir.File("received.log"))) {
        std::istringstream fields(line);
        std::string input, version, appName, procId, msgId, msg;
        fields >> input >> version >> appName >> procId >> msgId >> std::ws;
        std::getline(fields, msg);
        EXPECT_EQ(version + " " + appName + " " + procId + " " + msgId, "1 hostagent " + pid + " test_0001")
            << line;
        ++received[msg][input];
    }
    const std::vector<std::string> filed = ReadLines(dir.File("alarms.jsonl"));
    EXPECT_EQ(filed.size(), 3u);
    for (const std::string& document : filed) {
        expected[document] = {{"imtcp", 1}, {"imudp", 1}};
    }
    EXPECT_EQ(received, expected);
}

}  // namespace
