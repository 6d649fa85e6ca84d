// The report task's sinks under faults: collectors down or unresolvable, a local syslog daemon that
// restarts or never reads, the alarm file's folder removed, a full disk, the spool after a crash.
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
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
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
using Kind = ReportSink::Kind;
using Transport = ReportSink::Transport;

// `count` alarms from seq `first`, about 200 bytes each so that a small spool holds a few; keys
// sorted, so that a file line equals one.
std::vector<std::string> Alarms(int count, int first = 0) {
    std::vector<std::string> alarms;
    for (int seq = first; seq < first + count; ++seq) {
        alarms.push_back(R"({"event_classid":"portscan_0002","pad":")" + std::string(150, 'x') +
                         R"(","seq":)" + std::to_string(seq) + "}");
    }
    return alarms;
}

ReportSink Sink(Kind kind, const std::string& path, Transport transport = Transport::Local,
                const std::string& address = "", const std::string& spool = "") {
    return {kind, path, transport, address, spool};
}

// Runs a report task with `sinks` on `alarms` for `wait` or until `done`; returns how long its stop took.
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

// A TCP collector on 127.0.0.1 (octet-counted frames, one connection) or a local datagram socket.
class Receiver {
public:
    explicit Receiver(unsigned port) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof(address);
        EXPECT_TRUE(bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0 && listen(m_fd, 4) == 0 &&
                    getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0);
        m_port = ntohs(address.sin_port);
    }
    explicit Receiver(const std::string& path) : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0) << path;
    }
    ~Receiver() {
        close(m_fd);
        close(m_peer);
    }

    // Datagrams until there are `count`, or frames until the sender closed; fails after 10 s.
    std::vector<std::string> Read(std::size_t count = SIZE_MAX) {
        std::vector<std::string> messages;
        std::string stream;
        EXPECT_TRUE(WaitUntil(
            [&] {
                m_peer = m_port == 0 || m_peer >= 0 ? m_peer : accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
                char buffer[4096];
                ssize_t n;
                while ((n = recv(m_port == 0 ? m_fd : m_peer, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0) {
                    (m_port == 0 ? messages.emplace_back() : stream)
                        .append(buffer, static_cast<std::size_t>(n));
                }
                return (m_port != 0 && n == 0) || messages.size() >= count;
            },
            Millis(10000)))
            << "the sender neither closed nor sent " << count;
        for (std::size_t space; (space = stream.find(' ')) != std::string::npos;) {
            EXPECT_EQ(stream.find_first_not_of("0123456789"), space) << stream;
            const std::size_t end = space + 1 + std::stoul(stream.substr(0, space));
            messages.push_back(stream.substr(space + 1, end - space - 1));
            stream.erase(0, end);
        }
        return messages;
    }

    int m_fd;
    int m_peer = -1;
    unsigned m_port = 0;
};

// The seqs of alarm messages with the promised header (RFC 5424, or the local form); -1 for any other.
std::vector<int> Seqs(const std::vector<std::string>& messages, bool local = false) {
    static const std::regex header(
        R"(<28>1 \d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \S+ hostagent (\d+) portscan_0002 - (.*))");
    static const std::regex localHeader(
        R"(<28>[A-Z][a-z]{2} [ 123]\d \d\d:\d\d:\d\d hostagent\[(\d+)\]: (.*))");
    std::vector<int> seqs;
    for (const std::string& message : messages) {
        std::smatch match;
        Json::Value alarm;
        const bool ok = std::regex_match(message, match, local ? localHeader : header) &&
                        std::stoi(match[1]) == getpid() &&
                        SDK::JsonUtils::ParseJsonStr(match[2].str().c_str(), match[2].length(), alarm) == 0 &&
                        match[2].str() == SDK::JsonUtils::JsonToString(alarm);
        EXPECT_TRUE(ok) << "unexpected message: " << message;
        seqs.push_back(ok ? alarm["seq"].asInt() : -1);
    }
    return seqs;
}

TEST(ReportSinkFaultsTest, TcpSyslogSpoolsWhileTheCollectorIsDownAndSendsEachAlarmOnceInOrder) {
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    const unsigned port = Receiver(0).m_port;  // a free port, closed again: the collector is down
    ReportSink sink = Sink(Kind::Syslog, "", Transport::Tcp, "127.0.0.1:" + std::to_string(port),
                           dir.File("state/syslog.spool"));
    sink.spoolMaxBytes = 6 * 260;  // about six of these alarms

    // Down: twenty alarms, the agent stops; the spool keeps the newest that fit.
    ReportAndStop({sink}, Alarms(20));
    EXPECT_LE(ReadFile(sink.spool).size(), sink.spoolMaxBytes);

    // Back: the next run sends the spooled alarms, then its own, each once and in order.
    Receiver collector(port);
    ReportAndStop({sink}, Alarms(2, 20), Millis(500));
    const std::vector<int> seqs = Seqs(collector.Read());
    ASSERT_TRUE(!seqs.empty() && seqs.front() > 0 && seqs.front() < 20) << testing::PrintToString(seqs);
    const int dropped = seqs.front();
    std::vector<int> expected(22 - dropped);
    std::iota(expected.begin(), expected.end(), dropped);
    EXPECT_EQ(seqs, expected);
    EXPECT_EQ(logs.CountContaining(": " + std::to_string(dropped) + " oldest alarm(s) dropped"), 1u);
    EXPECT_EQ(ReadFile(sink.spool), "");
}

// Collectors that do not resolve and a local reader that never reads: one error each, and no waiting.
TEST(ReportSinkFaultsTest, UnresolvableCollectorsAndAStuckLocalReaderHoldUpNothing) {
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    const ReportSink file = Sink(Kind::File, dir.File("alarms.jsonl"));
    const ReportSink local = Sink(Kind::Syslog, dir.File("log.sock"));
    const ReportSink tcp =
        Sink(Kind::Syslog, "", Transport::Tcp, "collector.invalid:6514", dir.File("syslog.spool"));
    const ReportSink udp = Sink(Kind::Syslog, "", Transport::Udp, "collector.invalid:6514");
    auto reader = std::make_unique<Receiver>(local.path);  // never read: full after a few datagrams
    const std::vector<std::string> alarms = Alarms(600);
    // At least long enough for the TCP sink's retries after one and two seconds.
    const auto retried = Clock::now() + std::chrono::milliseconds(3500);
    const auto giveUp = Clock::now() + std::chrono::seconds(9);
    const auto stop = ReportAndStop({tcp, udp, local, file}, alarms, Millis(10000), [&] {
        if (Clock::now() > giveUp) {
            reader.reset();  // lets a sink stuck in a send go, so that the test ends
        }
        return Clock::now() > retried && ReadLines(file.path).size() >= alarms.size();
    });
    EXPECT_LT(stop, std::chrono::seconds(10));
    EXPECT_TRUE(reader) << "the alarm file waited for a syslog sink";
    EXPECT_EQ(ReadLines(file.path), alarms);

    // One line per collector, naming the name and the resolver's reason.
    const std::regex clear(
        R"(Cannot send alarms to syslog collector collector\.invalid:6514 \((tcp|udp)\): )"
        R"(cannot resolve "collector\.invalid": [A-Za-z][^;]+; keeping them in (spool|memory).*)");
    const std::vector<std::string> texts = logs.Texts();
    EXPECT_EQ(std::count_if(texts.begin(), texts.end(),
                            [&](const std::string& text) { return std::regex_search(text, clear); }),
              2);
    EXPECT_EQ(logs.CountContaining("Cannot send alarms to syslog socket " + local.path +
                                   ": its reader does not keep up"),
              1u);
}

TEST(ReportSinkFaultsTest, LocalSyslogSocketTakesTheLocalDaemonsFormAndSurvivesADaemonRestart) {
    setenv("TZ", "UTC", 1);
    tzset();
    // 2026-11-03 04:05:06 UTC: a one-digit day is padded with a space.
    EXPECT_EQ(Engine::LocalSyslogHeader("<28>", "hostagent", "77", 1793678706),
              "<28>Nov  3 04:05:06 hostagent[77]: ");

    TempDir dir;
    const ReportSink sink = Sink(Kind::Syslog, dir.File("log.sock"));
    auto daemon = std::make_unique<Receiver>(sink.path);
    auto* task = new DataCommReportTask({sink});
    ASSERT_TRUE(TestEngine().RegisterTask(task, true));
    EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarms(1, 0)[0])));
    EXPECT_EQ(Seqs(daemon->Read(1), true), std::vector<int>{0});
    // The daemon restarts: a new socket at the same path. Alarms sent in between wait for it.
    daemon.reset();
    unlink(sink.path.c_str());
    EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarms(1, 1)[0])));
    daemon = std::make_unique<Receiver>(sink.path);
    EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", Alarms(1, 2)[0])));
    EXPECT_EQ(Seqs(daemon->Read(2), true), (std::vector<int>{1, 2}));
    EXPECT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
}

