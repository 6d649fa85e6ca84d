// The collection task through its public operations, with the test's clock, socket table and socket pairs.

#include "CollectPortInfoTask.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "SocketUtil.h"
#include "TestFrames.h"
#include "framework/Message.h"
#include "sdk/JsonUtils.h"
#include "sdk/TimeUtils.h"
#include "support/LogCapture.h"
#include "support/TestEngine.h"

#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>
#include <tuple>

namespace {

using namespace Engine;

constexpr long kStart = 1700000000;
const char* const kEndHeader = "-------------------------End of Port info-------------------------";
const char* const kChanged = "[PortScan] Monitor port changed!";
using Ports = std::vector<std::pair<uint32_t, uint32_t>>;  // (port, type)

struct FakeClock : SDK::ClockSource {
    long NowSeconds() override { return now.load(); }
    std::atomic<long> now{kStart};
};

// Stands in for a task looked up by name: keeps the messages sent to it, serves the test's socket table.
struct StandIn : Framework::Task, Framework::NetProcCache {
    explicit StandIn(const char* name) : Framework::Task(name, "test", 0, 64) {}
    bool EnqueueMsg(Framework::Message* msg) override {
        const auto* data = dynamic_cast<Framework::DataMessage*>(msg);
        received.emplace_back(msg->GetType(), data != nullptr ? data->GetBody() : "");
        delete msg;
        return true;
    }
    void GetNetCacheMap(CacheMap& out) override { out = sockets; }
    std::vector<std::pair<std::string, std::string>> received;
    CacheMap sockets;
};

bool Poll(const std::function<bool()>& done) {
    for (int i = 0; i < 10000 && !done(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root)) << text;
    return root;
}

// A probe as the parser hands it on: TCP SYN (or UDP) from `remote` to 10.0.0.1 (IPv6: fd00:78::1).
PacketNode Packet(unsigned short port, const char* remote, bool udp = false) {
    const bool v6 = strchr(remote, ':') != nullptr;
    std::string frame = Frame(remote, v6 ? "fd00:78::1" : "10.0.0.1", udp ? IPPROTO_UDP : IPPROTO_TCP, port);
    PacketNode pkt{};
    EXPECT_TRUE(v6 ? SocketUtil::ParsePacket6(frame.data(), frame.size(), &pkt)
                   : SocketUtil::ParsePacket(&frame[0], frame.size(), &pkt));
    return pkt;
}

class CollectTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_log = &ModuleLogs("debug");
        SDK::TimeUtils::SetClockSource(m_clock);
        // The classifiers read the policy of "port_scan_task"; alarms go to "data_comm_report_task".
        for (StandIn* standIn : {m_scan.get(), m_report.get(), m_sockets.get()}) {
            ASSERT_TRUE(TestSupport::TestEngine().RegisterTask(standIn, false));
        }
        ASSERT_TRUE(m_task.Init());
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_DGRAM, 0, m_capture));
    }
    void TearDown() override {
        if (m_run.valid()) {  // the loop ends once cancelled
            m_task.cancel();
            m_run.get();
        }
        for (const char* name : {"data_comm_report_task", "port_scan_task", "netproc_full_task"}) {
            TestSupport::TestEngine().UnRegisterTask(name);
        }
        m_task.UnInit();
        SDK::TimeUtils::SetClockSource(nullptr);
        close(m_capture[0]);
        close(m_capture[1]);
    }
    void UsePolicy(const Ports& ports, const std::string& extra = "") {
        std::string json = R"({"task_condition":{})" + extra + R"(,"monitor_list":[)";
        for (const auto& [port, type] : ports) {
            json += (json.back() == '[' ? "{" : ",{") + (R"("port":)" + std::to_string(port)) +
                    R"(,"type":)" + std::to_string(type) + "}";
        }
        m_policies.emplace_back(new PortScanTaskPolicy("port_scan_task"));
        EXPECT_TRUE(m_policies.back()->Parse(json + "]}")) << json;
        m_task.SetTaskPolicy(m_policies.back().get());
        m_scan->SetTaskPolicy(m_policies.back().get());
    }
    // A socket on `port`, connected to `remote` when given.
    void MarkInUse(unsigned int port, unsigned int protocol, const char* remote = "0.0.0.0") {
        auto info = std::make_shared<Framework::NetProcInfo>();
        info->localPort = port;
        info->protocol = protocol;
        info->remoteAddress = remote;
        m_sockets->sockets[static_cast<long>(m_sockets->sockets.size() + 1)] = info;
    }
    // Queues `count` copies of a TCP SYN from `remote` to port 2301 and has the task read each.
    bool Deliver(const char* remote, int count) {
        const std::string frame = Frame(remote, "10.0.0.1", IPPROTO_TCP, 2301);
        bool result = true;
        for (int i = 0; i < count && result; ++i) {
            EXPECT_EQ(static_cast<ssize_t>(frame.size()), send(m_capture[1], frame.data(), frame.size(), 0));
            result = m_task.HandleSocketBuffer(m_capture[0], m_pktCount, m_errCount);
        }
        return result;
    }
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
    Poco::AutoPtr<StandIn> m_sockets = new StandIn("netproc_full_task");
    std::vector<std::unique_ptr<PortScanTaskPolicy>> m_policies;
    CollectPortInfoTask m_task;
    int m_capture[2] = {-1, -1};
    int m_pktCount = 0, m_errCount = 0;  // the minute's counters the task keeps in its loop
    std::future<int> m_run;              // the loop, when a test runs it on a thread of its own
};

