// Alarm reporting, the port dump and the master-interface binding.

#include "TaskTestSupport.h"

#include "PortScanModule.h"
#include "framework/ConfigManager.h"

#include <Poco/Logger.h>
#include <arpa/inet.h>
#include <json/json.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>

namespace {

using Engine::AlarmInfo;
using Engine::PortInfoNode;
using TaskTest::PolicyJson;
using TaskTest::Recorder;

// Takes its peer filter from the test instead of the network-process cache.
class PeerMapTask : public Engine::CollectPortInfoTask {
public:
    bool BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map) override {
        map = peers;
        return true;
    }
    std::map<unsigned short, std::string> peers;
};

AlarmInfo Entry(const char* remote, int alarmType, const char* protocol = "TCP", const char* flag = "SYN") {
    return AlarmInfo{protocol, remote, "10.0.0.1", 40000, flag, alarmType};
}

PortInfoNode Alarmed(uint32_t port, int32_t alarmNum, const std::vector<AlarmInfo>& entries,
                     uint32_t type = 0) {
    PortInfoNode node(port, type);
    node.alarmNum = alarmNum;
    node.alarmInfos = entries;
    return node;
}

class CollectAlarmTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        UsePolicy(PolicyJson("[]", R"(,"alarm_max_num":1)"));
        m_reports = new TaskTest::ReportRecorder;
        m_registration.reset(new TaskTest::ScopedRegistration(m_reports.get()));
    }
    void TearDown() override {
        m_registration.reset();
        TaskFixture::TearDown();
    }
    Engine::CollectPortInfoTask* NewTask() override { return new PeerMapTask; }
    std::map<unsigned short, std::string>& Peers() { return static_cast<PeerMapTask&>(*m_task).peers; }

    std::vector<Json::Value> Documents() {
        std::vector<Json::Value> documents;
        for (const auto& message : m_reports->Messages()) {
            EXPECT_EQ("2", message.type);
            Json::Value root;
            std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
            EXPECT_TRUE(reader->parse(message.body.data(), message.body.data() + message.body.size(), &root,
                                      nullptr));
            documents.push_back(root);
        }
        return documents;
    }

    Poco::AutoPtr<TaskTest::ReportRecorder> m_reports;
    std::unique_ptr<TaskTest::ScopedRegistration> m_registration;
};

TEST_F(CollectAlarmTest, DocumentCarriesEveryKeyWithItsType) {
    Peer().PortSet().insert(Alarmed(8080, 2, {Entry("192.168.1.7", 2)}));
    m_task->SendPortAlarm();
    ASSERT_EQ(1u, m_reports->Messages().size());
    const std::string sending = "[PortScan] Sending alarm [" + m_reports->Messages()[0].body + "]";
    EXPECT_EQ(Poco::Message::PRIO_INFORMATION, Recorder().PriorityOf(sending));
    EXPECT_EQ(kStart, Peer().LogLimitPortMap()[8080]);

    const Json::Value doc = Documents()[0];
    std::vector<std::string> members = doc.getMemberNames();
    std::sort(members.begin(), members.end());
    const std::vector<std::string> keys = {"attack_phase",   "attack_tag",    "confidence",   "detect_module",
                                           "event_category", "event_classid", "event_count",  "event_id",
                                           "event_name",     "event_type",    "network_info", "occur_time",
                                           "severity"};
    EXPECT_EQ(keys, members);
    ASSERT_TRUE(doc["event_id"].isString());
    EXPECT_EQ(36u, doc["event_id"].asString().size());
    ASSERT_TRUE(doc["occur_time"].isInt64());
    EXPECT_EQ(kStart, doc["occur_time"].asInt64());
    const std::map<std::string, int> integers = {
        {"event_category", 6000}, {"event_type", 6002}, {"severity", 1},   {"attack_phase", 1},
        {"attack_tag", 1},        {"confidence", 60},   {"event_count", 1}};
    for (const auto& entry : integers) {
        ASSERT_TRUE(doc[entry.first].isInt()) << entry.first;
        EXPECT_EQ(entry.second, doc[entry.first].asInt()) << entry.first;
    }
    EXPECT_EQ(Json::Value("portscan_module"), doc["detect_module"]);
    EXPECT_EQ(Json::Value("portscan_0002"), doc["event_classid"]);
    EXPECT_EQ(Json::Value("Secret port scan"), doc["event_name"]);

    const Json::Value& network = doc["network_info"];
    ASSERT_TRUE(network.isObject());
    EXPECT_EQ(6u, network.size());
    EXPECT_EQ(Json::Value("10.0.0.1"), network["local_address"]);
    EXPECT_TRUE(network["local_port"].isUInt());
    EXPECT_EQ(8080u, network["local_port"].asUInt());
    EXPECT_EQ(Json::Value("192.168.1.7"), network["remote_address"]);
    EXPECT_TRUE(network["remote_port"].isInt());
    EXPECT_EQ(40000, network["remote_port"].asInt());
    EXPECT_EQ(Json::Value("TCP"), network["protocol"]);
    EXPECT_EQ(Json::Value("SYN"), network["app_protocol"]);
}