TEST(ReportSinkFaultsTest, AlarmFileHoldsALinePerAlarmAndSurvivesItsFolderRemovedAndAFullDisk) {
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    // A line per alarm (text that is not JSON kept, other types not filed) in a folder made as needed.
    const ReportSink sink = Sink(Kind::File, dir.File("gone/alarms.jsonl"));
    auto* task = new DataCommReportTask({sink});
    ASSERT_TRUE(TestEngine().RegisterTask(task, true));
    for (const auto& [type, body] : {std::pair{"1", R"({"other":"type"})"}, {"2", "not JSON {\nkept"}}) {
        EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage(type, body)));
    }
    const std::vector<std::string> lines = {"not JSON {\\nkept"};
    EXPECT_TRUE(WaitUntil([&] { return ReadLines(sink.path) == lines; }, Millis(5000)))
        << ReadFile(sink.path);
    MustRun({"rm", "-rf", dir.File("gone")});
    EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", R"({"seq":2})")));
    ASSERT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    EXPECT_EQ(ReadLines(sink.path), std::vector<std::string>{R"({"seq":2})"});

    if (geteuid() != 0) {
        GTEST_SKIP() << "the full-disk half needs root (it mounts a small tmpfs)";
    }
    const std::string disk = dir.File("gone");  // again, now a small tmpfs of its own
    ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
    const std::string filler = disk + "/filler";
    TestSupport::Run({"dd", "if=/dev/zero", "of=" + filler, "bs=128k", "count=1"});  // fills the disk
    logs.Clear();
    // Room is made once a write failed: the next retry writes whole lines in order.
    const std::vector<std::string> expected = Alarms(50);
    ReportAndStop({sink}, expected, Millis(5000), [&] {
        if (logs.CountContaining("Cannot write alarm to") > 0) {
            unlink(filler.c_str());
        }
        return ReadLines(sink.path).size() >= expected.size();
    });
    EXPECT_EQ(ReadLines(sink.path), expected);
    EXPECT_EQ(logs.CountContaining("Cannot write alarm to"), 1u);
    umount2(disk.c_str(), MNT_DETACH);
}

