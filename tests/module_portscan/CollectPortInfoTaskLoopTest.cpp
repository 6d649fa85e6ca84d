// The main loop: the minute tick and its thirty-tick schedule, the packet and error budgets, and
// the monitor-list state machine.

#include "TaskTestSupport.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

namespace {

using TaskTest::kDumpBanHeader;
using TaskTest::kDumpEndHeader;
using TaskTest::PolicyJson;
using TaskTest::Recorder;
using TaskTest::WaitFor;

const char* const kFreeLine = "[PortScan] Free baned port.";
const char* const kGenerateLine = "[PortScan] Generate monitor port.";
const char* const kRefreshLine = "[PortScan] Refresh policy port list.";
const char* const kStateFiveLine = "[PortScan] Check monitor status err! Cur stat is (5)";
const char* const kChkDisabledLine = "[PortScan] Chk before alarm is disable!";

// Runs the task's Run() on a thread of its own; cancels and joins on Stop() or destruction.
class RunThread {
public:
    explicit RunThread(Engine::CollectPortInfoTask& task)
        : m_task(task), m_thread([this] {
              m_result = m_task.Run();
              m_finished = true;
          }) {}
    ~RunThread() { Stop(); }
    void Stop() {
        if (m_thread.joinable()) {
            m_task.cancel();
            m_thread.join();
        }
    }
    bool Finished() const { return m_finished; }
    int Result() const { return m_result; }

private:
    Engine::CollectPortInfoTask& m_task;
    std::atomic<int> m_result{-1};
    std::atomic<bool> m_finished{false};
    std::thread m_thread;
};

// The loop on its own thread, the clock driven by the test.
class CollectTickTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        UsePolicy(PolicyJson("[]"));
        // Without a network-process task the list rebuild fails and leaves the state alone; state 5
        // makes every pass write one line and pause 10 ms, which paces the loop and shows its passes.
        Peer().MonitorStatus() = static_cast<MONITOR_LIST_STATUS>(5);
    }

    // Waits until tick `count` (1-based) is complete: its dump is written and its pass has gone on
    // to the state machine, so the tick time is stored.
    static void AwaitTick(std::size_t count) {
        ASSERT_TRUE(WaitFor([count] {
            std::size_t ends = 0;
            for (const std::string& text : Recorder().Texts()) {
                ends += text == kDumpEndHeader ? 1 : 0;
                if (text == kStateFiveLine && ends == count) {
                    return true;
                }
            }
            return false;
        })) << "tick "
            << count;
        ASSERT_EQ(count, Recorder().Count(kDumpEndHeader)) << "more ticks than expected";
    }
    // Waits for three more passes: at least two of them read the clock after the caller changed it.
    static void AwaitPasses() {
        const std::size_t target = Recorder().Count(kStateFiveLine) + 3;
        ASSERT_TRUE(WaitFor([target] { return Recorder().Count(kStateFiveLine) >= target; }));
    }
    // Whether the dump of tick `index` (0-based) lists port 8080 as frozen.
    static bool BannedInTick(std::size_t index) {
        const std::vector<std::string> texts = Recorder().Texts();
        std::size_t headers = 0;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            if (texts[i] == kDumpBanHeader && headers++ == index) {
                for (std::size_t j = i + 1; j < texts.size() && texts[j] != kDumpEndHeader; ++j) {
                    if (texts[j] == " Port:8080 BAN!") {
                        return true;
                    }
                }
                return false;
            }
        }
        ADD_FAILURE() << "no dump for tick " << index;
        return false;
    }
};

TEST_F(CollectTickTest, TripleRunsOnTicksZeroAndThirtyOnly) {
    RunThread run(*m_task);
    AwaitTick(1);
    const long freeAt = Recorder().IndexOf(kFreeLine);
    ASSERT_GE(freeAt, 0);
    EXPECT_LT(freeAt, Recorder().IndexOf(kGenerateLine));
    EXPECT_LT(Recorder().IndexOf(kGenerateLine), Recorder().IndexOf(kRefreshLine));
    EXPECT_LT(Recorder().IndexOf(kRefreshLine), Recorder().IndexOf(TaskTest::kDumpPolicyHeader));
    AwaitPasses();
    EXPECT_EQ(1u, Recorder().Count(kDumpEndHeader));

    for (std::size_t tick = 1; tick < 30; ++tick) {
        m_clock->Advance(61);
        AwaitTick(tick + 1);
    }
    EXPECT_EQ(1u, Recorder().Count(kFreeLine));
    EXPECT_EQ(1u, Recorder().Count(kGenerateLine));
    EXPECT_EQ(1u, Recorder().Count(kRefreshLine));
    const std::vector<std::string> texts = Recorder().Texts();
    const long tick29End = std::find(texts.rbegin(), texts.rend(), kDumpEndHeader).base() - texts.begin() - 1;
    m_clock->Advance(61);
    AwaitTick(31);
    EXPECT_GT(Recorder().IndexOf(kFreeLine, static_cast<std::size_t>(freeAt + 1)), tick29End);
    EXPECT_EQ(2u, Recorder().Count(kGenerateLine));
    EXPECT_EQ(2u, Recorder().Count(kRefreshLine));

    run.Stop();
    EXPECT_TRUE(run.Finished());
    EXPECT_EQ(0, run.Result());
    EXPECT_EQ(1u, Recorder().CountPrefix("[PortScan] first run port_scan_task, tid("));
}