TEST_F(CollectAlarmTest, ThresholdIsStrictlyAboveTheAlarmLimit) {
    const struct {
        int limit, alarmNum;
        bool sent;
    } cases[] = {{1, 1, false}, {1, 2, true}, {3, 3, false}, {3, 4, true}, {0, 0, false}, {0, 1, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.limit) + "/" + std::to_string(c.alarmNum));
        UsePolicy(PolicyJson("[]", ",\"alarm_max_num\":" + std::to_string(c.limit)));
        m_reports->Clear();
        Peer().LogLimitPortMap().clear();
        Peer().PortSet() = {Alarmed(8080, c.alarmNum, {Entry("192.168.1.7", 2)})};
        m_task->SendPortAlarm();
        EXPECT_EQ(c.sent ? 1u : 0u, m_reports->Messages().size());
        EXPECT_EQ(c.sent ? 1u : 0u, Peer().LogLimitPortMap().count(8080));  // below: looked at again
    }
}

TEST_F(CollectAlarmTest, EventCountRunsAcrossPortsAndAPortAlarmsOnce) {
    Peer().PortSet().insert(Alarmed(22, 2, {Entry("192.168.1.7", 2)}));
    Peer().PortSet().insert(Alarmed(80, 0, {}));
    Peer().PortSet().insert(
        Alarmed(5353, 3, {Entry("10.1.1.1", 1, "UDP", ""), Entry("10.1.1.2", 1, "UDP", "")}, 1));
    m_task->SendPortAlarm();
    std::vector<Json::Value> docs = Documents();
    ASSERT_EQ(2u, docs.size());
    EXPECT_EQ(1, docs[0]["event_count"].asInt());
    EXPECT_EQ(22u, docs[0]["network_info"]["local_port"].asUInt());
    EXPECT_EQ(2, docs[1]["event_count"].asInt());
    // A common scan of a UDP port, described by its earliest entry.
    EXPECT_EQ("portscan_0001", docs[1]["event_classid"].asString());
    EXPECT_EQ("Common port scan", docs[1]["event_name"].asString());
    EXPECT_EQ("10.1.1.1", docs[1]["network_info"]["remote_address"].asString());
    EXPECT_EQ("UDP", docs[1]["network_info"]["protocol"].asString());
    EXPECT_EQ(Json::Value(""), docs[1]["network_info"]["app_protocol"]);
    EXPECT_EQ(Poco::Message::PRIO_DEBUG, Recorder().PriorityOf("[PortScan] Port :[80] no alarmed, ignore"));

    // Next minute, with more evidence: nothing until Run starts again.
    m_reports->Clear();
    Peer().PortSet().erase(Peer().PortSet().begin());
    Peer().PortSet().insert(Alarmed(22, 9, {Entry("192.168.1.7", 2), Entry("192.168.1.8", 2)}));
    m_task->SendPortAlarm();
    EXPECT_TRUE(m_reports->Messages().empty());
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Port :[22] already alarmed, ignore"));
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Port :[5353] already alarmed, ignore"));
}

