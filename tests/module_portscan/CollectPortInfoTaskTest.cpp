// The collection task: records, the minute tick and its thirty-tick schedule, freezing and release,
// the packet and error budgets, the monitor-list state machine, alarm documents and the port dump.
// The clock is the test's; the loop runs on a thread of its own only where the schedule is checked.

#include "CollectPortInfoTask.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"
#include "support/LogCapture.h"
#include "support/TestEngine.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <tuple>

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
    int& SockFd() { return t.m_sockFd; }
    int& EpollFd() { return t.m_epollFd; }
    int& Sock6Fd() { return t.m_sock6Fd; }
    bool& Running() { return t.m_running; }

private:
    CollectPortInfoTask& t;
};

}  // namespace Engine

namespace {

using namespace Engine;

constexpr long kStart = 1700000000;
const char* const kPolicyHeader = "-------------------------Print Policy Port-------------------------";
const char* const kBanHeader = "-------------------------Print Ban Port-------------------------";
const char* const kEndHeader = "-------------------------End of Port info-------------------------";
const char* const kStateFive = "[PortScan] Check monitor status err! Cur stat is (5)";
const char* const kOffered = "[PortScan] Chk before alarm is disable!";

struct FakeClock : SDK::ClockSource {
    long NowSeconds() override { return now.load(); }
    std::atomic<long> now{kStart};
};

// Stands in for a task looked up by name; keeps the type and body of every data message sent to it
// (sent from the test's own thread).
struct StandIn : Framework::Task {
    explicit StandIn(const char* name) : Framework::Task(name, "test", 0, 64) {}
    bool EnqueueMsg(Framework::Message* msg) override {
        const auto* data = dynamic_cast<Framework::DataMessage*>(msg);
        received.emplace_back(msg->GetType(), data != nullptr ? data->GetBody() : "");
        delete msg;
        return true;
    }
    std::vector<std::pair<std::string, std::string>> received;
};

// Takes its peer filter from the test instead of the network-process cache.
struct TestTask : CollectPortInfoTask {
    bool BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map) override {
        map = peers;
        return true;
    }
    std::map<unsigned short, std::string> peers;
};

// Polls `done` every millisecond for up to ten seconds; its last answer.
bool Poll(const std::function<bool()>& done) {
    for (int i = 0; i < 10000 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

AlarmInfo Entry(const char* remote, int alarmType, const char* protocol = "TCP", const char* flag = "SYN") {
    return AlarmInfo{protocol, remote, "10.0.0.1", 40000, flag, alarmType};
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root)) << text;
    return root;
}

PortInfoNode Alarmed(uint32_t port, uint32_t type, int32_t alarmNum, const std::vector<AlarmInfo>& entries) {
    PortInfoNode node(port, type);
    node.alarmNum = alarmNum;
    node.alarmInfos = entries;
    return node;
}

class CollectTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = &TestSupport::CaptureLogs({"portscan_module"}, "debug");
        // The module looks its logger up on first use, which hands it the common channel again.
        PortScan::GetLoggerPtr()->setChannel(Poco::AutoPtr<Poco::Channel>(m_log, true));
        SDK::TimeUtils::SetClockSource(m_clock);
        // The classifiers read the policy of "port_scan_task"; alarms go to "data_comm_report_task".
        ASSERT_TRUE(TestSupport::TestEngine().RegisterTask(m_scan.get(), false));
        ASSERT_TRUE(TestSupport::TestEngine().RegisterTask(m_report.get(), false));
        ASSERT_TRUE(m_task.Init());
    }
    void TearDown() override {
        if (m_run.valid()) {  // the loop ends once cancelled
            m_task.cancel();
            m_run.get();
        }
        TestSupport::TestEngine().UnRegisterTask("data_comm_report_task");
        TestSupport::TestEngine().UnRegisterTask("port_scan_task");
        m_task.UnInit();
        SDK::TimeUtils::SetClockSource(nullptr);
    }
    void UsePolicy(const std::string& monitorList, const std::string& extra = "") {
        m_policies.emplace_back(new PortScanTaskPolicy("port_scan_task"));
        const std::string json =
            R"({"monitor_list":)" + monitorList + R"(,"task_condition":{})" + extra + "}";
        EXPECT_TRUE(m_policies.back()->Parse(json)) << json;
        m_task.SetTaskPolicy(m_policies.back().get());
        m_scan->SetTaskPolicy(m_policies.back().get());
    }
    void MarkInUse(unsigned int port, unsigned int protocol) {
        auto info = std::make_shared<Framework::NetProcInfo>();
        info->localPort = port;
        info->protocol = protocol;
        Peer().NetCache()[static_cast<long>(Peer().NetCache().size() + 1)] = info;
    }
    CollectPortInfoTaskPeer Peer() { return CollectPortInfoTaskPeer(m_task); }
    bool RunEnded() { return m_run.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }
    // The documents sent for reporting, each without its fresh identifier once that is checked.
    std::vector<Json::Value> Documents() {
        std::vector<Json::Value> documents;
        for (const auto& message : m_report->received) {
            EXPECT_EQ("2", message.first);
            documents.push_back(Parse(message.second));
            Json::Value id;
            EXPECT_TRUE(documents.back().removeMember("event_id", &id));
            EXPECT_TRUE(id.isString() && id.asString().size() == 36) << id;
        }
        return documents;
    }

    TestSupport::RecordingChannel* m_log = nullptr;
    std::shared_ptr<FakeClock> m_clock = std::make_shared<FakeClock>();
    Poco::AutoPtr<StandIn> m_scan = new StandIn("port_scan_task");
    Poco::AutoPtr<StandIn> m_report = new StandIn("data_comm_report_task");
    std::vector<std::unique_ptr<PortScanTaskPolicy>> m_policies;
    TestTask m_task;
    std::future<int> m_run;  // the loop, when a test runs it on a thread of its own
};

