#include "ModuleTestSupport.h"
#include "PortScanPolicy.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using PortScanTest::kModuleLogger;
using PortScanTest::Recorder;
using Pair = std::pair<uint32_t, uint32_t>;

// (port, type) of every record, found by walking the set (its own search cannot be trusted).
std::set<Pair> Pairs(const Engine::PortScanTaskPolicy& policy) {
    std::set<Pair> pairs;
    for (const Engine::PortInfoNode& node : policy.GetPolicyPortSet()) {
        pairs.insert({node.port, node.type});
    }
    return pairs;
}

const Engine::PortInfoNode* Walk(const Engine::PortScanTaskPolicy& policy, uint32_t port, uint32_t type) {
    for (const Engine::PortInfoNode& node : policy.GetPolicyPortSet()) {
        if (node.port == port && node.type == type) {
            return &node;
        }
    }
    return nullptr;
}

std::string MonitorList(int entries) {
    std::string list = "[";
    for (int i = 0; i < entries; ++i) {
        list += (i == 0 ? "" : ",") + std::string("{\"port\":") + std::to_string(1000 + i) + ",\"type\":0}";
    }
    return list + "]";
}

class PolicyTest : public ::testing::Test {
protected:
    void SetUp() override { Recorder().Clear(); }

    std::vector<std::string> ModuleErrors() const {
        return Recorder().Texts(kModuleLogger, Poco::Message::PRIO_ERROR);
    }
};

// ---- Feature policy ---------------------------------------------------------------------------

struct FeatureCase {
    const char* name;
    std::string text;
    bool parsed;
    bool enabled;
    const char* error;  // the one module error line expected, or null for none
};

const std::string kGoodTask = R"({"monitor_list":[{"port":8080,"type":0}],"task_condition":{}})";

class FeaturePolicyTable : public PolicyTest, public ::testing::WithParamInterface<FeatureCase> {};