TEST_F(CollectAlarmTest, PeerOfALocalProgramIsNotReported) {
    Peers() = {{8080, "192.168.1.7"}, {22, "10.1.1.1"}};
    // Port 22's only prober is its peer: the port is marked, nothing is sent for it.
    Peer().PortSet().insert(Alarmed(22, 5, {Entry("10.1.1.1", 2), Entry("10.1.1.1", 1)}));
    // The first entry of 8080 comes from its peer: the next one describes the port.
    Peer().PortSet().insert(Alarmed(8080, 2, {Entry("192.168.1.7", 2), Entry("192.168.1.70", 1)}));
    m_task->SendPortAlarm();
    std::vector<Json::Value> docs = Documents();
    ASSERT_EQ(1u, docs.size());
    EXPECT_EQ("192.168.1.70", docs[0]["network_info"]["remote_address"].asString());
    EXPECT_EQ("portscan_0001", docs[0]["event_classid"].asString());
    EXPECT_EQ(1, docs[0]["event_count"].asInt());
    EXPECT_EQ(1u, Peer().LogLimitPortMap().count(22));
}

// A later port whose entries are all skipped resends the earlier document, as a half-open scan.
TEST_F(CollectAlarmTest, SkippedPortAfterAnAlarmResendsTheDocument) {
    Peers() = {{9090, "10.1.1.1"}};
    Peer().PortSet().insert(Alarmed(8080, 2, {Entry("192.168.1.7", 1)}));
    Peer().PortSet().insert(Alarmed(9090, 2, {Entry("10.1.1.1", 1)}));
    m_task->SendPortAlarm();
    std::vector<Json::Value> docs = Documents();
    ASSERT_EQ(2u, docs.size());
    EXPECT_EQ("portscan_0001", docs[0]["event_classid"].asString());
    EXPECT_EQ(1, docs[1]["event_count"].asInt());
    EXPECT_EQ("portscan_0002", docs[1]["event_classid"].asString());
    EXPECT_EQ("Secret port scan", docs[1]["event_name"].asString());
    EXPECT_EQ(8080u, docs[1]["network_info"]["local_port"].asUInt());
    EXPECT_EQ(docs[0]["event_id"], docs[1]["event_id"]);
}

class CollectPeerMapTest : public TaskTest::TaskFixture {};

TEST_F(CollectPeerMapTest, BuiltFromTheNetworkProcessCache) {
    std::map<unsigned short, std::string> peers;
    EXPECT_FALSE(m_task->BuildPortRemoteIpMap(peers));
    EXPECT_TRUE(peers.empty());
    EXPECT_EQ(1u, Recorder().Count("[PortScan] Do action (GetNetProcPtr) fail!"));

    TaskTest::LoopbackSocket listener;
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(listener.Port());
    socklen_t length = sizeof(address);
    ASSERT_EQ(0, connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, getsockname(client, reinterpret_cast<sockaddr*>(&address), &length));

    Poco::AutoPtr<Engine::NetProcsFullTask> netProcs(new Engine::NetProcsFullTask(3600 * 1000));
    TaskTest::ScopedRegistration registration(netProcs.get());
    ASSERT_TRUE(netProcs->RefreshNow());
    EXPECT_TRUE(m_task->BuildPortRemoteIpMap(peers));
    EXPECT_EQ("127.0.0.1", peers[ntohs(address.sin_port)]);
    close(client);
}

class CollectDumpTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        UsePolicy(PolicyJson(R"([{"port":8080,"type":0},{"port":9090,"type":1}])"));
    }
    std::vector<std::string> Dump(Engine::CollectPortInfoTask& task) {
        Recorder().Clear();
        task.PrintPortInfo();
        for (const auto& line : Recorder().Lines()) {
            EXPECT_EQ(Poco::Message::PRIO_DEBUG, line.prio) << line.text;
        }
        return Recorder().Texts();
    }
};

