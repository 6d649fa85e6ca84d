#include "AgentConfig.h"

#include "TestFiles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace AgentTest {
namespace {

using HostAgent::AgentConfig;
using Kind = Engine::ReportSink::Kind;

const std::string kConfigPath = "/etc/hostagent/conf/agent.json";

TEST(AgentConfigTest, ParsesEveryKeyAndAnchorsRelativePathsAtTheConfigFolder) {
    const std::string text = R"({
        "log": { "level": "debug", "console": false, "file": "../var/log/hostagent.log" },
        "connect": [ "127.0.0.1:443", "[::1]:8443" ],
        "cpu_limit_percent": 30,
        "modules": [ "../lib/libone.so", "/opt/mods/libtwo.so" ],
        "policies": { "10001": "policies/portscan.json", "20002": "/srv/p.json" },
        "report": { "sinks": [ { "type": "stdout" }, { "type": "file", "path": "../var/alarms.jsonl" } ] }
    })";
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(HostAgent::ParseAgentConfig(kConfigPath, text, config, error)) << error;

    EXPECT_EQ(config.file, kConfigPath);
    EXPECT_EQ(config.log.level, "debug");
    EXPECT_FALSE(config.log.console);
    EXPECT_EQ(config.log.file, "/etc/hostagent/var/log/hostagent.log");
    EXPECT_EQ(config.connect, (std::vector<std::string>{"127.0.0.1:443", "[::1]:8443"}));
    EXPECT_EQ(config.cpuLimitPercent, 30);
    EXPECT_EQ(config.modules,
              (std::vector<std::string>{"/etc/hostagent/lib/libone.so", "/opt/mods/libtwo.so"}));
    ASSERT_EQ(config.policies.size(), 2u);
    EXPECT_EQ(config.policies[0].key, "10001");
    EXPECT_EQ(config.policies[0].path, "/etc/hostagent/conf/policies/portscan.json");
    EXPECT_EQ(config.policies[1].key, "20002");
    EXPECT_EQ(config.policies[1].path, "/srv/p.json");
    ASSERT_EQ(config.sinks.size(), 2u);
    EXPECT_EQ(config.sinks[0].kind, Kind::Stdout);
    EXPECT_EQ(config.sinks[1].kind, Kind::File);
    EXPECT_EQ(config.sinks[1].path, "/etc/hostagent/var/alarms.jsonl");
}

TEST(AgentConfigTest, AnEmptyObjectGivesTheDefaults) {
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(HostAgent::ParseAgentConfig(kConfigPath, "{}", config, error)) << error;
    EXPECT_EQ(config.log.level, "information");
    EXPECT_TRUE(config.log.console);
    EXPECT_EQ(config.log.file, "");
    EXPECT_TRUE(config.connect.empty());
    EXPECT_EQ(config.cpuLimitPercent, 0);
    EXPECT_TRUE(config.modules.empty());
    EXPECT_TRUE(config.policies.empty());
    ASSERT_EQ(config.sinks.size(), 1u);
    EXPECT_EQ(config.sinks[0].kind, Kind::Stdout);
}

struct BrokenCase {
    const char* text;
    const char* problem;  // must appear in the message
};

TEST(AgentConfigTest, RefusesBrokenConfigsNamingTheFileAndTheProblem) {
    const BrokenCase cases[] = {
        {R"({"log": {"level": "debug"})", "not valid JSON"},
        {R"({"modules": []} trailing)", "not valid JSON"},
        {R"({"cpu_limit_percent": 1, "cpu_limit_percent": 2})", "Duplicate key: 'cpu_limit_percent'"},
        {R"([1, 2])", "must be a JSON object"},
        {R"({"colour": "red"})", "unknown key \"colour\""},
        {R"({"log": {"level": "debug", "rotate": true}})", "unknown key \"log.rotate\""},
        {R"({"log": "debug"})", "\"log\" must be an object"},
        {R"({"log": {"level": "loud"}})", "unknown level \"loud\""},
        {R"({"log": {"level": 7}})", "\"log.level\" must be a string"},
        {R"({"log": {"console": "yes"}})", "\"log.console\" must be true or false"},
        {R"({"log": {"file": 1}})", "\"log.file\" must be a string"},
        {R"({"cpu_limit_percent": 101})", "\"cpu_limit_percent\" must be an integer 0..100"},
        {R"({"cpu_limit_percent": -1})", "\"cpu_limit_percent\" must be an integer 0..100"},
        {R"({"cpu_limit_percent": "50"})", "\"cpu_limit_percent\" must be an integer 0..100"},
        {R"({"cpu_limit_percent": 2.5})", "\"cpu_limit_percent\" must be an integer 0..100"},
        {R"({"connect": "127.0.0.1:443"})", "\"connect\" must be an array"},
        {R"({"connect": ["127.0.0.1"]})", "\"connect[0]\""},
        {R"({"connect": ["127.0.0.1:443", "host:0"]})", "\"connect[1]\""},
        {R"({"connect": ["host:70000"]})", "address:port"},
        {R"({"connect": [":443"]})", "address:port"},
        {R"({"connect": [443]})", "\"connect[0]\" must be a string"},
        {R"({"modules": "lib.so"})", "\"modules\" must be an array"},
        {R"({"modules": [""]})", "\"modules[0]\" must not be empty"},
        {R"({"modules": ["a.so", "./a.so"]})", "listed twice"},
        {R"({"policies": ["p.json"]})", "\"policies\" must be an object"},
        {R"({"policies": {"10001": 5}})", "\"policies.10001\" must be a string"},
        {R"({"report": {}})", "\"report.sinks\" is missing"},
        {R"({"report": {"sinks": []}})", "at least one sink"},
        {R"({"report": {"sinks": [{"type": "syslog"}]}})", "unknown sink type \"syslog\""},
        {R"({"report": {"sinks": [{"path": "a.jsonl"}]}})", "\"report.sinks[0].type\" is missing"},
        {R"({"report": {"sinks": [{"type": "file"}]}})", "\"report.sinks[0].path\" is missing"},
        {R"({"report": {"sinks": [{"type": "stdout", "path": "x"}]}})",
         "unknown key \"report.sinks[0].path\""},
        {R"({"report": {"sinks": [{"type": "stdout"}, {"type": "stdout"}]}})", "listed twice"},
        {R"({"report": {"sinks": [{"type": "file", "path": "a"}, {"type": "file", "path": "./a"}]}})",
         "listed twice"},
        {R"({"report": {"sinks": [], "format": "csv"}})", "unknown key \"report.format\""},
    };
    for (const BrokenCase& c : cases) {
        AgentConfig config;
        std::string error;
        EXPECT_FALSE(HostAgent::ParseAgentConfig(kConfigPath, c.text, config, error)) << c.text;
        EXPECT_EQ(error.rfind(kConfigPath + ": ", 0), 0u) << c.text << " -> " << error;
        EXPECT_NE(error.find(c.problem), std::string::npos) << c.text << " -> " << error;
    }
}

