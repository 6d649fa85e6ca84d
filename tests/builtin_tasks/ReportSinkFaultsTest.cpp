// The report task's sinks under faults: a TCP collector that is down (spool, restart, bound) or whose
// name does not resolve, a local syslog daemon that restarts or never reads, an alarm file whose
// folder disappears, a full disk, and the spool file read back after a crash at any step of its upkeep.
#include "AlarmSinks.h"
#include "SyslogSpool.h"
#include "builtin_tasks/DataCommReportTask.h"
#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"
#include "support/TestEngine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <regex>
#include <string>
#include <vector>

namespace {

using Engine::DataCommReportTask;
using Engine::ReportSink;
using Engine::SyslogSpool;
using namespace TestSupport;
using Clock = std::chrono::steady_clock;

std::string Alarm(int seq) {
    // Padding makes each alarm about 200 bytes, so a small spool bound holds only a few.
    // Keys in the order the report task writes them, so a file line equals this text.
    return R"({"event_classid":"portscan_0002","pad":")" + std::string(150, 'x') + R"(","seq":)" +
           std::to_string(seq) + "}";
}

std::vector<std::string> Alarms(int count) {
    std::vector<std::string> alarms;
    for (int seq = 0; seq < count; ++seq) {
        alarms.push_back(Alarm(seq));
    }
    return alarms;
}

ReportSink Sink(ReportSink::Kind kind, const std::string& path,
                ReportSink::Transport transport = ReportSink::Transport::Local,
                const std::string& address = "", const std::string& spool = "") {
    ReportSink sink;
    sink.kind = kind;
    sink.path = path;
    sink.transport = transport;
    sink.address = address;
    sink.spool = spool;
    return sink;
}

// Registers a report task with `sinks`, hands it `alarms`, waits `wait` or until `done`, and
// unregisters it (what SIGTERM does). Returns how long the stop took.
Clock::duration ReportAndStop(
    const std::vector<ReportSink>& sinks, const std::vector<std::string>& alarms, Millis wait = Millis(0),
    const std::function<bool()>& done = [] { return false; }) {
    auto* task = new DataCommReportTask(sinks);
    EXPECT_TRUE(TestEngine().RegisterTask(task, true));
    for (const std::string& alarm : alarms) {
        EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", alarm)));
    }
    WaitUntil(done, wait);
    const auto start = Clock::now();
    EXPECT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    return Clock::now() - start;
}

// A TCP listener on 127.0.0.1 that reads RFC 6587 octet-counted frames.
class Collector {
public:
    explicit Collector(unsigned port = 0) {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int on = 1;
        setsockopt(m_listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        socklen_t length = sizeof(address);
        m_ok = bind(m_listener, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
               listen(m_listener, 4) == 0 &&
               getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        m_port = ntohs(address.sin_port);
    }
    ~Collector() {
        for (int fd : {m_listener, m_peer}) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }

    // True when the sender closed its end, after reading what was left into m_frames; a bad
    // length fails the test.
    bool SenderClosed(Millis timeout) {
        return WaitUntil([&] { return Pump() == 0; }, timeout);
    }
    std::vector<std::string> m_frames;

    bool m_ok = false;
    unsigned m_port = 0;

private:
    // Reads what is there; returns the bytes read, 0 at end of stream, -1 when nothing waits.
    ssize_t Pump() {
        if (m_peer < 0) {
            pollfd ready{m_listener, POLLIN, 0};
            if (poll(&ready, 1, 0) != 1) {
                return -1;
            }
            m_peer = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        }
        pollfd ready{m_peer, POLLIN, 0};
        if (poll(&ready, 1, 0) != 1) {
            return -1;
        }
        char buffer[4096];
        ssize_t n = read(m_peer, buffer, sizeof(buffer));
        m_buffer.append(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
        for (std::size_t space; (space = m_buffer.find(' ')) != std::string::npos;) {
            std::size_t length = std::stoul(m_buffer.substr(0, space));
            EXPECT_EQ(m_buffer.find_first_not_of("0123456789"), space) << m_buffer;
            if (m_buffer.size() < space + 1 + length) {
                break;
            }
            m_frames.push_back(m_buffer.substr(space + 1, length));
            m_buffer.erase(0, space + 1 + length);
        }
        return n;
    }

    int m_listener = -1;
    int m_peer = -1;
    std::string m_buffer;
};

// The seq of a message whose header is what the agent promises (RFC 5424 to a collector, the local
// form to the local socket) and whose MSG is the alarm document; -1 when anything differs.
int SeqOf(const std::string& message, bool local = false) {
    static const std::regex header(
        R"(<28>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \S+ hostagent (\d+) portscan_0002 - (.*))");
    static const std::regex localHeader(
        R"(<28>[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d hostagent\[(\d+)\]: (.*))");
    std::smatch match;
    Json::Value alarm;
    if (!std::regex_match(message, match, local ? localHeader : header) || std::stoi(match[1]) != getpid() ||
        SDK::JsonUtils::ParseJsonStr(match[2].str().c_str(), match[2].length(), alarm) != 0 ||
        match[2].str() != SDK::JsonUtils::JsonToString(alarm)) {
        ADD_FAILURE() << "unexpected message: " << message;
        return -1;
    }
    return alarm["seq"].asInt();
}

TEST(ReportSinkFaultsTest, TcpSyslogSpoolsWhileTheCollectorIsDownAndSendsEachAlarmOnceInOrder) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    unsigned port = 0;
    {
        Collector probe;  // a free port, closed again: the collector is down
        ASSERT_TRUE(probe.m_ok);
        port = probe.m_port;
    }
    ReportSink sink = Sink(ReportSink::Kind::Syslog, "", ReportSink::Transport::Tcp,
                           "127.0.0.1:" + std::to_string(port), dir.File("state/syslog.spool"));
    sink.spoolMaxBytes = 6 * 260;  // about six of these alarms

    // Down: twenty alarms, the agent stops; the spool keeps the newest that fit.
    ReportAndStop({sink}, Alarms(20));
    EXPECT_EQ(logs.CountContaining("Cannot send alarms to syslog collector"), 1u);
    ASSERT_EQ(logs.CountContaining("oldest alarm(s) dropped"), 1u);
    const std::vector<std::string> texts = logs.Texts();
    const std::string line = *std::find_if(texts.begin(), texts.end(), [](const std::string& text) {
        return text.find("oldest alarm(s) dropped") != std::string::npos;
    });
    const std::size_t dropped = std::stoul(line.substr(line.rfind(": ") + 2));
    ASSERT_GT(dropped, 0u);
    ASSERT_LT(dropped, 20u);
    EXPECT_LE(ReadFile(sink.spool).size(), sink.spoolMaxBytes);

    // Back: the next run sends the spooled alarms, then its own, each once and in order.
    Collector collector(port);
    ASSERT_TRUE(collector.m_ok);
    ReportAndStop({sink}, {Alarm(20), Alarm(21)}, Millis(500));
    ASSERT_TRUE(collector.SenderClosed(Millis(10000)));
    std::vector<int> seqs;
    for (const std::string& frame : collector.m_frames) {
        seqs.push_back(SeqOf(frame));
    }
    std::vector<int> expected(22 - dropped);
    std::iota(expected.begin(), expected.end(), static_cast<int>(dropped));
    EXPECT_EQ(seqs, expected);
    EXPECT_EQ(ReadFile(sink.spool), "");
    EXPECT_EQ(logs.CountContaining("from spool"), 1u);
}

TEST(ReportSinkFaultsTest, CollectorNameThatDoesNotResolveGetsOneErrorAndHoldsUpNothing) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    const ReportSink file = Sink(ReportSink::Kind::File, dir.File("alarms.jsonl"));
    const ReportSink tcp = Sink(ReportSink::Kind::Syslog, "", ReportSink::Transport::Tcp,
                                "collector.invalid:6514", dir.File("syslog.spool"));
    const ReportSink udp =
        Sink(ReportSink::Kind::Syslog, "", ReportSink::Transport::Udp, "collector.invalid:6514");
    // Long enough for the TCP sink's retries after one and two seconds.
    const auto stop = ReportAndStop({tcp, udp, file}, Alarms(3), Millis(3500));
    EXPECT_LT(stop, std::chrono::seconds(10));
    EXPECT_EQ(ReadLines(file.path), Alarms(3));

    // One line per sink, naming the name and the resolver's reason.
    const std::regex clear(
        R"(Cannot send alarms to syslog collector collector\.invalid:6514 \((tcp|udp)\): )"
        R"(cannot resolve "collector\.invalid": [A-Za-z][^;]+; keeping them in (spool|memory).*)");
    std::size_t errors = 0;
    for (const std::string& text : logs.Texts()) {
        if (text.find("collector.invalid") != std::string::npos &&
            text.find("Cannot send") != std::string::npos) {
            EXPECT_TRUE(std::regex_search(text, clear)) << text;
            ++errors;
        }
    }
    EXPECT_EQ(errors, 2u);
    EXPECT_EQ(
        logs.CountContaining("3 alarm(s) for syslog collector collector.invalid:6514 (tcp) kept in spool"),
        1u);
}

// A datagram socket where a local syslog daemon would listen.
struct LocalSyslog {
    explicit LocalSyslog(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        m_ok = bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~LocalSyslog() { close(m_fd); }
    std::vector<std::string> Messages(std::size_t count) {
        std::vector<std::string> messages;
        WaitUntil(
            [&] {
                char buffer[4096];
                for (ssize_t n; (n = recv(m_fd, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0;) {
                    messages.emplace_back(buffer, static_cast<std::size_t>(n));
                }
                return messages.size() >= count;
            },
            Millis(5000));
        return messages;
    }
    int m_fd;
    bool m_ok = false;
};

TEST(ReportSinkFaultsTest, LocalSyslogSocketSurvivesADaemonRestart) {
    TempDir dir;
    const ReportSink sink = Sink(ReportSink::Kind::Syslog, dir.File("log.sock"));
    auto daemon = std::make_unique<LocalSyslog>(sink.path);
    ASSERT_TRUE(daemon->m_ok);
    auto* task = new DataCommReportTask({sink});
    ASSERT_TRUE(TestEngine().RegisterTask(task, true));
    ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarm(0))));
    std::vector<std::string> first = daemon->Messages(1);
    // The daemon restarts: a new socket at the same path. Alarms sent in between wait for it.
    daemon.reset();
    unlink(sink.path.c_str());
    ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarm(1))));
    daemon = std::make_unique<LocalSyslog>(sink.path);
    ASSERT_TRUE(daemon->m_ok);
    ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarm(2))));
    std::vector<std::string> second = daemon->Messages(2);
    ASSERT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(SeqOf(first[0], true), 0);
    EXPECT_EQ(SeqOf(second[0], true), 1);
    EXPECT_EQ(SeqOf(second[1], true), 2);
}