// A TCP SYN (flags 0x02) or UDP frame from `remote` to 10.0.0.1:`port`, or from an IPv6 `remote` to
// [fd00:78::1]:`port`, as the capture sockets deliver them (Ethernet header first).
std::string Frame(unsigned short port, bool udp = false, const char* remote = "192.168.1.7") {
    const bool v6 = strchr(remote, ':') != nullptr;
    const size_t transport = v6 ? 54 : 34;
    std::string frame(transport + (v6 ? 20 : 30), '\0');
    if (v6) {
        frame[12] = static_cast<char>(0x86), frame[13] = static_cast<char>(0xdd), frame[14] = 0x60;
        frame[20] = udp ? 17 : 6;
        EXPECT_EQ(1, inet_pton(AF_INET6, remote, &frame[22]));
        EXPECT_EQ(1, inet_pton(AF_INET6, "fd00:78::1", &frame[38]));
    } else {
        frame[14] = 0x45, frame[23] = udp ? 17 : 6;
        EXPECT_EQ(1, inet_pton(AF_INET, remote, &frame[26]));
        EXPECT_EQ(1, inet_pton(AF_INET, "10.0.0.1", &frame[30]));
    }
    const uint16_t ports[] = {htons(40000), htons(port)};
    memcpy(&frame[transport], ports, 4);
    frame[transport + 13] = 0x02;
    return frame;
}

// Datagram socket pairs standing in for the capture sockets (IPv4, and IPv6 when asked), registered
// edge-triggered in the task's epoll set as InitSocket registers them; the task's until the capture
// ends, then closed here.
struct FakeCapture {
    explicit FakeCapture(CollectPortInfoTaskPeer peer, bool ipv6 = false) : m_peer(peer) {
        m_peer.EpollFd() = epoll_create(1);
        for (int* fds : {pair, ipv6 ? pair6 : nullptr}) {
            if (fds != nullptr) {
                EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, fds));
                epoll_event event{EPOLLIN | EPOLLET, {}};
                event.data.fd = fds[0];
                EXPECT_EQ(0, epoll_ctl(m_peer.EpollFd(), EPOLL_CTL_ADD, fds[0], &event));
            }
        }
        m_peer.SockFd() = pair[0];
        m_peer.Sock6Fd() = pair6[0];
        m_peer.SocketReady() = true;
    }
    ~FakeCapture() {
        m_peer.SocketReady() = false;
        if (m_peer.Sock6Fd() != -1) {  // unless the task closed it
            close(m_peer.Sock6Fd());
            m_peer.Sock6Fd() = -1;
        }
        for (int fd : {m_peer.EpollFd(), pair[0], pair[1], pair6[1]}) {
            close(fd);
        }
    }
    void Send(const std::string& frame, int count = 1, bool ipv6 = false) {
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(static_cast<ssize_t>(frame.size()),
                      send((ipv6 ? pair6 : pair)[1], frame.data(), frame.size(), 0));
        }
    }
    int Queued() {
        int frames = 0;
        for (char byte; recv(pair[0], &byte, 1, MSG_DONTWAIT) >= 0;) {
            ++frames;
        }
        return frames;
    }
    CollectPortInfoTaskPeer m_peer;
    int pair[2] = {-1, -1}, pair6[2] = {-1, -1};
};

