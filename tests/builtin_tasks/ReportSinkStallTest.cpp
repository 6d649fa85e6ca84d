// Syslog sinks that cannot send hold up nothing: a local syslog reader that never reads and a
// collector whose name does not resolve leave the alarm file and the stop unaffected. And the spool
// file read back after a crash at any step of its upkeep holds exactly the frames not yet sent.
#include "SyslogSpool.h"
#include "builtin_tasks/DataCommReportTask.h"
#include "framework/Message.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"
#include "support/TestEngine.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace {

using Engine::DataCommReportTask;
using Engine::ReportSink;
using Engine::SyslogSpool;
using namespace TestSupport;

std::string Alarm(int seq) {
    return R"({"event_classid":"portscan_0002","pad":")" + std::string(150, 'x') + R"(","seq":)" +
           std::to_string(seq) + "}";
}

// Hands `alarms` to a report task with `sinks`, waits until the alarm file holds them all, then
// unregisters the task (what SIGTERM does). Returns whether they were all filed and how long the stop took.
struct Outcome {
    bool allFiled = false;
    std::chrono::steady_clock::duration stop{};
};
Outcome FileAndStop(const std::vector<ReportSink>& sinks, const std::string& file,
                    const std::vector<std::string>& alarms, const std::function<void()>& unblock) {
    Outcome outcome;
    auto* task = new DataCommReportTask(sinks);
    EXPECT_TRUE(TestEngine().RegisterTask(task, true));
    for (const std::string& alarm : alarms) {
        EXPECT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", alarm)));
    }
    outcome.allFiled = WaitUntil([&] { return ReadLines(file).size() >= alarms.size(); }, Millis(10000));
    if (!outcome.allFiled) {
        unblock();  // lets a sink stuck in a send go, so that the test ends
    }
    auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    outcome.stop = std::chrono::steady_clock::now() - start;
    return outcome;
}

std::vector<std::string> Alarms(int count) {
    std::vector<std::string> alarms;
    for (int seq = 0; seq < count; ++seq) {
        alarms.push_back(Alarm(seq));
    }
    return alarms;
}

TEST(ReportSinkStallTest, LocalSyslogReaderThatNeverReadsHoldsUpNeitherTheAlarmFileNorTheStop) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    ReportSink file;
    file.kind = ReportSink::Kind::File;
    file.path = dir.File("alarms.jsonl");
    ReportSink local;
    local.kind = ReportSink::Kind::Syslog;
    local.path = dir.File("log.sock");
    // Bound where the sink sends, never read: its queue is full after a few datagrams.
    int reader = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    local.path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(reader, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);

    const std::vector<std::string> alarms = Alarms(600);
    Outcome outcome = FileAndStop({local, file}, file.path, alarms, [&] { close(reader), reader = -1; });
    if (reader >= 0) {
        close(reader);
    }
    EXPECT_TRUE(outcome.allFiled) << ReadLines(file.path).size() << " of " << alarms.size()
                                  << " alarms filed";
    EXPECT_LT(outcome.stop, std::chrono::seconds(10));
    EXPECT_EQ(ReadLines(file.path), alarms);
    EXPECT_EQ(logs.CountContaining("Cannot send alarms to syslog socket " + local.path +
                                   ": its reader does not keep up"),
              1u);
}

TEST(ReportSinkStallTest, CollectorNameThatDoesNotResolveGetsOneErrorAndHoldsUpNothing) {
    TestEngine();
    RecordingChannel& logs = CaptureLogs();
    TempDir dir;
    ReportSink file;
    file.kind = ReportSink::Kind::File;
    file.path = dir.File("alarms.jsonl");
    ReportSink tcp;
    tcp.kind = ReportSink::Kind::Syslog;
    tcp.transport = ReportSink::Transport::Tcp;
    tcp.address = "collector.invalid:6514";
    tcp.spool = dir.File("syslog.spool");
    ReportSink udp = tcp;
    udp.transport = ReportSink::Transport::Udp;
    udp.spool.clear();

    auto* task = new DataCommReportTask({tcp, udp, file});
    ASSERT_TRUE(TestEngine().RegisterTask(task, true));
    const std::vector<std::string> alarms = Alarms(3);
    for (const std::string& alarm : alarms) {
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", alarm)));
    }
    EXPECT_TRUE(WaitUntil([&] { return ReadLines(file.path).size() == alarms.size(); }, Millis(2000)));
    // Long enough for the TCP sink's retries after one and two seconds.
    WaitUntil([] { return false; }, Millis(3500));
    auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(ReadLines(file.path), alarms);

    // One line per sink, naming the name and the resolver's reason.
    const std::regex clear(
        R"(Cannot send alarms to syslog collector collector\.invalid:6514 \((tcp|udp)\): )"
        R"(cannot resolve "collector\.invalid": [A-Za-z][^;]+; keeping them in (spool|memory).*)");
    std::vector<std::string> errors;
    for (const std::string& text : logs.Texts()) {
        if (text.find("collector.invalid") != std::string::npos &&
            text.find("Cannot send") != std::string::npos) {
            EXPECT_TRUE(std::regex_search(text, clear)) << text;
            errors.push_back(text);
        }
    }
    EXPECT_EQ(errors.size(), 2u);
    EXPECT_EQ(
        logs.CountContaining("3 alarm(s) for syslog collector collector.invalid:6514 (tcp) kept in spool"),
        1u);
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

TEST(ReportSinkStallTest, SpoolReadAfterACrashHoldsExactlyTheFramesNotYetSent) {
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