TEST(ReportSinkFaultsTest, LocalSyslogReaderThatNeverReadsHoldsUpNeitherTheAlarmFileNorTheStop) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    const ReportSink file = Sink(ReportSink::Kind::File, dir.File("alarms.jsonl"));
    const ReportSink local = Sink(ReportSink::Kind::Syslog, dir.File("log.sock"));
    // Bound where the sink sends, never read: its queue is full after a few datagrams.
    auto reader = std::make_unique<LocalSyslog>(local.path);
    ASSERT_TRUE(reader->m_ok);
    const std::vector<std::string> alarms = Alarms(600);
    const auto giveUp = Clock::now() + std::chrono::seconds(9);
    const auto stop = ReportAndStop({local, file}, alarms, Millis(10000), [&] {
        if (ReadLines(file.path).size() >= alarms.size()) {
            return true;
        }
        if (Clock::now() > giveUp) {
            reader.reset();  // lets a sink stuck in a send go, so that the test ends
        }
        return false;
    });
    EXPECT_LT(stop, std::chrono::seconds(10));
    EXPECT_TRUE(reader) << "the alarm file waited for the local syslog reader";
    EXPECT_EQ(ReadLines(file.path), alarms);
    EXPECT_EQ(logs.CountContaining("Cannot send alarms to syslog socket " + local.path +
                                   ": its reader does not keep up"),
              1u);
}