// Ticks 0, 30 and 60 release frozen ports, rebuild the list and reset the counters; a port frozen at
// kStart is still frozen at 23 h 59 min (tick 30) and after a day at tick 31, and gone at tick 60.
TEST_F(CollectTaskTest, MinuteTickRunsTheThirtyTickScheduleAndReleasesAfterADay) {
    UsePolicy("[]");
    m_task.FreezePort(8080);
    // No network-process task: the rebuild fails and leaves state 5, whose line and 10 ms pause pace
    // every pass of the loop.
    Peer().MonitorStatus() = static_cast<MONITOR_LIST_STATUS>(5);
    m_log->Clear();
    m_run = std::async(std::launch::async, [this] { return m_task.Run(); });
    long now = kStart - 181;
    for (int tick = 0; tick <= 60; ++tick) {
        SCOPED_TRACE(tick);
        if (tick == 1) {
            for (long offset : {60L, -60L}) {  // a minute either way is no tick yet
                m_log->Clear();
                m_clock->now = kStart + offset;
                ASSERT_TRUE(Poll([this] { return m_log->Count(kStateFive) >= 3; }));
                EXPECT_EQ(0u, m_log->Count(kEndHeader));
            }
        }
        if (tick > 0) {
            // Tick 1 comes with the clock set back by two minutes.
            now = tick == 30 ? kStart + 86340 : (tick == 31 ? kStart + 86401 : now + 61);
            m_log->Clear();
            m_clock->now = now;
        }
        ASSERT_TRUE(Poll([this] {  // the tick is done and its pass has gone on to the state machine
            const std::vector<std::string> texts = m_log->Texts();
            return std::count(texts.begin(), texts.end(), kEndHeader) == 1 && texts.back() == kStateFive;
        }));
        for (const char* line : {"[PortScan] Free baned port.", "[PortScan] Generate monitor port.",
                                 "[PortScan] Refresh policy port list."}) {
            EXPECT_EQ(tick % 30 == 0 ? 1u : 0u, m_log->Count(line)) << line;
        }
        EXPECT_EQ(tick < 60 ? 1u : 0u, m_log->Count(" Port:8080 BAN!"));
    }
}

// Ten frames, a tick, ten more: the loop goes on; the eleventh frame of one minute stops it.
TEST_F(CollectTaskTest, EleventhPacketOfAMinuteStopsRun) {
    UsePolicy("[]", R"(,"package_max_num":10)");
    FakeCapture capture(Peer());  // the loop reads the socket it knows, whatever the data
    m_run = std::async(std::launch::async, [this] { return m_task.Run(); });
    for (std::size_t i = 0; i <= 20; ++i) {
        if (i == 10) {
            m_clock->now += 61;  // seen when the current one-second wait ends
            ASSERT_TRUE(Poll([this] { return m_log->Count(kEndHeader) == 2; }));
        }
        capture.Send(Frame(2301, true));  // UDP: the frame parses and is offered on
        if (i < 20) {                     // one at a time: each is taken before the next is sent
            ASSERT_TRUE(Poll([this, i] { return m_log->Count(kOffered) == i + 1; })) << i;
            EXPECT_FALSE(RunEnded());
        }
    }
    EXPECT_TRUE(Poll([this] { return RunEnded(); }));
    EXPECT_EQ(20u, m_log->Count(kOffered));
}

TEST_F(CollectTaskTest, HundredAndFirstErrorOfAMinuteAsksForARebuild) {
    UsePolicy("[]");
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));  // recv on a pipe fails
    Peer().SocketReady() = true;  // with no epoll descriptor: every wait fails
    for (bool fromWait : {false, true}) {
        Peer().MonitorStatus() = MONITOR_LIST_NORMAL;
        int errCount = 0, pktCount = 0;
        for (int i = 1; i <= 101; ++i) {
            fromWait ? m_task.DoPortScan(errCount, pktCount)
                     : m_task.HandleSocketBuffer(pipeFds[0], pktCount, errCount);
            EXPECT_EQ(i <= 100 ? i : 0, errCount) << fromWait;
            EXPECT_EQ(i <= 100 ? MONITOR_LIST_NORMAL : MONITOR_LIST_ERROR, Peer().MonitorStatus())
                << fromWait;
        }
    }
    close(pipeFds[0]);
    close(pipeFds[1]);
}

TEST_F(CollectTaskTest, PortsFreezeAtTheTwentyFirstPacketOrTheFifthAlarmingHost) {
    UsePolicy(R"([{"port":8080,"type":0},{"port":9090,"type":0}])",
              R"(,"port_package_max_num":20,"port_ip_max_num":4)");
    auto probe = [this](unsigned short port, const char* remote) {
        PacketNode pkt{};
        pkt.localAddress.s_addr = inet_addr("10.0.0.1");
        pkt.localPort = port;
        pkt.remoteAddress.s_addr = inet_addr(remote);
        pkt.flag = "SYN";
        m_task.HandlePacket(pkt, 100);
        return Peer().BanPortMap().count(port) == 1;
    };
    for (int i = 1; i <= 21; ++i) {
        EXPECT_EQ(i == 21, probe(8080, "203.0.113.5")) << i;  // a public host: counted, never alarmed
    }
    int n = 0;
    for (const char* host : {"192.168.1.1", "192.168.1.1", "203.0.113.5", "192.168.1.2", "192.168.1.3",
                             "192.168.1.4", "192.168.1.5"}) {
        EXPECT_EQ(++n == 7, probe(9090, host)) << n;
    }
}