TEST_F(CollectTickTest, OnlyMoreThanAMinuteEitherWayTicks) {
    RunThread run(*m_task);
    AwaitTick(1);
    for (long offset : {60L, -60L}) {
        m_clock->Set(kStart + offset);
        AwaitPasses();
        EXPECT_EQ(1u, Recorder().Count(kDumpEndHeader)) << offset;
    }
    m_clock->Set(kStart - 120);  // set back by two minutes
    AwaitTick(2);
    EXPECT_EQ(1u, Recorder().Count(kFreeLine));
}

TEST_F(CollectTickTest, FrozenPortReturnsAtTheFirstThirtyTickBoundaryAfterADay) {
    m_task->FreezePort(8080);
    Recorder().Clear();
    RunThread run(*m_task);
    AwaitTick(1);
    EXPECT_TRUE(BannedInTick(0));
    for (std::size_t tick = 1; tick < 30; ++tick) {
        m_clock->Set(kStart + 61 * static_cast<long>(tick));
        AwaitTick(tick + 1);
    }
    m_clock->Set(kStart + 86400 - 60);  // tick 30 at 23 h 59 min
    AwaitTick(31);
    EXPECT_TRUE(BannedInTick(30));
    m_clock->Set(kStart + 86401);  // tick 31: a day is over, but no release here
    AwaitTick(32);
    EXPECT_TRUE(BannedInTick(31));
    for (std::size_t tick = 32; tick <= 60; ++tick) {
        m_clock->Advance(61);
        AwaitTick(tick + 1);
    }
    EXPECT_TRUE(BannedInTick(59));
    EXPECT_FALSE(BannedInTick(60));
    EXPECT_EQ(3u, Recorder().Count(kFreeLine));
}

// Budgets, fed through a datagram socket pair.
class CollectBudgetTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, m_pair));
        m_epollFd = epoll_create(1);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = m_pair[0];
        ASSERT_EQ(0, epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_pair[0], &event));
    }
    void TearDown() override {
        Peer().SocketReady() = false;  // the descriptors are the test's
        TaskFixture::TearDown();
        close(m_pair[0]);
        close(m_pair[1]);
        close(m_epollFd);
    }
    void UseSocket() {
        Peer().SocketReady() = true;
        Peer().SockFd() = m_pair[0];
        Peer().EpollFd() = m_epollFd;
    }
    void Send(const std::vector<char>& frame) {
        ASSERT_EQ(static_cast<ssize_t>(frame.size()), send(m_pair[1], frame.data(), frame.size(), 0));
    }

    const std::vector<char> m_frame = TaskTest::BuildFrame("172.20.0.9", "10.0.0.1", 5353, 8080, 17);
    int m_pair[2] = {-1, -1};
    int m_epollFd = -1;
    int m_pktCount = 0;
    int m_errCount = 0;
};

TEST_F(CollectBudgetTest, EleventhPacketInAMinuteStopsTheTask) {
    UsePolicy(PolicyJson(R"([{"port":8080,"type":1}])", R"(,"package_max_num":10)"));
    Send({});  // an empty datagram counts nothing
    EXPECT_TRUE(m_task->HandleSocketBuffer(m_pair[0], m_pktCount, m_errCount));
    EXPECT_EQ(0, m_pktCount);
    for (int i = 1; i <= 10; ++i) {
        Send(m_frame);
        EXPECT_TRUE(m_task->HandleSocketBuffer(m_pair[0], m_pktCount, m_errCount));
        EXPECT_TRUE(Peer().Running());
    }
    EXPECT_EQ(10u, Recorder().Count(kChkDisabledLine));  // each parsed and offered on
    Send(m_frame);
    EXPECT_FALSE(m_task->HandleSocketBuffer(m_pair[0], m_pktCount, m_errCount));
    EXPECT_EQ(11, m_pktCount);
    EXPECT_FALSE(Peer().Running());
    EXPECT_EQ(10u, Recorder().Count(kChkDisabledLine));  // the eleventh was dropped unparsed
    EXPECT_EQ(0, m_errCount);
}