TEST_P(FeaturePolicyTable, ResultSwitchAndMessage) {
    const FeatureCase& c = GetParam();
    Engine::PortScanPolicy policy("portscan_info_collect");

    EXPECT_EQ(c.parsed, policy.Parse(c.text));
    EXPECT_EQ(c.enabled, policy.IsPortScanEnable());
    // The child exists exactly when detection is on.
    EXPECT_EQ(c.enabled ? 1u : 0u, policy.GetChildren().size());
    const std::vector<std::string> errors = ModuleErrors();
    if (c.error == nullptr) {
        EXPECT_TRUE(errors.empty()) << errors.front();
    } else {
        ASSERT_EQ(1u, errors.size());
        EXPECT_EQ(c.error, errors.front());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FeaturePolicyTable,
    ::testing::Values(
        FeatureCase{"NotJson", "{\"content\":", false, false, "Parse Json Error"},
        FeatureCase{"ArrayRoot", "[1,2]", false, false, "Parse Json Error"},
        FeatureCase{"NoContent", R"({"feature_name":"portscan"})", false, false,
                    "[PortScan] Do action (Get policy content) fail!"},
        FeatureCase{"ContentNotObject", R"({"content":"x"})", false, false,
                    "[PortScan] Do action (Get policy content) fail!"},
        FeatureCase{"NoTaskObject", R"({"content":{}})", false, false,
                    "[PortScan] Do action (Get port_scan_task) fail!"},
        // Disabled, yet the missing task object is still an error.
        FeatureCase{"DisabledWithoutTask", R"({"content":{"is_feature_enable":false}})", false, false,
                    "[PortScan] Do action (Get port_scan_task) fail!"},
        FeatureCase{"Disabled",
                    R"({"content":{"is_feature_enable":false,"port_scan_task":)" + kGoodTask + "}}", true,
                    false, nullptr},
        FeatureCase{"TaskPolicyFails", R"({"content":{"port_scan_task":{}}})", true, false,
                    "Parse json monitor_list err"},
        FeatureCase{"Enabled", R"({"content":{"port_scan_task":)" + kGoodTask + "}}", true, true, nullptr}),
    [](const ::testing::TestParamInfo<FeatureCase>& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, FeatureHeaderFieldsAreKeptAndLoggedThroughTheModuleLogger) {
    Engine::PortScanPolicy policy("portscan_info_collect");
    // The header is read before "content" is found missing, and stays.
    EXPECT_FALSE(policy.Parse(R"({"feature_name":"portscan","hash":"h1","enabled":false})"));
    EXPECT_EQ("portscan", policy.GetName());
    EXPECT_EQ("h1", policy.GetHash());
    EXPECT_FALSE(policy.IsEnabled());

    const std::vector<Poco::Message> messages = Recorder().Messages();
    ASSERT_EQ(1u, messages.size());
    EXPECT_EQ(kModuleLogger, messages[0].getSource());
    ASSERT_NE(nullptr, messages[0].getSourceFile());
    EXPECT_STREQ("PortScanPolicy.cpp", messages[0].getSourceFile());
    EXPECT_GT(messages[0].getSourceLine(), 0);
}

TEST_F(PolicyTest, FeatureHeaderDefaults) {
    Engine::PortScanPolicy policy("portscan_info_collect");
    policy.SetEnabled(false);
    ASSERT_TRUE(policy.Parse(R"({"content":{"port_scan_task":)" + kGoodTask + "}}"));
    EXPECT_EQ("", policy.GetName());
    EXPECT_EQ("", policy.GetHash());
    EXPECT_TRUE(policy.IsEnabled());
}

// ---- Task policy ------------------------------------------------------------------------------

struct TaskCase {
    const char* name;
    std::string text;
    bool parsed;
    const char* error;  // the one module error line expected, or null for none
};

class TaskPolicyTable : public PolicyTest, public ::testing::WithParamInterface<TaskCase> {};

TEST_P(TaskPolicyTable, ResultAndMessage) {
    const TaskCase& c = GetParam();
    Engine::PortScanTaskPolicy policy("port_scan_task");

    EXPECT_EQ(c.parsed, policy.Parse(c.text));
    const std::vector<std::string> errors = ModuleErrors();
    if (c.error == nullptr) {
        EXPECT_TRUE(errors.empty()) << errors.front();
    } else {
        ASSERT_EQ(1u, errors.size());
        EXPECT_EQ(c.error, errors.front());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, TaskPolicyTable,
    ::testing::Values(
        TaskCase{"NotJson", "{\"monitor_list\":[", false, "[PortScan] policy format err!"},
        // Only text that is no JSON at all is a format error; other roots fail on the missing list.
        TaskCase{"ArrayRoot", "[]", false, "Parse json monitor_list err"},
        TaskCase{"NoMonitorList", R"({"task_condition":{}})", false, "Parse json monitor_list err"},
        TaskCase{"MonitorListNotArray", R"({"monitor_list":{"port":1},"task_condition":{}})", false,
                 "Parse json monitor_list err"},
        TaskCase{"FiftyOnePorts", R"({"monitor_list":)" + MonitorList(51) + R"(,"task_condition":{}})", false,
                 "Ports' num exceed the maximum"},
        TaskCase{"FiftyPorts", R"({"monitor_list":)" + MonitorList(50) + R"(,"task_condition":{}})", true,
                 nullptr},
        TaskCase{"EmptyList", R"({"monitor_list":[],"task_condition":{}})", true, nullptr},
        TaskCase{"BadWhiteList", R"({"monitor_list":[],"white_ip_list":"abc","task_condition":{}})", false,
                 "[!] Parse policy failed in parse_ip_ranges."},
        TaskCase{"NoTaskCondition", R"({"monitor_list":[{"port":80,"type":0}],"white_ip_list":"10.0.0.1"})",
                 false, "Parse task_condition failed."},
        TaskCase{"TaskConditionNotObject", R"({"monitor_list":[],"task_condition":[]})", false,
                 "Parse task_condition failed."},
        // Refused by the runtime's condition parser, which reports on its own logger.
        TaskCase{"TaskConditionUnknownKey", R"({"monitor_list":[],"task_condition":{"no_such_key":1}})",
                 false, nullptr},
        TaskCase{"TaskConditionAccepted", R"({"monitor_list":[],"task_condition":{"start_delay_s":5}})", true,
                 nullptr}),
    [](const ::testing::TestParamInfo<TaskCase>& info) { return std::string(info.param.name); });

TEST_F(PolicyTest, RejectedConditionFailsTheFeature) {
    Engine::PortScanPolicy policy("portscan_info_collect");
    EXPECT_TRUE(policy.Parse(
        R"({"content":{"port_scan_task":{"monitor_list":[],"task_condition":{"start_delay_s":"soon"}}}})"));
    EXPECT_FALSE(policy.IsPortScanEnable());
    EXPECT_TRUE(policy.GetChildren().empty());
}

TEST_F(PolicyTest, TaskPolicyDefaults) {
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(R"({"monitor_list":[],"task_condition":{}})"));
    EXPECT_TRUE(policy.GetPolicyPortSet().empty());
    EXPECT_TRUE(policy.GetWhileIpList().empty());
    EXPECT_EQ(20u, policy.GetMaxPortPkgNum());
    EXPECT_EQ(4u, policy.GetPortMaxIpNum());
    EXPECT_EQ(1u, policy.GetMaxLogNum());
    EXPECT_EQ(1000u, policy.GetMaxPktCount());
    EXPECT_FALSE(policy.IsBindMasterIntf());
    EXPECT_FALSE(policy.IsChkBeforAlarm());
    EXPECT_TRUE(policy.IsPortScanEnable());
}

TEST_F(PolicyTest, TaskPolicyExplicitValues) {
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(R"({"monitor_list":[],"white_ip_list":"10.1.1.1, 192.168.0.0/16",
        "port_package_max_num":7,"port_ip_max_num":2,"alarm_max_num":3,"package_max_num":50,
        "only_master_interface":true,"check_port_before_alarm":true,"enable":false,"task_condition":{}})"));
    EXPECT_EQ(7u, policy.GetMaxPortPkgNum());
    EXPECT_EQ(2u, policy.GetPortMaxIpNum());
    EXPECT_EQ(3u, policy.GetMaxLogNum());
    EXPECT_EQ(50u, policy.GetMaxPktCount());
    EXPECT_TRUE(policy.IsBindMasterIntf());
    EXPECT_TRUE(policy.IsChkBeforAlarm());
    EXPECT_FALSE(policy.IsPortScanEnable());
    EXPECT_EQ(2u, policy.GetWhileIpList().size());
}

struct MonitorCase {
    const char* name;
    const char* list;
    std::set<Pair> records;
};

class MonitorListTable : public PolicyTest, public ::testing::WithParamInterface<MonitorCase> {};

TEST_P(MonitorListTable, Records) {
    const MonitorCase& c = GetParam();
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(std::string(R"({"monitor_list":)") + c.list + R"(,"task_condition":{}})"));
    EXPECT_EQ(c.records, Pairs(policy));
    EXPECT_EQ(c.records.size(), policy.GetPolicyPortSet().size());
    for (const Engine::PortInfoNode& node : policy.GetPolicyPortSet()) {
        EXPECT_EQ(0, node.alarmNum);
        EXPECT_EQ(0u, node.ipNum);
        EXPECT_EQ(0u, node.pkgNum);
        EXPECT_FALSE(node.isUsed);
        EXPECT_TRUE(node.alarmInfos.empty());
        EXPECT_TRUE(node.remoteIps.empty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, MonitorListTable,
    ::testing::Values(MonitorCase{"BothProtocols", R"([{"port":22,"type":2}])", {{22, 0}, {22, 1}}},
                      MonitorCase{"Duplicate", R"([{"port":22,"type":0},{"port":22,"type":0}])", {{22, 0}}},
                      MonitorCase{"UnknownTypeStored", R"([{"port":22,"type":7}])", {{22, 7}}},
                      MonitorCase{"MissingFieldsReadAsZero", R"([{"type":1},{}])", {{0, 1}, {0, 0}}},
                      // Only the JSON integer 2 means both.
                      MonitorCase{"TypeTextTwoIsNotBoth", R"([{"port":25,"type":"2"}])", {{25, 0}}},
                      MonitorCase{"NoRangeCheck",
                                  R"([{"port":70000,"type":1},{"port":-1,"type":0}])",
                                  {{70000, 1}, {4294967295u, 0}}},
                      MonitorCase{"EntryNotObject", R"([5,{"port":8,"type":1}])", {{0, 0}, {8, 1}}}),
    [](const ::testing::TestParamInfo<MonitorCase>& info) { return std::string(info.param.name); });

// ---- RefreshAlarmInfo -------------------------------------------------------------------------

Engine::PortInfoNode UpdatedNode(uint32_t port, uint32_t type) {
    Engine::PortInfoNode node(port, type);
    node.alarmNum = 3;
    node.pkgNum = 9;
    node.isUsed = true;
    node.auxValue = 5;
    in_addr address{};
    address.s_addr = inet_addr("10.0.0.7");
    node.remoteIps.push_back(address);
    node.ipNum = 1;
    Engine::AlarmInfo alarm{"TCP", "10.0.0.7", "10.0.0.1", 40000, "SYN", 2};
    node.alarmInfos.push_back(alarm);
    return node;
}

TEST_F(PolicyTest, RefreshAlarmInfoFindsARecordTheSetsOwnSearchMisses) {
    Engine::PortScanTaskPolicy policy("port_scan_task");
    // Inserted in this order, (80, UDP) ends up where the set's own search does not look.
    ASSERT_TRUE(
        policy.Parse(R"({"monitor_list":[{"port":443,"type":0},{"port":80,"type":1}],"task_condition":{}})"));
    ASSERT_EQ(policy.GetPolicyPortSet().end(), policy.GetPolicyPortSet().find(Engine::PortInfoNode(80, 1)))
        << "the record ordering no longer scrambles this set; pick another insertion order";

    policy.RefreshAlarmInfo(UpdatedNode(80, 1));

    EXPECT_EQ(2u, policy.GetPolicyPortSet().size());
    const Engine::PortInfoNode* node = Walk(policy, 80, 1);
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(3, node->alarmNum);
    EXPECT_EQ(9u, node->pkgNum);
    EXPECT_EQ(1u, node->ipNum);
    EXPECT_TRUE(node->isUsed);
    EXPECT_EQ(0u, node->auxValue);
    ASSERT_EQ(1u, node->alarmInfos.size());
    EXPECT_EQ("10.0.0.7", node->alarmInfos[0].remoteAddress);
    ASSERT_EQ(1u, node->remoteIps.size());
    // The other record is untouched.
    const Engine::PortInfoNode* other = Walk(policy, 443, 0);
    ASSERT_NE(nullptr, other);
    EXPECT_EQ(0, other->alarmNum);
    EXPECT_EQ(1u, Recorder().Count("[PortScan] refresh alarm info, port = [80]"));
}

TEST_F(PolicyTest, RefreshAlarmInfoIgnoresAPairThePolicyDoesNotName) {
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(R"({"monitor_list":[{"port":8080,"type":0}],"task_condition":{}})"));

    policy.RefreshAlarmInfo(UpdatedNode(8080, 1));
    policy.RefreshAlarmInfo(UpdatedNode(8081, 0));

    EXPECT_EQ((std::set<Pair>{{8080, 0}}), Pairs(policy));
    EXPECT_EQ(0, Walk(policy, 8080, 0)->alarmNum);
    EXPECT_EQ(1u, Recorder().Count("[PortScan] refresh alarm info, port = [8080]"));
}

// ---- The shipped default policy ---------------------------------------------------------------

TEST_F(PolicyTest, ShippedPolicyEnablesDetection) {
    std::ifstream file(PORTSCAN_SHIPPED_POLICY);
    ASSERT_TRUE(file.good()) << PORTSCAN_SHIPPED_POLICY;
    std::stringstream text;
    text << file.rdbuf();

    Engine::PortScanPolicy policy("portscan_info_collect");
    ASSERT_TRUE(policy.Parse(text.str()));
    ASSERT_TRUE(policy.IsPortScanEnable());
    EXPECT_TRUE(ModuleErrors().empty());
    EXPECT_EQ("portscan", policy.GetName());
    EXPECT_FALSE(policy.GetHash().empty());

    auto* task = dynamic_cast<Engine::PortScanTaskPolicy*>(policy.FindChild("port_scan_task"));
    ASSERT_NE(nullptr, task);
    // Without the check no packet is ever counted.
    EXPECT_TRUE(task->IsChkBeforAlarm());
    EXPECT_FALSE(task->IsBindMasterIntf());
    EXPECT_TRUE(task->GetWhileIpList().empty());
    EXPECT_EQ(20u, task->GetMaxPortPkgNum());
    EXPECT_EQ(4u, task->GetPortMaxIpNum());
    EXPECT_EQ(1u, task->GetMaxLogNum());
    EXPECT_EQ(1000u, task->GetMaxPktCount());
    EXPECT_FALSE(task->GetPolicyPortSet().empty());
    for (const Engine::PortInfoNode& node : task->GetPolicyPortSet()) {
        // Servers run ssh: watching it would report their own clients.
        EXPECT_NE(22u, node.port);
        EXPECT_GT(node.port, 0u);
        EXPECT_LT(node.port, 65536u);
        EXPECT_LE(node.type, 1u);
    }
}

}  // namespace