TEST_F(CollectTaskTest, MonitorListStateMachine) {
    using Ports = std::vector<std::pair<uint32_t, uint32_t>>;  // (port, type)
    const struct {
        Ports policy;
        unsigned int frozen, inUdpUse;  // 0: none
        MONITOR_LIST_STATUS expected;
        Ports monitored;
    } steps[] = {
        {{{8080, 0}, {9090, 1}}, 0, 0, MONITOR_LIST_CREATE, {{8080, 0}, {9090, 1}}},
        {{{8080, 0}, {9090, 1}}, 0, 0, MONITOR_LIST_NORMAL, {{8080, 0}, {9090, 1}}},
        {{{8080, 1}, {9090, 1}}, 0, 0, MONITOR_LIST_NORMAL, {{8080, 1}, {9090, 1}}},  // protocol moved
        {{{8080, 1}}, 0, 0, MONITOR_LIST_CHANGE, {{8080, 1}}},
        {{{8080, 1}, {22, 0}}, 22, 0, MONITOR_LIST_NORMAL, {{8080, 1}}},
        {{{8080, 1}, {22, 2}}, 0, 22, MONITOR_LIST_CHANGE, {{22, 0}, {8080, 1}}},
        {{{8080, 1}}, 0, 8080, MONITOR_LIST_CHANGE, {}},
        {{{8080, 1}}, 8080, 0, MONITOR_LIST_CREATE, {}},  // after an empty list
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(&step - steps);
        std::string list;
        for (const auto& port : step.policy) {
            list += (list.empty() ? "" : ",") + std::string(R"({"port":)") + std::to_string(port.first) +
                    R"(,"type":)" + std::to_string(port.second) + "}";
        }
        UsePolicy("[" + list + "]");
        Peer().BanPortMap().clear();
        if (step.frozen != 0) {
            Peer().BanPortMap()[step.frozen] = kStart;
        }
        Peer().NetCache().clear();
        if (step.inUdpUse != 0) {
            MarkInUse(step.inUdpUse, 1);
        }
        EXPECT_TRUE(m_task.MergeMonitorPort());
        EXPECT_EQ(step.expected, Peer().MonitorStatus());
        Ports monitored;
        for (const PortInfoNode& node : Peer().PortSet()) {
            monitored.emplace_back(node.port, node.type);
        }
        std::sort(monitored.begin(), monitored.end());
        EXPECT_EQ(step.monitored, monitored);
    }

    const struct {
        int state;
        bool withPorts, socketReady, result;
        int after;
        const char* line;  // the one line written; null: none
    } cases[] = {
        {2, true, false, true, 2, nullptr},
        {3, true, false, true, 2, "[PortScan] Monitor port clear!"},
        {1, false, false, false, 3, "[PortScan] Monitor port changed!"},
        {4, false, false, false, 3, "[PortScan] Monitor port changed!"},
        {0, true, true, true, 2, "[PortScam] Find monitor port list create! size = (1u)"},
        {5, true, false, false, 5, kStateFive},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        m_log->Clear();
        Peer().PortSet().clear();
        if (c.withPorts) {
            Peer().PortSet().insert(PortInfoNode(8080, 0));
        }
        Peer().SocketReady() = c.socketReady;
        Peer().MonitorStatus() = static_cast<MONITOR_LIST_STATUS>(c.state);
        EXPECT_EQ(c.result, m_task.CheckSocketInfo());
        EXPECT_EQ(c.after, Peer().MonitorStatus());
        EXPECT_EQ(c.line == nullptr ? std::vector<std::string>{} : std::vector<std::string>{c.line},
                  m_log->Texts());
    }
}