// Ticks 0, 30 and 60 release, rebuild and reset; a freeze at kStart outlives 23 h 59 min, not a day.
TEST_F(CollectTaskTest, MinuteTickRunsTheThirtyTickScheduleAndReleasesAfterADay) {
    // A changed list whose filter cannot load (no socket): each pass logs the change and pauses, pacing it.
    UsePolicy({{8080, 0}});
    m_task.MergeMonitorPort();
    UsePolicy({{9090, 0}});
    m_task.MergeMonitorPort();
    // Without the socket table the rebuilds fail and leave the list as it is.
    TestSupport::TestEngine().UnRegisterTask("netproc_full_task");
    m_task.FreezePort(8080);
    m_log->Clear();
    m_run = std::async(std::launch::async, [this] { return m_task.Run(); });
    long now = kStart - 181;
    for (int tick = 0; tick <= 60; ++tick) {
        SCOPED_TRACE(tick);
        if (tick > 0) {  // tick 1 comes with the clock set back by two minutes
            now = tick == 30 ? kStart + 86340 : (tick == 31 ? kStart + 86401 : now + 61);
            m_log->Clear();
            m_clock->now = now;
        }
        ASSERT_TRUE(Poll([this] {  // the tick is done and the loop has gone on past it
            const std::vector<std::string> texts = m_log->Texts();
            const auto end = std::find(texts.begin(), texts.end(), kEndHeader);
            return end != texts.end() && std::find(end, texts.end(), kChanged) != texts.end();
        }));
        EXPECT_EQ(1u, m_log->Count(kEndHeader));
        for (const char* line : {"[PortScan] Free baned port.", "[PortScan] Generate monitor port.",
                                 "[PortScan] Refresh policy port list."}) {
            EXPECT_EQ(tick % 30 == 0 ? 1u : 0u, m_log->Count(line)) << line;
        }
        EXPECT_EQ(tick < 60 ? 1u : 0u, m_log->Count(" Port:8080 BAN!"));
    }
}