TEST_F(CollectDumpTest, ListsPolicyPortsAndFrozenPorts) {
    PortInfoNode counted(8080, 0);
    counted.alarmNum = 3;
    counted.pkgNum = 9;
    counted.remoteIps = {in_addr{1}, in_addr{2}};
    m_policy->RefreshAlarmInfo(counted);
    auto info = std::make_shared<Engine::NetProcsMessage::netProcInfo>();
    info->localPort = 9090;
    info->protocol = 1;
    Peer().NetCache()[1] = info;
    Peer().BanPortMap() = {{9090u, kStart}, {22u, kStart}};
    const std::vector<std::string> expected = {TaskTest::kDumpPolicyHeader,
                                               "  Port  8080 [0]: Got  3 packet from 2u hosts. Alarm:3",
                                               "  Port  9090: IS BEING USED.Alarm:0",
                                               TaskTest::kDumpBanHeader,
                                               " Port:22 BAN!",
                                               " Port:9090 BAN!",
                                               TaskTest::kDumpEndHeader};
    EXPECT_EQ(expected, Dump(*m_task));

    UsePolicy(PolicyJson("[]"));
    Peer().BanPortMap().clear();
    const std::vector<std::string> headers = {TaskTest::kDumpPolicyHeader, TaskTest::kDumpBanHeader,
                                              TaskTest::kDumpEndHeader};
    EXPECT_EQ(headers, Dump(*m_task));
}

TEST_F(CollectDumpTest, PlaceholderIsListedBeforeInit) {
    Engine::CollectPortInfoTask fresh;
    fresh.SetTaskPolicy(m_policy);
    const std::vector<std::string> expected = {TaskTest::kDumpPolicyHeader,
                                               "  Port  8080 [0]: Got  0 packet from 0u hosts. Alarm:0",
                                               "  Port  9090 [1]: Got  0 packet from 0u hosts. Alarm:0",
                                               TaskTest::kDumpBanHeader,
                                               " Port:0 BAN!",
                                               TaskTest::kDumpEndHeader};
    EXPECT_EQ(expected, Dump(fresh));
}

TEST_F(CollectDumpTest, SilentWhenTheAgentLogsAtInformation) {
    TaskTest::ConfigureLogging("information");
    // Even a module logger that admits debug lines stays quiet: the agent's level decides.
    Engine::PortScan::GetLoggerPtr()->setLevel(Poco::Message::PRIO_DEBUG);
    Peer().BanPortMap()[22] = kStart;
    EXPECT_TRUE(Dump(*m_task).empty());
}

class CollectBindTest : public TaskTest::TaskFixture {
protected:
    void SetUp() override {
        TaskFixture::SetUp();
        m_saved = Framework::ConfigManager::GetInstance()->GetConnectConfig();
    }
    void TearDown() override {
        Framework::ConfigManager::GetInstance()->SetConnectConfig(m_saved);
        TaskFixture::TearDown();
    }
    std::vector<std::string> m_saved;
};

TEST_F(CollectBindTest, StopsAtTheFirstFailingStep) {
    // A completed route dump answers false: every attempt that gets that far ends there.
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"mgmt.example:443"}, "GetMasterIpList"},
        {{}, "GetRouteTable"},
        {{"127.0.0.1:443"}, "GetRouteTable"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.second);
        Framework::ConfigManager::GetInstance()->SetConnectConfig(c.first);
        Recorder().Clear();
        EXPECT_FALSE(m_task->BindMasterInterface());
        std::vector<std::string> texts;
        for (const auto& line : Recorder().Lines()) {
            if (line.source == "portscan_module") {
                texts.push_back(line.text);
            }
        }
        ASSERT_GE(texts.size(), 2u);  // the route dump may add lines of its own in between
        EXPECT_EQ("[PortScan] Binding master interface!", texts.front());
        EXPECT_EQ("[PortScan] Do action (" + c.second + ") fail!", texts.back());
        EXPECT_EQ(Poco::Message::PRIO_ERROR, Recorder().PriorityOf(texts.back()));
        EXPECT_EQ(0u, Recorder().CountPrefix("[PortScan] Bind intf ("));
    }
}

}  // namespace
