// The task policy's lint and schema, and the module's answers for its own key.
#include "PortScanModule.h"
#include "PortScanPolicySchema.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <functional>

namespace {

// A task policy with the shipped settings, changed by `edit`.
Json::Value TaskWith(const std::function<void(Json::Value&)>& edit) {
    Json::Value policy;
    Json::Reader().parse(R"({"content": {"port_scan_task": {"monitor_list": [{"port": 21, "type": 0},
        {"port": 22, "type": 0}, {"port": 80, "type": 0}, {"port": 5353, "type": 1}], "white_ip_list": "",
        "check_port_before_alarm": true, "only_master_interface": false, "enable": true, "task_condition": {}}}})",
                         policy);
    edit(policy["content"]["port_scan_task"]);
    return policy["content"]["port_scan_task"];
}

void Watch(Json::Value& task, int port, int type) {
    Json::Value& entry = task["monitor_list"].append(Json::Value());
    entry["port"] = port, entry["type"] = type;
}

TEST(PolicySchemaTest, EachIneffectiveSettingIsNamedOnce) {
    // 239 ports: with 2 rules per address and 10 more the capture filter needs 255 at 3 addresses.
    const auto ports239 = [](Json::Value& t) {
        for (int port = 1000; port < 1000 + 235; ++port) {
            Watch(t, port, 0);
        }
    };
    // what, the change to the shipped settings, local addresses, the one finding (null: none)
    const std::tuple<const char*, std::function<void(Json::Value&)>, int, const char*> cases[] = {
        {"UDP low", [](Json::Value& t) { Watch(t, 53, 1); }, 3, "UDP port 53 is numbered below TCP port 80"},
        {"no check before alarm", [](Json::Value& t) { t["check_port_before_alarm"] = false; }, 3,
         "\"check_port_before_alarm\" is false or missing"},
        {"check before alarm missing", [](Json::Value& t) { t.removeMember("check_port_before_alarm"); }, 3,
         "\"check_port_before_alarm\" is false or missing"},
        {"master interface", [](Json::Value& t) { t["only_master_interface"] = true; }, 3,
         "\"only_master_interface\" true never binds"},
        {"mask read as a dotted mask", [](Json::Value& t) { t["white_ip_list"] = "10.0.0.1/100"; }, 3,
         "\"10.0.0.1/100\": the mask \"100\" is read as a dotted mask of 0 leading one bit(s), which "
         "white-lists every address"},
        {"mask with a gap", [](Json::Value& t) { t["white_ip_list"] = "10.0.0.0/8, 10.1.0.0/255.0.255.0"; },
         3, "which white-lists a /8 block"},
        {"proper masks and ranges",
         [](Json::Value& t) {
             t["white_ip_list"] = "all, 10.0.0.0/24,10.1.0.0/255.255.0.0, 10.2.0.1-10.2.0.9/255.255.255.255";
         },
         3, nullptr},
        {"empty monitor list", [](Json::Value& t) { t["monitor_list"] = Json::Value(Json::arrayValue); }, 3,
         "\"monitor_list\" names no port"},
        {"twice", [](Json::Value& t) { Watch(t, 22, 0); }, 3,
         "port 22 appears in 2 \"monitor_list\" entries"},
        {"filter within reach", ports239, 3, nullptr},
        {"filter beyond reach", ports239, 4, "watch at most 237 ports on this host"},
        {"misspelt key", [](Json::Value& t) { t["alarm_max_nun"] = 0; }, 3, "unknown key \"alarm_max_nun\""},
    };
    for (const auto& [what, edit, addresses, finding] : cases) {
        SCOPED_TRACE(what);
        const auto findings = Engine::LintTaskPolicy(TaskWith(edit), addresses);
        if (finding == nullptr) {
            EXPECT_TRUE(findings.empty()) << findings.front();
            continue;
        }
        ASSERT_EQ(findings.size(), 1u) << (findings.empty() ? "" : findings.back());
        EXPECT_NE(findings[0].find(finding), std::string::npos) << findings[0];
    }
}

// The shipped policy (UDP below TCP with the exact lookup, all opt-in keys) passes, alone and via the module.
TEST(PolicySchemaTest, ShippedPolicyPassesAndTheModuleAnswersForItsOwnKey) {
    const std::string text = TestSupport::ReadFile(SHIPPED_POLICY);
    Json::Value policy;
    ASSERT_TRUE(Json::Reader().parse(text, policy));
    EXPECT_TRUE(Engine::LintTaskPolicy(policy["content"]["port_scan_task"], 16).empty());
    EXPECT_EQ(policy["content"]["port_scan_task"]["alarm_max_num"], 0) << "a single probe must alarm";
    Engine::PortScanModule module;
    EXPECT_TRUE(module.LintPolicy("10001", text).empty());
    std::string misspelt = text;
    misspelt.replace(misspelt.find("\"alarm_max_num\""), 15, "\"alarm_max_nun\"");
    const auto findings = module.LintPolicy("10001", misspelt);
    ASSERT_EQ(findings.size(), 1u);
    EXPECT_NE(findings[0].find("unknown key \"alarm_max_nun\""), std::string::npos) << findings[0];
    EXPECT_TRUE(module.LintPolicy("90001", misspelt).empty());
    // Not the lint's to judge: the module reports its own syntax errors when the policy arrives.
    EXPECT_TRUE(module.LintPolicy("10001", "{\"content\": ").empty());
    EXPECT_TRUE(module.LintPolicy("10001", "{\"content\": {\"other_task\": {}}}").empty());
    EXPECT_EQ(module.GetPolicySchema("10001").size(), Engine::TaskPolicyKeys().size());
    // What the module would give up is refused before delivery, so its last good policy stays.
    EXPECT_EQ(module.RefusalOf("10001", "port_scan_task: on"), "not a JSON object");
    EXPECT_EQ(module.RefusalOf("10001", R"({"content": {"port_scan_task": {"monitor_list": {}}}})"),
              "\"port_scan_task\".\"monitor_list\" is missing or not an array");
    EXPECT_EQ(module.RefusalOf("10001", R"({"content": {"is_feature_enable": false, "port_scan_task": {}}})"),
              "");
    EXPECT_EQ(module.RefusalOf("90001", "port_scan_task: on"), "");
    EXPECT_TRUE(module.GetPolicySchema("90001").empty());
}

}  // namespace