// Port 7's only prober is its peer: nothing is sent for it; port 8080's one alarm is not above the
// limit of one. Port 22 reports a half-open scan; port 5353 a common one from the entry after its
// peer's, with the event count running on.
TEST_F(CollectTaskTest, AlarmDocumentsSkipThePeerAndCountAcrossPorts) {
    UsePolicy("[]");  // alarm_max_num 1
    m_task.peers = {{7, "10.1.1.1"}, {5353, "10.1.1.1"}};
    Peer().PortSet() = {
        Alarmed(7, 0, 2, {Entry("10.1.1.1", 2)}), Alarmed(22, 0, 2, {Entry("192.168.1.7", 2)}),
        Alarmed(8080, 0, 1, {Entry("192.168.1.7", 2)}),
        Alarmed(5353, 1, 3, {Entry("10.1.1.1", 1, "UDP", ""), Entry("10.1.1.2", 1, "UDP", "")})};
    m_task.SendPortAlarm();
    // Parsed on both sides, so that a number sent as text (or the reverse) differs.
    const std::string common = R"({"attack_phase":1,"attack_tag":1,"confidence":60,"event_category":6000,
        "event_type":6002,"occur_time":1700000000,"severity":1,"detect_module":"portscan_module",)";
    const std::vector<Json::Value> expected = {
        Parse(common + R"("event_classid":"portscan_0002","event_count":1,"event_name":"Secret port scan",
            "network_info":{"app_protocol":"SYN","local_address":"10.0.0.1","local_port":22,"protocol":"TCP",
            "remote_address":"192.168.1.7","remote_port":40000}})"),
        Parse(common + R"("event_classid":"portscan_0001","event_count":2,"event_name":"Common port scan",
            "network_info":{"app_protocol":"","local_address":"10.0.0.1","local_port":5353,"protocol":"UDP",
            "remote_address":"10.1.1.2","remote_port":40000}})")};
    EXPECT_EQ(expected, Documents());
    EXPECT_EQ(1u, Peer().LogLimitPortMap().count(7));
}

TEST_F(CollectTaskTest, DumpAtDebugLevelOnly) {
    UsePolicy(R"([{"port":8080,"type":0},{"port":9090,"type":1}])");
    PortInfoNode counted(8080, 0);
    counted.alarmNum = 3;
    counted.pkgNum = 9;
    counted.remoteIps = {in_addr{1}, in_addr{2}};
    m_policies.back()->RefreshAlarmInfo(counted);
    MarkInUse(9090, 1);
    Peer().BanPortMap() = {{9090u, kStart}, {22u, kStart}};
    m_log->Clear();
    m_task.PrintPortInfo();
    std::string dump;
    for (const Poco::Message& message : m_log->Messages()) {
        EXPECT_EQ(Poco::Message::PRIO_DEBUG, message.getPriority()) << message.getText();
        dump += message.getText() + "\n";
    }
    EXPECT_EQ(std::string(kPolicyHeader) + "\n  Port  8080 [0]: Got  3 packet from 2u hosts. Alarm:3\n" +
                  "  Port  9090: IS BEING USED.Alarm:0\n" + kBanHeader +
                  "\n Port:22 BAN!\n Port:9090 BAN!\n" + kEndHeader + "\n",
              dump);

    TestSupport::CaptureLogs({"portscan_module"}, "information");
    // Even a module logger that admits debug lines stays quiet: the agent's level decides.
    PortScan::GetLoggerPtr()->setLevel(Poco::Message::PRIO_DEBUG);
    m_task.PrintPortInfo();
    EXPECT_TRUE(m_log->Texts().empty());
}

// Opt-in switches of the task policy, each on and off at the operation it changes.

// Off: one frame per wake-up. On: up to the bound, the rest at the next wait although no new frame
// came; the packet budget still stops the task at the first frame above it.
TEST_F(CollectTaskTest, DrainReadsQueuedFramesUpToTheBoundAndWithinTheBudget) {
    const int bound = CollectPortInfoTask::kMaxFramesPerWakeup;
    for (bool drain : {false, true}) {
        SCOPED_TRACE(drain);
        UsePolicy("[]", drain ? R"(,"drain_socket_queue":true)" : "");
        FakeCapture capture(Peer());
        m_log->Clear();
        capture.Send(Frame(2301, true), bound + 5);
        int errCount = 0, pktCount = 0;
        EXPECT_TRUE(m_task.DoPortScan(errCount, pktCount));
        EXPECT_EQ(drain ? bound : 1, pktCount);
        EXPECT_EQ(static_cast<std::size_t>(pktCount), m_log->Count(kOffered));
        if (drain) {
            EXPECT_TRUE(m_task.DoPortScan(errCount, pktCount));  // reported again although no frame came
            EXPECT_EQ(bound + 5, pktCount);
        }
        EXPECT_EQ(0, errCount);
    }

    UsePolicy("[]", R"(,"drain_socket_queue":true,"package_max_num":10)");
    FakeCapture capture(Peer());
    capture.Send(Frame(2301, true), 20);
    int errCount = 0, pktCount = 0;
    EXPECT_FALSE(m_task.DoPortScan(errCount, pktCount));
    EXPECT_EQ(11, pktCount);
    EXPECT_FALSE(Peer().Running());
    EXPECT_EQ(9, capture.Queued());
}