// Steps: policy, frozen and UDP-held ports (0: none), state, records, whether the next check clears.
TEST_F(CollectTaskTest, MonitorListStateMachine) {
    const std::tuple<Ports, uint16_t, uint16_t, MONITOR_LIST_STATUS, Ports, bool> steps[] = {
        {{{8080, 0}, {9090, 1}}, 0, 0, MONITOR_LIST_CREATE, {{8080, 0}, {9090, 1}}, false},
        {{{8080, 1}, {9090, 1}}, 0, 0, MONITOR_LIST_NORMAL, {{8080, 1}, {9090, 1}}, false},  // 8080 on UDP
        {{{8080, 1}}, 0, 0, MONITOR_LIST_CHANGE, {{8080, 1}}, false},
        {{{8080, 1}, {22, 0}}, 22, 0, MONITOR_LIST_NORMAL, {{8080, 1}}, false},
        {{{8080, 1}, {22, 2}}, 0, 22, MONITOR_LIST_CHANGE, {{22, 0}, {8080, 1}}, false},
        {{{8080, 1}}, 0, 8080, MONITOR_LIST_CHANGE, {}, true},   // nothing left
        {{{8080, 1}}, 8080, 0, MONITOR_LIST_CREATE, {}, false},  // after an empty list
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        SCOPED_TRACE(i);
        const auto& [policy, frozen, inUdpUse, expected, want, cleared] = steps[i];
        UsePolicy(policy);
        m_clock->now += 86400;  // earlier freezes are over
        m_task.FreeBanPort();
        m_sockets->sockets.clear();
        if (inUdpUse != 0) {
            MarkInUse(inUdpUse, 1);
        }
        frozen != 0 ? m_task.FreezePort(frozen) : static_cast<void>(m_task.GetMonitorPort());
        EXPECT_EQ(expected, m_task.GetMonitorStatus());
        Ports monitored;
        for (const PortInfoNode& node : m_task.GetMonitorPortSet()) {
            monitored.emplace_back(node.port, node.type);
        }
        std::sort(monitored.begin(), monitored.end());
        EXPECT_EQ(want, monitored);
        if (cleared) {  // the change loads no empty filter: the capture is cleared, then all is normal
            EXPECT_FALSE(m_task.CheckSocketInfo());
            EXPECT_EQ(MONITOR_LIST_CLEAR, m_task.GetMonitorStatus());
            EXPECT_TRUE(m_task.CheckSocketInfo());
            EXPECT_EQ(MONITOR_LIST_NORMAL, m_task.GetMonitorStatus());
        }
    }
}

// Nothing for port 7 (only its peer probed) nor 8080 (one alarm, not above one); the count runs across ports.
// Only the exact lookup keeps all evidence of (5353, UDP), which the set's own search misses.
TEST_F(CollectTaskTest, AlarmDocumentsSkipThePeerAndCountAcrossPorts) {
    MarkInUse(7, 0, "10.1.1.1");
    MarkInUse(5353, 1, "10.1.1.1");
    const std::tuple<unsigned short, int, int, std::vector<const char*>> records[] = {
        {7, 2, 2, {"10.1.1.1"}},
        {22, 2, 2, {"192.168.1.7"}},
        {8080, 1, 2, {"192.168.1.7"}},
        {5353, 3, 1, {"10.1.1.1", "10.1.1.2"}}};
    for (bool exact : {false, true}) {
        SCOPED_TRACE(exact);
        m_task.InitFieldVars();
        UsePolicy({{7, 0}, {22, 0}, {8080, 0}, {5353, 1}}, exact ? R"(,"exact_port_lookup":true)" : "");
        ASSERT_TRUE(m_task.MergeMonitorPort());
        for (const auto& [port, alarms, type, remotes] : records) {
            PortInfoNode node(port, port == 5353 ? 1 : 0);
            node.alarmNum = alarms;
            for (const char* remote : remotes) {
                m_task.FillAlarmInfo(node, Packet(port, remote, port == 5353), type);
            }
        }
        std::size_t udpEvidence = 0;
        for (const PortInfoNode& node : m_task.GetMonitorPortSet()) {
            udpEvidence += node.port == 5353 ? node.alarmInfos.size() : 0;
        }
        EXPECT_EQ(exact, udpEvidence == 2) << udpEvidence;
        EXPECT_EQ(4u, m_task.GetMonitorPortSet().size());  // replaced, never added twice
    }
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
}