TEST(ReportSinkFaultsTest, LocalSyslogHeaderIsTheLocalDaemonsForm) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 2026-11-03 04:05:06 UTC: a one-digit day is padded with a space.
    EXPECT_EQ(Engine::LocalSyslogHeader("<28>", "hostagent", "77", 1793678706),
              "<28>Nov  3 04:05:06 hostagent[77]: ");
    EXPECT_EQ(Engine::LocalSyslogHeader("<28>", "hostagent", "77", 1795422000),
              "<28>Nov 23 08:20:00 hostagent[77]: ");
}

// A tmpfs of its own, unmounted (lazily) at the end.
struct SmallDisk {
    explicit SmallDisk(const std::string& path) : m_path(path) {
        mkdir(path.c_str(), 0700);
        m_ok = mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k") == 0;
    }
    ~SmallDisk() {
        if (m_ok) {
            umount2(m_path.c_str(), MNT_DETACH);
        }
    }
    std::string m_path;
    bool m_ok = false;
};

TEST(ReportSinkFaultsTest, AlarmFileSurvivesItsFolderRemovedAndAFullDisk) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    // The folder goes away between two alarms: it is made again and the second alarm lands.
    ReportSink sink = Sink(ReportSink::Kind::File, dir.File("gone/alarms.jsonl"));
    {
        auto* task = new DataCommReportTask({sink});
        ASSERT_TRUE(TestEngine().RegisterTask(task, true));
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", R"({"seq":1})")));
        ASSERT_TRUE(WaitUntil([&] { return ReadLines(sink.path).size() == 1; }, Millis(5000)));
        MustRun({"rm", "-rf", dir.File("gone")});
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", R"({"seq":2})")));
        ASSERT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    }
    EXPECT_EQ(ReadLines(sink.path), std::vector<std::string>{R"({"seq":2})"});
    EXPECT_EQ(logs.CountContaining("was moved or removed"), 1u);

    if (geteuid() != 0) {
        GTEST_SKIP() << "the full-disk half needs root (it mounts a small tmpfs)";
    }
    SmallDisk disk(dir.File("disk"));
    ASSERT_TRUE(disk.m_ok);
    sink.path = disk.m_path + "/alarms.jsonl";
    const std::string filler = disk.m_path + "/filler";
    {
        std::ofstream fill(filler);
        fill << std::string(128 * 1024, 'f');  // more than fits: the disk is full afterwards
    }
    logs.Clear();
    auto* task = new DataCommReportTask({sink});
    ASSERT_TRUE(TestEngine().RegisterTask(task, true));
    const std::vector<std::string> expected = Alarms(50);
    for (const std::string& alarm : expected) {
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", alarm)));
    }
    ASSERT_TRUE(WaitUntil([&] { return logs.CountContaining("Cannot write alarm to") > 0; }, Millis(5000)));
    unlink(filler.c_str());
    // Written by the next retry, within about a second, whole lines in order.
    EXPECT_TRUE(WaitUntil([&] { return ReadLines(sink.path).size() >= expected.size(); }, Millis(5000)));
    ASSERT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    EXPECT_EQ(ReadLines(sink.path), expected);
    EXPECT_EQ(logs.CountContaining("Cannot write alarm to"), 1u);
    EXPECT_EQ(logs.CountContaining("Writing alarms to " + sink.path + " again"), 1u);
}