// Records (443, TCP) then (80, UDP): the set's own search misses the second. Its evidence reaches the
// monitored record only with the exact lookup.
TEST_F(CollectTaskTest, ExactLookupKeepsEvidenceOfARecordTheOrderingHides) {
    for (bool exact : {false, true}) {
        SCOPED_TRACE(exact);
        UsePolicy(R"([{"port":443,"type":0},{"port":80,"type":1}])",
                  exact ? R"(,"exact_port_lookup":true)" : "");
        Peer().PortSet() = {PortInfoNode(443, 0)};
        Peer().PortSet().insert(PortInfoNode(80, 1));
        PacketNode pkt{};
        pkt.localPort = 80;
        pkt.type = 1;
        pkt.remoteAddress.s_addr = inet_addr("192.168.1.7");
        PortInfoNode record(80, 1);
        record.alarmNum = 2;
        m_task.FillAlarmInfo(record, pkt, 1);
        std::size_t entries = 0;
        for (const PortInfoNode& node : Peer().PortSet()) {
            entries += node.port == 80 ? node.alarmInfos.size() : 0;
        }
        EXPECT_EQ(exact ? 1u : 0u, entries);
        EXPECT_EQ(2u, Peer().PortSet().size());
        m_task.SendPortAlarm();
        EXPECT_EQ(exact ? 1u : 0u, m_report->received.size());
        m_report->received.clear();
    }
}

// Two SYNs from a private host cross the default threshold: with the switch the alarm leaves in the
// same pass of the loop, without it at the next minute tick. Either way it goes out once.
TEST_F(CollectTaskTest, PromptAlarmLeavesBeforeTheTick) {
    const char* const sending = "[PortScan] Sending alarm [";
    for (bool prompt : {false, true}) {
        SCOPED_TRACE(prompt);
        m_clock->now = kStart;
        UsePolicy(R"([{"port":2301,"type":0}])", std::string(R"(,"check_port_before_alarm":true)") +
                                                     (prompt ? R"(,"prompt_alarms":true)" : ""));
        Peer().PortSet() = {PortInfoNode(2301, 0)};
        Peer().LogLimitPortMap().clear();
        Peer().MonitorStatus() = MONITOR_LIST_NORMAL;
        m_report->received.clear();
        FakeCapture capture(Peer());
        m_log->Clear();
        m_run = std::async(std::launch::async, [this] { return m_task.Run(); });
        // Tick 0 is done (its list rebuild fails without a network-process task; the list stays).
        ASSERT_TRUE(Poll([this] { return m_log->Count(kEndHeader) == 1; }));
        // One frame per wake-up without draining: each is sent once the previous one was taken. The
        // third, to a port the policy does not name, is read in the pass after the second's.
        const std::string frames[] = {Frame(2301), Frame(2301), Frame(2302, true)};
        const char* const taken[] = {"[PortScan] Alarm found, port [2301]",
                                     "[PortScan] Alarm found, port [2301]", "[PortScan] Port not found."};
        for (std::size_t i = 0; i < 3; ++i) {
            capture.Send(frames[i]);
            ASSERT_TRUE(Poll([&] { return m_log->CountContaining(taken[i]) == (i == 2 ? 1u : i + 1); })) << i;
        }
        EXPECT_EQ(prompt ? 1u : 0u, m_log->CountContaining(sending));
        EXPECT_EQ(1u, m_log->Count(kEndHeader));
        if (!prompt) {
            m_clock->now += 61;
            ASSERT_TRUE(Poll([&] { return m_log->CountContaining(sending) == 1; }));
        }
        m_clock->now += 61;  // the next tick finds the port alarmed already
        ASSERT_TRUE(Poll([this] { return m_log->CountContaining("already alarmed") == 1; }));
        m_task.cancel();
        m_run.get();
        m_task.reset();
        EXPECT_EQ(1u, m_report->received.size());
    }
}