TEST(AgentConfigTest, ChecksTheFilesTheConfigNames) {
    TempFolder folder;
    WriteFile(folder / "lib/libmod.so", "not really a library, but a file");
    WriteFile(folder / "good.json", R"({"feature_name": "x"})");
    WriteFile(folder / "array.json", "[]");
    WriteFile(folder / "broken.json", "{\"a\": ");
    WriteFile(folder / "empty.json", "");
    std::filesystem::create_directories(folder / "dir.so");

    struct FileCase {
        const char* what;
        std::string module;   // "" for none
        std::string policy;   // "" for none
        const char* problem;  // "" when the files are fine
    };
    const FileCase cases[] = {
        {"all fine", "lib/libmod.so", "good.json", ""},
        {"missing module", "lib/libnone.so", "", "libnone.so does not exist"},
        {"module is a folder", "dir.so", "", "dir.so is not a regular file"},
        {"missing policy", "", "none.json", "none.json: No such file or directory"},
        {"policy not an object", "", "array.json", "array.json: not a JSON object"},
        {"policy not JSON", "", "broken.json", "broken.json: not valid JSON"},
        {"empty policy", "", "empty.json", "empty.json: empty file"},
    };
    for (const FileCase& c : cases) {
        SCOPED_TRACE(c.what);
        std::string text = "{";
        if (!c.module.empty()) {
            text += "\"modules\": [\"" + c.module + "\"]";
        }
        if (!c.policy.empty()) {
            text +=
                std::string(c.module.empty() ? "" : ", ") + "\"policies\": {\"10001\": \"" + c.policy + "\"}";
        }
        text += "}";
        std::string configPath = (folder / "agent.json").string();
        WriteFile(configPath, text);
        AgentConfig config;
        std::string error;
        ASSERT_TRUE(HostAgent::LoadAgentConfig(configPath, config, error)) << error;
        bool ok = HostAgent::CheckModuleFiles(config, error) && HostAgent::CheckPolicyFiles(config, error);
        if (std::string(c.problem).empty()) {
            EXPECT_TRUE(ok) << error;
            continue;
        }
        EXPECT_FALSE(ok);
        EXPECT_NE(error.find(c.problem), std::string::npos) << error;
        EXPECT_NE(error.find(configPath), std::string::npos) << error;
    }
}

TEST(AgentConfigTest, LoadNamesAConfigFileThatCannotBeRead) {
    AgentConfig config;
    std::string error;
    EXPECT_FALSE(HostAgent::LoadAgentConfig("/nonexistent/agent.json", config, error));
    EXPECT_NE(error.find("/nonexistent/agent.json: cannot read the config file"), std::string::npos) << error;
}

TEST(AgentConfigTest, ShippedConfigIsValid) {
    const std::string shipped = std::string(HOSTAGENT_SOURCE_DIR) + "/config/agent.json";
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(HostAgent::LoadAgentConfig(shipped, config, error)) << error;
    const std::string root = HOSTAGENT_SOURCE_DIR;
    EXPECT_EQ(config.modules, (std::vector<std::string>{root + "/build/lib/libportscan_module.so"}));
    ASSERT_EQ(config.policies.size(), 1u);
    EXPECT_EQ(config.policies[0].key, "10001");
    EXPECT_EQ(config.log.file, root + "/var/log/hostagent.log");
    ASSERT_EQ(config.connect.size(), 1u);
    EXPECT_EQ(config.connect[0].rfind("127.", 0), 0u) << "the shipped endpoint must be loopback";
    ASSERT_EQ(config.sinks.size(), 2u);
    EXPECT_EQ(config.sinks[1].path, root + "/var/alarms.jsonl");
    EXPECT_TRUE(HostAgent::CheckPolicyFiles(config, error)) << error;
}

}  // namespace
}  // namespace AgentTest