TEST_F(CollectTaskTest, DumpAtDebugLevelOnly) {
    UsePolicy({{8080, 0}, {9090, 1}});
    PortInfoNode counted(8080, 0);
    counted.alarmNum = 3;
    counted.pkgNum = 9;
    counted.remoteIps = {in_addr{1}, in_addr{2}};
    m_policies.back()->RefreshAlarmInfo(counted);
    MarkInUse(9090, 1);
    m_task.FreezePort(9090);
    m_task.FreezePort(22);
    m_log->Clear();
    m_task.PrintPortInfo();
    EXPECT_EQ((std::vector<std::string>{"-------------------------Print Policy Port-------------------------",
                                        "  Port  8080 [0]: Got  3 packet from 2u hosts. Alarm:3",
                                        "  Port  9090: IS BEING USED.Alarm:0",
                                        "-------------------------Print Ban Port-------------------------",
                                        " Port:22 BAN!", " Port:9090 BAN!", kEndHeader}),
              m_log->Texts());
    TestSupport::CaptureLogs({"portscan_module"}, "information");
    // Even a module logger that admits debug lines stays quiet: the agent's level decides.
    PortScan::GetLoggerPtr()->setLevel(Poco::Message::PRIO_DEBUG);
    m_task.PrintPortInfo();
    EXPECT_TRUE(m_log->Texts().empty());
}

// A drain stops at the bound, leaving the rest queued, or at the first frame past the budget, not handed on.
// The hundred-and-first read error of a minute asks for a rebuild of the capture.
TEST_F(CollectTaskTest, ReadsStopAtTheBoundAndTheBudgets) {
    const int bound = CollectPortInfoTask::kMaxFramesPerWakeup;
    for (int budget : {1000, 10}) {
        SCOPED_TRACE(budget);
        UsePolicy({}, R"(,"drain_socket_queue":true,"package_max_num":)" + std::to_string(budget));
        const std::string frame = Frame("192.168.1.7", "10.0.0.1", IPPROTO_UDP, 2301);
        for (int i = 0; i < bound + 5; ++i) {
            ASSERT_EQ(static_cast<ssize_t>(frame.size()), send(m_capture[1], frame.data(), frame.size(), 0));
        }
        m_log->Clear();
        m_pktCount = 0;
        EXPECT_EQ(budget > bound, m_task.DrainSocketQueue(m_capture[0], m_pktCount, m_errCount));
        EXPECT_EQ(std::min(bound, budget + 1), m_pktCount);
        // UDP frames parsed and handed on
        EXPECT_EQ(std::min<size_t>(bound, budget), m_log->Count("[PortScan] Chk before alarm is disable!"));
        int left = 0;
        for (char byte; recv(m_capture[0], &byte, 1, MSG_DONTWAIT) >= 0;) {
            ++left;
        }
        EXPECT_EQ(bound + 5 - m_pktCount, left);
        m_task.InitFieldVars();  // running again after the stop
    }
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));  // recv on a pipe fails
    for (int i = 1; i <= 101; ++i) {
        m_task.HandleSocketBuffer(pipeFds[0], m_pktCount, m_errCount);
        EXPECT_EQ(i <= 100 ? MONITOR_LIST_NORMAL : MONITOR_LIST_ERROR, m_task.GetMonitorStatus()) << i;
    }
    close(pipeFds[0]);
    close(pipeFds[1]);
}

// Hosts of both families count once each toward one host limit; the 21st packet of a public host freezes its
// port too. The alarm names the IPv6 host.
TEST_F(CollectTaskTest, PortsFreezeAtTheirPacketOrHostLimitWithHostsOfBothFamilies) {
    UsePolicy({{2501, 0}, {2502, 0}},
              R"(,"ipv6":true,"white_ip6_list":"fd00:78::3","alarm_max_num":0,"port_ip_max_num":2,)"
              R"("exact_port_lookup":true)");
    ASSERT_TRUE(m_task.MergeMonitorPort());
    // Without the socket table the freeze leaves the record, and so its alarm, in the list.
    TestSupport::TestEngine().UnRegisterTask("netproc_full_task");
    for (int i = 1; i <= 21; ++i) {
        m_task.HandlePacket(Packet(2502, "203.0.113.5"), 100);  // a public host: counted, never alarmed
        EXPECT_EQ(i == 21, m_task.IsPortFrozen(2502)) << i;
    }
    // The white-listed and the global host are no evidence, a repeated one counts once: the third
    // alarmed host freezes the port.
    for (const char* remote :
         {"fd00:78::2", "fd00:78::3", "2001:db8::2", "10.0.0.5", "10.0.0.5", "fd00:78::2"}) {
        m_task.HandlePacket(Packet(2501, remote), 100);
        EXPECT_FALSE(m_task.IsPortFrozen(2501)) << remote;
    }
    m_task.HandlePacket(Packet(2501, "fe80::7"), 100);
    EXPECT_TRUE(m_task.IsPortFrozen(2501));
    m_task.SendPortAlarm();
    const std::vector<Json::Value> documents = Documents();
    ASSERT_EQ(1u, documents.size());
    EXPECT_EQ(Parse(R"({"app_protocol":"SYN","local_address":"fd00:78::1","local_port":2501,"protocol":"TCP",
        "remote_address":"fd00:78::2","remote_port":40000})"),
              documents[0]["network_info"]);
}