// Octet-counted frames as a TCP sink spools them.
std::string Frame(int seq) {
    std::string message = "<28>1 - - hostagent 1 - - " + Alarm(seq);
    return std::to_string(message.size()) + " " + message;
}

std::vector<std::string> Drain(SyslogSpool& spool) {
    std::vector<std::string> frames;
    while (!spool.Empty()) {
        frames.push_back(spool.Front());
        spool.PopFront();
    }
    return frames;
}

std::uint64_t Inode(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

TEST(ReportSinkFaultsTest, SpoolReadAfterACrashHoldsExactlyTheFramesNotYetSent) {
    TestEngine();
    TempDir dir;
    const std::string path = dir.File("syslog.spool");
    const std::string record = path + ".offset";
    std::vector<std::string> frames;
    for (int seq = 0; seq < 10; ++seq) {
        frames.push_back(Frame(seq));
    }
    std::string error;
    {
        SyslogSpool spool(path, 1 << 20);
        ASSERT_TRUE(spool.Open(error)) << error;
        for (const std::string& frame : frames) {
            spool.Push(frame);
        }
        ASSERT_TRUE(spool.Persist());  // the collector is down: all ten in the file
        // Four sent, the offset fsync'd, then the agent dies (no Close).
        for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(spool.Front(), frames[i]);
            spool.PopFront();
        }
        ASSERT_TRUE(spool.Persist());
    }
    {
        SyslogSpool spool(path, 1 << 20);
        ASSERT_TRUE(spool.Open(error)) << error;
        EXPECT_EQ(spool.Size(), 6u);
        EXPECT_EQ(Drain(spool), std::vector<std::string>(frames.begin() + 4, frames.end()));
        ASSERT_TRUE(spool.Persist());
    }
    EXPECT_EQ(ReadFile(path), "");

    // The states a crash can leave between the steps of the upkeep: the file emptied but the
    // record still naming the old end (all sent), and the file rewritten but the record still
    // naming the old inode (all of it unsent). And a frame torn by a power cut while appending.
    std::string all;
    for (const std::string& frame : frames) {
        all += frame;
    }
    WriteFile(path, "");
    WriteFile(record, std::to_string(Inode(path)) + " " + std::to_string(all.size()) + "\n");
    {
        SyslogSpool spool(path, 1 << 20);
        ASSERT_TRUE(spool.Open(error)) << error;
        EXPECT_TRUE(spool.Empty());
        spool.Push(frames[0]);
        ASSERT_TRUE(spool.Persist());
    }
    {
        SyslogSpool spool(path, 1 << 20);
        ASSERT_TRUE(spool.Open(error)) << error;
        EXPECT_EQ(Drain(spool), std::vector<std::string>{frames[0]})
            << "a record left beyond the end hides new frames";
    }
    WriteFile(path, all + frames[0].substr(0, 20));
    WriteFile(record, std::to_string(Inode(path) + 1) + " " + std::to_string(frames[0].size()) + "\n");
    {
        SyslogSpool spool(path, 1 << 20);
        ASSERT_TRUE(spool.Open(error)) << error;
        EXPECT_EQ(Drain(spool), frames);
    }
    EXPECT_EQ(ReadFile(path).size(), all.size()) << "the torn frame is cut off";

    // At the bound the oldest are dropped; a rewrite keeps only what was not sent.
    const std::size_t bound = 3 * frames[0].size();
    {
        SyslogSpool spool(path, bound);
        ASSERT_TRUE(spool.Open(error)) << error;
        EXPECT_EQ(spool.TakeDropped(), 7u);
        spool.PopFront();
        ASSERT_TRUE(spool.Persist(true));
    }
    EXPECT_EQ(ReadFile(path), frames[8] + frames[9]);
    SyslogSpool spool(path, bound);
    ASSERT_TRUE(spool.Open(error)) << error;
    EXPECT_EQ(Drain(spool), (std::vector<std::string>{frames[8], frames[9]}));
}

}  // namespace