// Frames of both capture sockets, read from one epoll set: one record counts hosts of both families
// and freezes at the host limit, one packet budget stops the task, and the alarm document carries
// the IPv6 text of the first alarmed host.
TEST_F(CollectTaskTest, Ipv6FramesShareRecordsBudgetAndAlarmDocuments) {
    UsePolicy(R"([{"port":2501,"type":0}])",
              R"(,"ipv6":true,"white_ip6_list":"fd00:78::3","check_port_before_alarm":true,)"
              R"("alarm_max_num":0,"port_ip_max_num":2,"package_max_num":5)");
    Peer().PortSet() = {PortInfoNode(2501, 0)};
    Peer().MonitorStatus() = MONITOR_LIST_NORMAL;
    FakeCapture capture(Peer(), true);
    m_run = std::async(std::launch::async, [this] { return m_task.Run(); });
    ASSERT_TRUE(Poll([this] { return m_log->Count(kEndHeader) == 1; }));

    const std::string alarm = "[PortScan] Alarm found, port [2501]";
    // frame, IPv6 socket, alarms so far, frozen after it
    const std::tuple<std::string, bool, size_t, bool> frames[] = {
        {Frame(2501, false, "fd00:78::2"), true, 1, false},
        {Frame(2501, false, "fd00:78::3"), true, 1, false},   // white-listed
        {Frame(2501, false, "2001:db8::2"), true, 1, false},  // global
        {Frame(2501, false, "10.0.0.5"), false, 2, false},
        {Frame(2501, false, "fe80::7"), true, 3, true},  // the third alarmed host
    };
    size_t sent = 0;
    for (const auto& [frame, ipv6, alarms, frozen] : frames) {
        SCOPED_TRACE(sent);
        capture.Send(frame, 1, ipv6);
        ++sent;
        ASSERT_TRUE(Poll([&] { return m_log->CountContaining("[SocketUtil] GET PACKET") == sent; }));
        EXPECT_TRUE(Poll([&] { return m_log->CountContaining(alarm) == alarms; }));
        // The port is frozen just after the alarm line is written: wait for it too.
        EXPECT_TRUE(Poll([&, frozen = frozen] { return (Peer().BanPortMap().count(2501) == 1) == frozen; }));
    }
    EXPECT_EQ(2u, m_log->Count("[PortScan] white ip found (fd00:78::3)"));  // once per classifier
    capture.Send(Frame(2501, false, "fd00:78::2"), 1, true);
    ASSERT_TRUE(Poll([this] { return RunEnded(); })) << "the sixth frame of the minute did not stop the task";

    const PortInfoNode& record = *m_policies.back()->GetPolicyPortSet().begin();
    EXPECT_EQ(3u, record.ipNum);
    EXPECT_EQ(1u, record.remoteIps.size());
    ASSERT_EQ(2u, record.remoteIp6s.size());
    char text[INET6_ADDRSTRLEN];
    EXPECT_STREQ("fe80::7", inet_ntop(AF_INET6, &record.remoteIp6s[1], text, sizeof(text)));

    m_task.SendPortAlarm();
    const std::vector<Json::Value> documents = Documents();
    ASSERT_EQ(1u, documents.size());
    const Json::Value& document = documents[0];
    EXPECT_EQ("portscan_0002", document["event_classid"].asString());
    EXPECT_EQ(Parse(R"({"app_protocol":"SYN","local_address":"fd00:78::1","local_port":2501,"protocol":"TCP",
        "remote_address":"fd00:78::2","remote_port":40000})"),
              document["network_info"]);
}

// Sockets of this namespace on ports the kernel picks. For IPv4 probes an IPv6 wildcard socket
// (not IPv6-only) holds its port only with the dual-stack switch; an IPv4 holder counts either way, a
// free port never. An IPv6 probe finds a port held by an IPv6 socket or by an IPv4 one (a dual-stack
// client tries IPv6 first).
TEST_F(CollectTaskTest, OccupancyQueriesAskTheRightFamilies) {
    const int v6 = socket(AF_INET6, SOCK_STREAM, 0);
    if (v6 < 0) {
        GTEST_SKIP() << "no IPv6 here";
    }
    close(v6);
    std::vector<int> fds;
    // Binds a socket to a port of the kernel's choice (TCP ones listen); its port.
    auto hold = [&fds](int family, int type, int v6only) {
        const int fd = socket(family, type, 0);
        fds.push_back(fd);
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &v6only, sizeof(v6only));
        sockaddr_storage address{};
        address.ss_family = static_cast<sa_family_t>(family);
        socklen_t length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        EXPECT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), length));
        EXPECT_TRUE(type != SOCK_STREAM || listen(fd, 1) == 0);
        EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
        return ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&address)->sin6_port
                                        : reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    };
    const uint16_t tcp6 = hold(AF_INET6, SOCK_STREAM, 0), udp6 = hold(AF_INET6, SOCK_DGRAM, 0);
    const uint16_t tcp4 = hold(AF_INET, SOCK_STREAM, 0), udp4 = hold(AF_INET, SOCK_DGRAM, 0);
    const uint16_t freed = hold(AF_INET6, SOCK_STREAM, 0);
    close(fds.back());
    fds.pop_back();
    // port, protocol; status of the IPv4 query without and with the switch, of the IPv6 query
    const std::tuple<uint16_t, int, int, int, int> cases[] = {{tcp6, 0, 1, 0, 0}, {udp6, 1, 1, 0, 0},
                                                              {tcp6, 1, 1, 1, 1}, {tcp4, 0, 0, 0, 0},
                                                              {udp4, 1, 0, 0, 0}, {freed, 0, 1, 1, 1}};
    for (int query : {0, 1, 2}) {
        UsePolicy("[]", query == 0 ? "" : query == 1 ? R"(,"dual_stack_occupancy":true)" : R"(,"ipv6":true)");
        for (const auto& [port, protocol, off, on, six] : cases) {
            int status = 7;
            query == 2 ? m_task.CheckPortStatus6(port, status, protocol)
                       : m_task.CheckPortStatus(port, status, protocol);
            EXPECT_EQ(query == 0   ? off
                      : query == 1 ? on
                                   : six,
                      status)
                << query << ": " << port << "/" << protocol;
        }
    }
    for (int fd : fds) {
        close(fd);
    }
}

