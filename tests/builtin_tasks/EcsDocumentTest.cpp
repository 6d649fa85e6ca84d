// The ECS documents of every kind of alarm, checked field by field against the schema's official
// definitions (@elastic/ecs, fetched for the tests only): every field outside "hostagent" exists with
// its type and array-ness, and event.kind, event.category and event.type are allowed values in
// allowed pairs.
#include "EcsDocument.h"
#include "sdk/JsonUtils.h"
#include "support/NetLab.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <regex>

namespace {

using Engine::EcsHost;
using Engine::ToEcsDocument;

Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root)) << text;
    return root;
}

std::string Alarm(const char* classId, const char* name, const char* flag, const char* protocol,
                  const char* local, const char* remote) {
    return std::string(R"({"attack_phase":1,"attack_tag":1,"confidence":60,"detect_module":"portscan_module",
        "event_category":6000,"event_classid":")") +
           classId + R"(","event_count":1,"event_id":"8a0c4a5e-1b8f-4d4e-9a34-6e0f1c2d3b4a","event_name":")" +
           name + R"(","event_type":6002,"network_info":{"app_protocol":")" + flag +
           R"(","local_address":")" + local + R"(","local_port":3389,"protocol":")" + protocol +
           R"(","remote_address":")" + remote +
           R"(","remote_port":40000},"occur_time":1795258800,"severity":1})";
}

// Leaves of `value` by dotted path; arrays are leaves.
void Flatten(const Json::Value& value, const std::string& path, std::map<std::string, Json::Value>& out) {
    if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) {
            Flatten(value[key], path.empty() ? key : path + "." + key, out);
        }
    } else {
        out[path] = value;
    }
}

bool Allowed(const Json::Value& field, const std::string& name) {
    for (const Json::Value& allowed : field["allowed_values"]) {
        if (allowed["name"] == name) {
            return true;
        }
    }
    return false;
}