// Against blinding, decoys and floods: per-source alarms once a run, and a summary once a source is quiet.
TEST_F(CollectTaskTest, SourcesCountAlarmAndSummariseOnTheirOwn) {
    UsePolicy({{2301, 0}}, R"(,"check_port_before_alarm":true,"alarm_max_num":0,"package_max_num":10,
                "port_package_max_num":5,"white_ip_list":"192.168.1.9","reportable_sources_only":true,
                "alarm_per_source":true,"scan_summary":true,"summary_quiet_s":1)");
    ASSERT_TRUE(m_task.MergeMonitorPort());
    // White-listed, and public: past every limit, yet nothing counts.
    EXPECT_TRUE(Deliver("192.168.1.9", 30));
    EXPECT_TRUE(Deliver("203.0.113.5", 30));
    EXPECT_EQ(0, m_pktCount);
    EXPECT_FALSE(m_task.IsPortFrozen(2301));
    for (const char* remote : {"192.168.1.7", "192.168.1.8", "192.168.1.7", "192.168.1.7"}) {
        EXPECT_TRUE(Deliver(remote, 1));
    }
    EXPECT_EQ(4, m_pktCount);
    m_task.SendPortAlarm();
    m_task.SendPortAlarm();
    m_task.SendScanSummaries(false);  // both probed a moment ago
    EXPECT_EQ(2u, m_report->received.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    m_task.SendScanSummaries(false);
    std::vector<std::string> sent;  // source, class, event count
    const std::vector<Json::Value> documents = Documents();
    for (const Json::Value& document : documents) {
        sent.push_back(document["network_info"]["remote_address"].asString() + " " +
                       document["event_classid"].asString() + " " +
                       std::to_string(document["event_count"].asInt()));
    }
    // Each source's alarm once, then its summary, which counts its probes.
    ASSERT_EQ((std::vector<std::string>{"192.168.1.7 portscan_0002 3", "192.168.1.8 portscan_0002 1",
                                        "192.168.1.7 portscan_0003 3", "192.168.1.8 portscan_0003 1"}),
              sent);
    EXPECT_EQ(Parse(R"({"a":[2301]})")["a"], documents[2]["scan_summary"]["ports"]);
    EXPECT_EQ(Parse(R"({"a":["SYN"]})")["a"], documents[2]["scan_summary"]["probe_kinds"]);

    // A summary lists at most the bound of ports, in order, and counts them all.
    ScanSummary summary;
    for (unsigned port = 1000; port < 1150; ++port) {
        summary.ports.insert(port);
    }
    summary.protocols = {"UDP", "TCP"};
    summary.probes = 151;
    summary.lastMs = 1700000009456;
    const Json::Value document = BuildScanSummaryDocument("192.168.1.7", summary, 100);
    EXPECT_EQ(100u, document["scan_summary"]["ports"].size());
    EXPECT_EQ(1000u, document["scan_summary"]["ports"][0].asUInt());
    EXPECT_EQ(1099u, document["scan_summary"]["ports"][99].asUInt());
    EXPECT_EQ(150u, document["scan_summary"]["port_count"].asUInt());
    EXPECT_EQ("TCP,UDP", document["network_info"]["protocol"].asString());
    EXPECT_EQ(1700000009, document["occur_time"].asInt64());
    EXPECT_EQ(151u, document["event_count"].asUInt());
}

}  // namespace