TEST_F(CollectBudgetTest, ErrorsAboveTheBudgetAskForARebuild) {
    UsePolicy(PolicyJson("[]"));
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));  // recv on a pipe fails with ENOTSOCK
    Peer().SocketReady() = true;
    Peer().EpollFd() = -1;  // epoll_wait fails with EBADF
    for (bool fromWait : {false, true}) {
        SCOPED_TRACE(fromWait ? "epoll_wait" : "recv");
        Peer().MonitorStatus() = MONITOR_LIST_NORMAL;
        m_errCount = 0;
        for (int i = 1; i <= 101; ++i) {
            const bool result = fromWait ? m_task->DoPortScan(m_errCount, m_pktCount)
                                         : m_task->HandleSocketBuffer(pipeFds[0], m_pktCount, m_errCount);
            EXPECT_EQ(!fromWait, result);
            EXPECT_EQ(i <= 100 ? i : 0, m_errCount);
            EXPECT_EQ(i <= 100 ? MONITOR_LIST_NORMAL : MONITOR_LIST_ERROR, Peer().MonitorStatus());
        }
    }
    EXPECT_EQ(0, m_pktCount);
    EXPECT_EQ(101u, Recorder().Count("[PortScan] Epoll Error"));
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, Recorder().PriorityOf("[PortScan] Epoll Error"));
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST_F(CollectBudgetTest, WaitReadsAReadyFrameThroughToTheClassifiers) {
    const unsigned short port = TaskTest::FreeLoopbackPort(SOCK_DGRAM);
    UsePolicy(PolicyJson("[{\"port\":" + std::to_string(port) + ",\"type\":1}]",
                         R"(,"check_port_before_alarm":true)"));
    RegisterScanStandIn();
    EXPECT_TRUE(m_task->DoPortScan(m_errCount, m_pktCount));  // no socket yet: back at once
    UseSocket();
    Send(TaskTest::BuildFrame("172.20.0.9", "10.0.0.1", 5353, port, 17));
    EXPECT_TRUE(m_task->DoPortScan(m_errCount, m_pktCount));
    EXPECT_EQ(1, m_pktCount);
    const Engine::PortInfoNode record = TaskTest::PolicyRecord(*m_policy, port, 1);
    EXPECT_EQ(1u, record.pkgNum);
    ASSERT_EQ(1u, record.alarmInfos.size());
    EXPECT_EQ("UDP", record.alarmInfos[0].protocol);
    EXPECT_EQ("172.20.0.9", record.alarmInfos[0].remoteAddress);
    EXPECT_EQ(1, record.alarmInfos[0].alarmType);
}

// Ten frames, a tick, ten more: Run goes on; the eleventh of the second minute stops it.
TEST_F(CollectBudgetTest, RunStopsAtTheEleventhPacketOfOneMinute) {
    UsePolicy(PolicyJson("[]", R"(,"package_max_num":10)"));
    UseSocket();
    RunThread run(*m_task);
    ASSERT_TRUE(WaitFor([] { return Recorder().Count(kDumpEndHeader) == 1; }));
    for (std::size_t i = 0; i < 20; ++i) {
        if (i == 10) {
            m_clock->Advance(61);  // seen when the current one-second wait ends
            ASSERT_TRUE(WaitFor([] { return Recorder().Count(kDumpEndHeader) == 2; }));
        }
        Send(m_frame);  // one at a time, each parsed before the next is sent
        ASSERT_TRUE(WaitFor([i] { return Recorder().Count(kChkDisabledLine) == i + 1; }))
            << "frame " << i + 1;
    }
    EXPECT_FALSE(run.Finished());
    Send(m_frame);
    ASSERT_TRUE(WaitFor([&run] { return run.Finished(); }));
    EXPECT_EQ(0, run.Result());
    EXPECT_EQ(20u, Recorder().Count(kChkDisabledLine));
}