// One value against the definition's type.
void ExpectType(const std::string& path, const std::string& type, const Json::Value& value) {
    static const std::regex date(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    if (type == "long" || type == "integer" || type == "short" || type == "byte") {
        EXPECT_TRUE(value.isIntegral()) << path;
    } else if (type == "float" || type == "double" || type == "scaled_float") {
        EXPECT_TRUE(value.isNumeric()) << path;
    } else if (type == "boolean") {
        EXPECT_TRUE(value.isBool()) << path;
    } else {
        ASSERT_TRUE(value.isString()) << path << " is " << type;
        if (type == "ip") {
            unsigned char address[16];
            const std::string text = value.asString();
            EXPECT_TRUE(inet_pton(AF_INET, text.c_str(), address) == 1 ||
                        inet_pton(AF_INET6, text.c_str(), address) == 1)
                << path << ": " << text;
        } else if (type == "date") {
            EXPECT_TRUE(std::regex_match(value.asString(), date)) << path << ": " << value.asString();
        }
    }
}

void ExpectConforms(const Json::Value& ecs, const Json::Value& flat) {
    std::map<std::string, Json::Value> fields;
    Flatten(ecs, "", fields);
    for (const auto& [path, value] : fields) {
        if (path.rfind("hostagent.", 0) == 0) {
            continue;
        }
        SCOPED_TRACE(path);
        ASSERT_TRUE(flat.isMember(path)) << "not an ECS field";
        const Json::Value& field = flat[path];
        bool array = false;
        for (const Json::Value& normalize : field["normalize"]) {
            array = array || normalize == "array";
        }
        EXPECT_EQ(array, value.isArray());
        if (value.isArray()) {
            for (const Json::Value& element : value) {
                ExpectType(path, field["type"].asString(), element);
            }
        } else {
            ExpectType(path, field["type"].asString(), value);
        }
    }
    EXPECT_TRUE(Allowed(flat["event.kind"], ecs["event"]["kind"].asString()));
    for (const Json::Value& category : ecs["event"]["category"]) {
        ASSERT_TRUE(Allowed(flat["event.category"], category.asString())) << category;
        for (const Json::Value& allowed : flat["event.category"]["allowed_values"]) {
            if (allowed["name"] != category) {
                continue;
            }
            for (const Json::Value& type : ecs["event"]["type"]) {
                EXPECT_TRUE(Allowed(flat["event.type"], type.asString())) << type;
                bool expected = false;
                for (const Json::Value& pair : allowed["expected_event_types"]) {
                    expected = expected || pair == type;
                }
                EXPECT_TRUE(expected) << type << " with " << category;
            }
        }
    }
}

TEST(EcsDocumentTest, EveryKindOfAlarmFollowsTheOfficialDefinitions) {
    const std::string flatText = TestSupport::ReadFile(ECS_FLAT_JSON);
    if (flatText.empty()) {
        GTEST_SKIP() << ECS_FLAT_JSON << " is missing: run scripts/install-test-data.sh";
    }
    const Json::Value flat = Parse(flatText);
    const EcsHost host{"web-1", "web-1", {"10.0.0.1", "fd00::1"}, "0.1.0"};
    const struct {
        std::string native;
        const char* message;
        int severity;
        const char* transport;
        const char* type;
    } cases[] = {
        {Alarm("portscan_0002", "Secret port scan", "SYN", "TCP", "10.0.0.1", "10.0.0.5"),
         "Port scan from 10.0.0.5: SYN probe to TCP 3389", 47, "tcp", "ipv4"},
        {Alarm("portscan_0001", "Common port scan", "FIN", "TCP", "10.0.0.1", "10.0.0.5"),
         "Port scan from 10.0.0.5: FIN probe to TCP 3389", 21, "tcp", "ipv4"},
        {Alarm("portscan_0001", "Common port scan", "", "UDP", "10.0.0.1", "192.168.7.7"),
         "Port scan from 192.168.7.7: UDP probe to UDP 3389", 21, "udp", "ipv4"},
        {Alarm("portscan_0002", "Secret port scan", "SYN", "TCP", "fd00:79::1", "fd00:79::2"),
         "Port scan from fd00:79::2: SYN probe to TCP 3389", 47, "tcp", "ipv6"},
        {R"({"attack_phase":1,"attack_tag":1,"confidence":60,"detect_module":"portscan_module","event_category":6000,
            "event_classid":"portscan_0003","event_count":14,"event_id":"1b0c4a5e-1b8f-4d4e-9a34-6e0f1c2d3b4a",
            "event_name":"Port scan summary","event_type":6003,"network_info":{"local_address":"10.0.0.1",
            "protocol":"TCP","remote_address":"10.0.0.5"},"occur_time":1795258809,"scan_summary":{
            "first_probe_ms":1795258800123,"last_probe_ms":1795258809456,"ports":[21,22,23,25,80,110,135,139,443,
            445],"port_count":10,"probe_count":14,"probe_kinds":["SYN"],"protocols":["TCP"]},"severity":1})",
         "Port scan from 10.0.0.5: 10 port(s) of 10.0.0.1 (TCP), 14 probe(s)", 73, "tcp", "ipv4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Json::Value ecs;
        ASSERT_TRUE(ToEcsDocument(Parse(c.native), host, ecs));
        ExpectConforms(ecs, flat);
        EXPECT_EQ(ecs["message"].asString(), c.message);
        EXPECT_EQ(ecs["event"]["severity"].asInt(), c.severity);
        EXPECT_EQ(ecs["network"]["transport"].asString(), c.transport);
        EXPECT_EQ(ecs["network"]["type"].asString(), c.type);
        EXPECT_EQ(ecs["event"]["id"], Parse(c.native)["event_id"]);
        EXPECT_EQ(ecs["related"]["ip"].size(), 2u);
    }
    Json::Value summary;
    ASSERT_TRUE(ToEcsDocument(Parse(cases[4].native), host, summary));
    EXPECT_EQ(summary["@timestamp"].asString(), "2026-11-21T11:00:09.456Z");
    EXPECT_EQ(summary["event"]["start"].asString(), "2026-11-21T11:00:00.123Z");
    EXPECT_EQ(summary["hostagent"]["portscan"]["port_count"].asUInt(), 10u);
    // Anything else is left as it came.
    Json::Value untouched;
    EXPECT_FALSE(ToEcsDocument(Parse(R"({"marker": "x"})"), host, untouched));
    EXPECT_TRUE(untouched.isNull());
}

}  // namespace