// With the switches against blinding, decoys and alarm floods: a white-listed or public source
// counts toward no limit; each private source of a port gets its own alarm, once in a run; each
// source gets one summary once it has been quiet for "summary_quiet_s".
TEST_F(CollectTaskTest, SourcesCountAlarmAndSummariseOnTheirOwn) {
    UsePolicy(R"([{"port":2301,"type":0}])",
              R"(,"check_port_before_alarm":true,"alarm_max_num":0,"package_max_num":10,
                "port_package_max_num":5,"white_ip_list":"192.168.1.9","reportable_sources_only":true,
                "alarm_per_source":true,"scan_summary":true,"summary_quiet_s":1)");
    Peer().PortSet() = {PortInfoNode(2301, 0)};
    FakeCapture capture(Peer());
    int errCount = 0, pktCount = 0;
    auto deliver = [&](const char* remote, int count) {
        capture.Send(Frame(2301, false, remote), count);
        for (int i = 0; i < count; ++i) {
            m_task.HandleSocketBuffer(Peer().SockFd(), pktCount, errCount);
        }
    };
    deliver("192.168.1.9", 30);  // white-listed, and public: past every limit, yet nothing counts
    deliver("203.0.113.5", 30);
    EXPECT_EQ(0, pktCount);
    EXPECT_TRUE(Peer().BanPortMap().empty());
    EXPECT_TRUE(Peer().Running());
    for (const char* remote : {"192.168.1.7", "192.168.1.8", "192.168.1.7", "192.168.1.7"}) {
        deliver(remote, 1);
    }
    EXPECT_EQ(4, pktCount);
    m_task.SendPortAlarm();
    m_task.SendPortAlarm();
    const std::vector<Json::Value> alarms = Documents();
    ASSERT_EQ(2u, alarms.size());
    EXPECT_EQ("192.168.1.7", alarms[0]["network_info"]["remote_address"].asString());
    EXPECT_EQ(3, alarms[0]["event_count"].asInt());
    EXPECT_EQ("192.168.1.8", alarms[1]["network_info"]["remote_address"].asString());
    EXPECT_EQ(1, alarms[1]["event_count"].asInt());

    m_task.SendScanSummaries(false);  // both probed a moment ago
    EXPECT_EQ(2u, m_report->received.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    m_task.SendScanSummaries(false);
    const std::vector<Json::Value> documents = Documents();
    ASSERT_EQ(4u, documents.size());
    std::map<std::string, Json::Value> summaries;
    for (size_t i = 2; i < 4; ++i) {
        EXPECT_EQ("portscan_0003", documents[i]["event_classid"].asString());
        summaries[documents[i]["network_info"]["remote_address"].asString()] = documents[i]["scan_summary"];
    }
    EXPECT_EQ(3, summaries["192.168.1.7"]["probe_count"].asInt());
    EXPECT_EQ(1, summaries["192.168.1.8"]["probe_count"].asInt());
    EXPECT_EQ(Parse(R"({"a":[2301]})")["a"], summaries["192.168.1.7"]["ports"]);
    EXPECT_EQ(Parse(R"({"a":["SYN"]})")["a"], summaries["192.168.1.7"]["probe_kinds"]);
}

// A summary lists at most the bound of ports, in order, and counts them all.
TEST(ScanSummaryDocument, ListsBoundedPortsAndCountsAll) {
    ScanSummary summary;
    summary.localAddress = "10.0.0.1";
    for (unsigned port = 1000; port < 1150; ++port) {
        summary.ports.insert(port);
    }
    summary.protocols = {"UDP", "TCP"};
    summary.kinds = {"UDP", "SYN", "NONE"};
    summary.probes = 151;
    summary.firstMs = 1700000000123;
    summary.lastMs = 1700000009456;
    const Json::Value document = BuildScanSummaryDocument("192.168.1.7", summary, 100);
    EXPECT_EQ(100u, document["scan_summary"]["ports"].size());
    EXPECT_EQ(1000u, document["scan_summary"]["ports"][0].asUInt());
    EXPECT_EQ(1099u, document["scan_summary"]["ports"][99].asUInt());
    EXPECT_EQ(150u, document["scan_summary"]["port_count"].asUInt());
    EXPECT_EQ("TCP,UDP", document["network_info"]["protocol"].asString());
    EXPECT_EQ(1700000009, document["occur_time"].asInt64());
    EXPECT_EQ(151u, document["event_count"].asUInt());
    EXPECT_EQ("NONE", document["scan_summary"]["probe_kinds"][0].asString());
}

}  // namespace