// The monitor-list state machine.
class CollectMonitorListTest : public TaskTest::TaskFixture {
protected:
    void MarkInUse(unsigned int port, unsigned int protocol) {
        auto info = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
        info->localPort = port;
        info->protocol = protocol;
        Peer().NetCache()[static_cast<long>(Peer().NetCache().size() + 1)] = info;
    }
    std::vector<std::pair<uint32_t, uint32_t>> Monitored() {
        std::vector<std::pair<uint32_t, uint32_t>> keys;
        for (const Engine::PortInfoNode& node : Peer().PortSet()) {
            keys.emplace_back(node.port, node.type);
        }
        std::sort(keys.begin(), keys.end());
        return keys;
    }
};

TEST_F(CollectMonitorListTest, MergeSetsTheStateFromTheComparison) {
    struct Step {
        const char* name;
        const char* monitorList;
        std::vector<unsigned int> frozen;
        std::vector<std::pair<unsigned int, unsigned int>> inUse;
        MONITOR_LIST_STATUS expected;
        std::vector<std::pair<uint32_t, uint32_t>> monitored;
    };
    const Step steps[] = {
        {"first",
         R"([{"port":8080,"type":0},{"port":9090,"type":1}])",
         {},
         {},
         MONITOR_LIST_CREATE,
         {{8080, 0}, {9090, 1}}},
        {"same",
         R"([{"port":8080,"type":0},{"port":9090,"type":1}])",
         {},
         {},
         MONITOR_LIST_NORMAL,
         {{8080, 0}, {9090, 1}}},
        {"protocol moved",
         R"([{"port":8080,"type":1},{"port":9090,"type":1}])",
         {},
         {},
         MONITOR_LIST_NORMAL,
         {{8080, 1}, {9090, 1}}},
        {"port left", R"([{"port":8080,"type":1}])", {}, {}, MONITOR_LIST_CHANGE, {{8080, 1}}},
        {"frozen out",
         R"([{"port":8080,"type":1},{"port":22,"type":0}])",
         {22},
         {},
         MONITOR_LIST_NORMAL,
         {{8080, 1}}},
        {"in use out",
         R"([{"port":8080,"type":1},{"port":22,"type":2}])",
         {},
         {{22, 1}},
         MONITOR_LIST_CHANGE,
         {{22, 0}, {8080, 1}}},
        {"all used", R"([{"port":8080,"type":1}])", {}, {{8080, 1}}, MONITOR_LIST_CHANGE, {}},
        {"first after empty", R"([{"port":8080,"type":1}])", {8080}, {}, MONITOR_LIST_CREATE, {}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        UsePolicy(PolicyJson(step.monitorList));
        Peer().BanPortMap().clear();
        for (unsigned int port : step.frozen) {
            Peer().BanPortMap()[port] = kStart;
        }
        Peer().NetCache().clear();
        for (const auto& used : step.inUse) {
            MarkInUse(used.first, used.second);
        }
        EXPECT_TRUE(m_task->MergeMonitorPort());
        EXPECT_EQ(step.expected, Peer().MonitorStatus());
        EXPECT_EQ(step.monitored, Monitored());
    }
}

TEST_F(CollectMonitorListTest, RecordsComeWithPolicyCountersAndTheTickResetsTheCopies) {
    UsePolicy(PolicyJson(R"([{"port":8080,"type":0},{"port":443,"type":2},{"port":80,"type":1}])"));
    Engine::PortInfoNode counted(8080, 0);
    counted.alarmNum = 4;
    counted.pkgNum = 7;
    counted.remoteIps.push_back(in_addr{1});
    m_policy->RefreshAlarmInfo(counted);
    ASSERT_TRUE(m_task->MergeMonitorPort());
    const auto merged = std::find_if(Peer().PortSet().begin(), Peer().PortSet().end(),
                                     [](const Engine::PortInfoNode& n) { return n.port == 8080; });
    ASSERT_NE(Peer().PortSet().end(), merged);
    EXPECT_EQ(4, merged->alarmNum);

    const auto before = Monitored();
    m_task->UpdateAndClearPolicyPort();
    EXPECT_EQ(before, Monitored());
    for (const Engine::PortInfoNode& node : Peer().PortSet()) {
        EXPECT_EQ(0, node.alarmNum);
        EXPECT_EQ(0u, node.pkgNum + node.ipNum + node.remoteIps.size());
    }
    EXPECT_EQ(4, TaskTest::PolicyRecord(*m_policy, 8080, 0).alarmNum);  // only the task's copies
}

TEST_F(CollectMonitorListTest, RebuildFollowsTheNetworkProcessCache) {
    UsePolicy(PolicyJson("[{\"port\":8080,\"type\":0}]"));
    EXPECT_FALSE(m_task->GetMonitorPort());
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Do action (GetFullTaskPtr) fail!"));

    TaskTest::LoopbackSocket listener;
    Poco::AutoPtr<Engine::NetProcsFullTask> netProcs(new Engine::NetProcsFullTask(3600 * 1000));
    TaskTest::ScopedRegistration registration(netProcs.get());
    ASSERT_TRUE(netProcs->RefreshNow());
    const unsigned short freePort = TaskTest::FreeLoopbackPort(SOCK_STREAM);
    UsePolicy(PolicyJson("[{\"port\":" + std::to_string(listener.Port()) +
                         ",\"type\":0},{\"port\":" + std::to_string(freePort) + ",\"type\":0}]"));
    EXPECT_TRUE(m_task->GetMonitorPort());
    const std::vector<std::pair<uint32_t, uint32_t>> expected = {{freePort, 0}};
    EXPECT_EQ(expected, Monitored());
    EXPECT_EQ(MONITOR_LIST_CREATE, Peer().MonitorStatus());
    EXPECT_TRUE(m_task->IsPortInUse(listener.Port(), 0));
    EXPECT_FALSE(m_task->IsPortInUse(listener.Port(), 1));

    // An empty policy: two error lines, list and state stay.
    Peer().MonitorStatus() = MONITOR_LIST_NORMAL;
    UsePolicy(PolicyJson("[]"));
    EXPECT_FALSE(m_task->GetMonitorPort());
    EXPECT_EQ(Poco::Message::PRIO_ERROR,
              Recorder().PriorityOf("[PortScan] GenerateMonitorPortList ERR! PolicyList is EMPTY!"));
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Do action (MergeMonitorPort) fail!"));
    EXPECT_EQ(MONITOR_LIST_NORMAL, Peer().MonitorStatus());
    EXPECT_EQ(expected, Monitored());
}

TEST_F(CollectMonitorListTest, CheckSocketInfoDispatchesOnTheState) {
    UsePolicy(PolicyJson(R"([{"port":8080,"type":0}])"));
    struct Case {
        int state;
        bool withPorts, socketReady, result;
        int after;
        const char* line;  // null: no line at all
    };
    const Case cases[] = {
        {2, true, false, true, 2, nullptr},
        {3, true, false, true, 2, "[PortScan] Monitor port clear!"},
        {1, false, false, false, 3, "[PortScan] Monitor port changed!"},
        {4, false, false, false, 3, "[PortScan] Monitor port changed!"},
        {0, true, true, true, 2, "[PortScam] Find monitor port list create! size = (1u)"},
        {5, true, false, false, 5, kStateFiveLine},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.state);
        Recorder().Clear();
        Peer().PortSet().clear();
        if (c.withPorts) {
            Peer().PortSet().insert(Engine::PortInfoNode(8080, 0));
        }
        Peer().SocketReady() = c.socketReady;
        Peer().MonitorStatus() = static_cast<MONITOR_LIST_STATUS>(c.state);
        EXPECT_EQ(c.result, m_task->CheckSocketInfo());
        EXPECT_EQ(c.after, Peer().MonitorStatus());
        ASSERT_EQ(c.line == nullptr ? 0u : 1u, Recorder().Texts().size());
        if (c.line != nullptr) {
            EXPECT_EQ(c.line, Recorder().Texts()[0]);
        }
    }
    Peer().SocketReady() = false;
    EXPECT_EQ(Poco::Message::PRIO_ERROR, Recorder().PriorityOf(kStateFiveLine));
}

// Any socket takes a classic filter, so an ordinary UDP socket shows the reload.
TEST_F(CollectMonitorListTest, PortChangedReloadsTheFilterOrKeepsTheState) {
    UsePolicy(PolicyJson(R"([{"port":8080,"type":0},{"port":22,"type":0}])"));
    ASSERT_TRUE(m_task->MergeMonitorPort());
    Peer().MonitorStatus() = MONITOR_LIST_CHANGE;
    EXPECT_FALSE(m_task->PortChanged());  // no socket: the state stays for a retry
    EXPECT_EQ(MONITOR_LIST_CHANGE, Peer().MonitorStatus());

    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    Peer().SockFd() = fd;
    Recorder().Clear();
    EXPECT_TRUE(m_task->PortChanged());
    EXPECT_EQ(MONITOR_LIST_NORMAL, Peer().MonitorStatus());
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Reload BPF rules , port size = (2)"));
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, Recorder().PriorityOf("[PortScan] Monitor port changed!"));
    Peer().SockFd() = -1;
    close(fd);
}

}  // namespace