std::vector<std::string> Drain(SyslogSpool& spool) {
    std::vector<std::string> frames;
    for (; !spool.Empty(); spool.PopFront()) {
        frames.push_back(spool.Front());
    }
    return frames;
}

std::uint64_t Inode(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

TEST(ReportSinkFaultsTest, SpoolReadAfterACrashHoldsExactlyTheFramesNotYetSent) {
    TempDir dir;
    const std::string path = dir.File("syslog.spool");
    const std::string record = path + ".offset";
    std::vector<std::string> frames;  // octet-counted, as a TCP sink spools them
    std::string all;
    for (const std::string& alarm : Alarms(10)) {
        const std::string message = "<28>1 - - hostagent 1 - - " + alarm;
        frames.push_back(std::to_string(message.size()) + " " + message);
        all += frames.back();
    }
    auto open = [&](std::size_t bound = 1 << 20) {
        auto spool = std::make_unique<SyslogSpool>(path, bound);
        std::string error;
        EXPECT_TRUE(spool->Open(error)) << error;
        return spool;
    };
    WriteFile(path, all);  // spooled while the collector was down
    {
        // Four sent, the offset fsync'd, then the agent dies (no Close).
        auto spool = open();
        for (int i = 0; i < 4; ++i) {
            spool->PopFront();
        }
        ASSERT_TRUE(spool->Persist());
    }
    {
        auto spool = open();
        EXPECT_EQ(spool->Size(), 6u);
        EXPECT_EQ(Drain(*spool), std::vector<std::string>(frames.begin() + 4, frames.end()));
        ASSERT_TRUE(spool->Persist());
    }
    EXPECT_EQ(ReadFile(path), "");

    // Crash states: file emptied, record at the old end (all sent); file rewritten, record naming the old
    // inode (all unsent); a frame torn while appending.
    WriteFile(path, "");
    WriteFile(record, std::to_string(Inode(path)) + " " + std::to_string(all.size()) + "\n");
    {
        auto spool = open();
        spool->Push(frames[0]);
        ASSERT_TRUE(spool->Persist());
    }
    EXPECT_EQ(Drain(*open()), std::vector<std::string>{frames[0]})
        << "a record left beyond the end hides new frames";
    WriteFile(path, all + frames[0].substr(0, 20));
    WriteFile(record, std::to_string(Inode(path) + 1) + " " + std::to_string(frames[0].size()) + "\n");
    EXPECT_EQ(Drain(*open()), frames);
    EXPECT_EQ(ReadFile(path).size(), all.size()) << "the torn frame is cut off";

    // At the bound the oldest are dropped; a rewrite keeps only what was not sent.
    const std::size_t bound = 3 * frames[0].size();
    {
        auto spool = open(bound);
        EXPECT_EQ(spool->TakeDropped(), 7u);
        spool->PopFront();
        ASSERT_TRUE(spool->Persist(true));
    }
    EXPECT_EQ(ReadFile(path), frames[8] + frames[9]);
    EXPECT_EQ(Drain(*open(bound)), (std::vector<std::string>{frames[8], frames[9]}));
}

}  // namespace
