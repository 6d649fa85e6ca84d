#pragma once

// Set-up shared by the collection task's tests: a driven clock, recorded log lines, the process's
// one runtime, stand-ins for the tasks looked up by name, and a peer onto the task's state.

#include "CollectPortInfoTask.h"
#include "PortScanPolicy.h"
#include "framework/Message.h"
#include "framework/Task.h"
#include "sdk/TimeUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Message.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Engine {

// Friend of the task: the private state the tests read and set.
class CollectPortInfoTaskPeer {
public:
    explicit CollectPortInfoTaskPeer(CollectPortInfoTask& task) : t(task) {}
    std::map<unsigned int, long>& BanPortMap() { return t.m_banPortMap; }
    std::set<PortInfoNode>& PortSet() { return t.m_portSet; }
    std::map<unsigned int, long>& LogLimitPortMap() { return t.m_logLimitPortMap; }
    bool& SocketReady() { return t.m_socketReady; }
    MONITOR_LIST_STATUS& MonitorStatus() { return t.m_monitorStatus; }
    CollectPortInfoTask::NetCacheMap& NetCache() { return t.m_netCacheMap; }
    bool& Running() { return t.m_running; }
    int& SockFd() { return t.m_sockFd; }
    int& EpollFd() { return t.m_epollFd; }
    ComputeChain*& Chain() { return t.m_computeChain; }

    // The fields set by the constructor and by Init, in declaration order, as text.
    std::string Fields() const;

private:
    CollectPortInfoTask& t;
};

}  // namespace Engine

namespace TaskTest {

// Keeps every line logged through it.
class RecordingChannel : public Poco::Channel {
public:
    struct Line {
        std::string source;
        std::string text;
        int prio;
    };
    void log(const Poco::Message& msg) override;
    void Clear();
    std::vector<Line> Lines() const;
    std::vector<std::string> Texts() const;
    std::size_t Count(const std::string& text) const;
    std::size_t CountPrefix(const std::string& prefix) const;
    // Index of the first line `text` at or after `from`, or -1.
    long IndexOf(const std::string& text, std::size_t from = 0) const;
    // Priority of the first line `text`, or -1.
    int PriorityOf(const std::string& text) const;

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

RecordingChannel& Recorder();
// Configures the agent's logging at `level` and routes the module and root loggers to Recorder().
void ConfigureLogging(const std::string& level);

class FakeClock : public SDK::ClockSource {
public:
    explicit FakeClock(long start) : m_now(start) {}
    long NowSeconds() override { return m_now.load(); }
    void Set(long now) { m_now.store(now); }
    void Advance(long seconds) { m_now.fetch_add(seconds); }

private:
    std::atomic<long> m_now;
};

// A task policy document: `monitorList` is the JSON array, `extra` more members with a leading comma.
std::string PolicyJson(const std::string& monitorList, const std::string& extra = "");

// "port_scan_task" in the registry: the classifiers find it by name and read its policy.
class ScanTaskStandIn : public Framework::Task {
public:
    ScanTaskStandIn() : Framework::Task("port_scan_task", "portscan_info_collect", 0, 16) {}
};

// "data_comm_report_task", keeping every message sent to it.
class ReportRecorder : public Framework::Task {
public:
    struct Received {
        std::string type;
        std::string body;
    };
    ReportRecorder() : Framework::Task("data_comm_report_task", "test", 0, 64) {}
    bool EnqueueMsg(Framework::Message* msg) override;
    std::vector<Received> Messages() const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Received> m_received;
};

// Registers `task` with the runtime for the scope (the caller keeps its reference).
class ScopedRegistration {
public:
    explicit ScopedRegistration(Framework::Task* task);
    ~ScopedRegistration();
    bool Registered() const { return m_registered; }

private:
    std::string m_name;
    bool m_registered;
};

Engine::PacketNode MakePacket(const char* local, unsigned short localPort, const char* remote,
                              unsigned short remotePort, int type, const std::string& flag);
// An Ethernet II + IPv4 + TCP (protocol 6) or UDP (17) frame, zero-padded to 100 bytes.
std::vector<char> BuildFrame(const char* source, const char* destination, unsigned short sourcePort,
                             unsigned short destinationPort, int protocol, unsigned char tcpFlags = 0);
// The policy's record for (port, type) by a linear walk; a default record when absent.
Engine::PortInfoNode PolicyRecord(const Engine::PortScanTaskPolicy& policy, uint32_t port, uint32_t type);
// Polls `done` every millisecond for up to `timeout`; its last answer.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// A socket on 127.0.0.1 with a kernel-chosen port, listening when a stream socket and `listening`.
class LoopbackSocket {
public:
    explicit LoopbackSocket(int sockType = SOCK_STREAM, bool listening = true);
    ~LoopbackSocket() { Close(); }
    unsigned short Port() const { return m_port; }
    void Close();

private:
    int m_fd = -1;
    unsigned short m_port = 0;
};
// A loopback port free for `sockType` (bound once without listening, then released).
unsigned short FreeLoopbackPort(int sockType);

// Base of the task tests: debug logging into Recorder(), a fake clock at kStart and an
// initialised task. Policies installed with UsePolicy live until the test ends.
class TaskFixture : public ::testing::Test {
protected:
    static constexpr long kStart = 1700000000;

    void SetUp() override;
    void TearDown() override;
    virtual Engine::CollectPortInfoTask* NewTask() { return new Engine::CollectPortInfoTask; }
    // Makes the parsed `json` the policy of the task and of the stand-in, if there is one.
    Engine::PortScanTaskPolicy* UsePolicy(const std::string& json);
    // Registers a "port_scan_task" stand-in carrying the current policy.
    void RegisterScanStandIn();
    Engine::CollectPortInfoTaskPeer Peer() { return Engine::CollectPortInfoTaskPeer(*m_task); }

    std::shared_ptr<FakeClock> m_clock;
    std::vector<std::unique_ptr<Engine::PortScanTaskPolicy>> m_policies;
    Engine::PortScanTaskPolicy* m_policy = nullptr;
    std::unique_ptr<Engine::CollectPortInfoTask> m_task;
    Poco::AutoPtr<ScanTaskStandIn> m_standIn;
    std::unique_ptr<ScopedRegistration> m_standInRegistration;
};

extern const char* const kDumpPolicyHeader;
extern const char* const kDumpBanHeader;
extern const char* const kDumpEndHeader;

}  // namespace TaskTest
