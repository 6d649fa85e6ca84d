// Every kind of alarm's ECS document against the official field definitions (@elastic/ecs, test-only
// data), including the allowed event.kind, event.category and event.type values and pairs.
#include "EcsDocument.h"
#include "sdk/JsonUtils.h"
#include "support/NetLab.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <vector>

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

bool Has(const Json::Value& array, const Json::Value& value) {
    return std::find(array.begin(), array.end(), value) != array.end();
}

// The allowed value of `field` named `name`; null when there is none.
Json::Value Allowed(const Json::Value& field, const Json::Value& name) {
    const Json::Value& values = field["allowed_values"];
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const Json::Value& value) { return value["name"] == name; });
    return found == values.end() ? Json::Value() : *found;
}

// Each field outside "hostagent" is defined in `flat`, an array exactly when defined so, of its type.
void ExpectFields(const Json::Value& value, const std::string& path, const Json::Value& flat) {
    static const std::regex date(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)");
    if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) {
            if (!path.empty() || key != "hostagent") {
                ExpectFields(value[key], path.empty() ? key : path + "." + key, flat);
            }
        }
        return;
    }
    ASSERT_TRUE(flat.isMember(path)) << path << " is not an ECS field";
    EXPECT_EQ(Has(flat[path]["normalize"], "array"), value.isArray()) << path;
    const std::string type = flat[path]["type"].asString();
    const std::vector<Json::Value> values = value.isArray()
                                                ? std::vector<Json::Value>(value.begin(), value.end())
                                                : std::vector<Json::Value>{value};
    for (const Json::Value& one : values) {
        const std::string text = one.isString() ? one.asString() : "";
        unsigned char address[16];
        if (type == "long" || type == "integer" || type == "short" || type == "byte") {
            EXPECT_TRUE(one.isIntegral()) << path;
        } else if (type == "float" || type == "double" || type == "scaled_float") {
            EXPECT_TRUE(one.isNumeric()) << path;
        } else if (type == "boolean") {
            EXPECT_TRUE(one.isBool()) << path;
        } else {
            EXPECT_TRUE(one.isString() &&
                        (type != "ip" || inet_pton(AF_INET, text.c_str(), address) == 1 ||
                         inet_pton(AF_INET6, text.c_str(), address) == 1) &&
                        (type != "date" || std::regex_match(text, date)))
                << path << " (" << type << "): " << one;
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
    Json::Value ecs;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        ASSERT_TRUE(ToEcsDocument(Parse(c.native), host, ecs));
        ExpectFields(ecs, "", flat);
        EXPECT_FALSE(Allowed(flat["event.kind"], ecs["event"]["kind"]).isNull());
        for (const Json::Value& category : ecs["event"]["category"]) {
            const Json::Value allowed = Allowed(flat["event.category"], category);
            ASSERT_FALSE(allowed.isNull()) << category;
            for (const Json::Value& type : ecs["event"]["type"]) {
                EXPECT_FALSE(Allowed(flat["event.type"], type).isNull()) << type;
                EXPECT_TRUE(Has(allowed["expected_event_types"], type)) << type << " with " << category;
            }
        }
        EXPECT_EQ(ecs["message"].asString(), c.message);
        EXPECT_EQ(ecs["event"]["severity"].asInt(), c.severity);
        EXPECT_EQ(ecs["network"]["transport"].asString(), c.transport);
        EXPECT_EQ(ecs["network"]["type"].asString(), c.type);
        EXPECT_EQ(ecs["event"]["id"], Parse(c.native)["event_id"]);
        EXPECT_EQ(ecs["related"]["ip"].size(), 2u);
    }
    // The last is the summary.
    EXPECT_EQ(ecs["@timestamp"].asString(), "2026-11-21T11:00:09.456Z");
    EXPECT_EQ(ecs["event"]["start"].asString(), "2026-11-21T11:00:00.123Z");
    EXPECT_EQ(ecs["hostagent"]["portscan"]["port_count"].asUInt(), 10u);
    // Anything else is left as it came.
    Json::Value untouched;
    EXPECT_FALSE(ToEcsDocument(Parse(R"({"marker": "x"})"), host, untouched));
    EXPECT_TRUE(untouched.isNull());
}

}  // namespace
