// The config reader as a pure function: text in, config or one problem line out.
#include "AgentConfig.h"
#include "PolicyFile.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace HostAgent;

constexpr const char* kFile = "/etc/hostagent/agent.json";

const std::string kDeep = std::string(1001, '[') + std::string(1001, ']');  // past the reader's 1000 levels

TEST(AgentConfigTest, EachProblemNamesTheFileAndTheKey) {
    const struct {
        std::string text;
        const char* problem;
    } cases[] = {
        {R"({"modules": ["m.so"],)", "not valid JSON"},
        {R"({"module": ["m.so"]})", "unknown key \"module\""},
        // A key with a line break cannot forge a line of its own.
        {"{\"module\nconfiguration OK\": 1}", "unknown key \"module\\x0aconfiguration OK\""},
        {R"({"log": {"level": "loud"}})", "\"log.level\": unknown level \"loud\""},
        {R"({"cpu_limit_percent": 101})", "\"cpu_limit_percent\" must be an integer 0..100, not 101"},
        {R"({"connect": ["host"]})", "\"connect[0]\": \"host\" is not of the form address:port"},
        {R"({"report": {"sinks": []}})", "must name at least one sink"},
        {R"({"report": {"sinks": [{"type": "pipe"}]}})", "unknown sink type \"pipe\""},
        {R"({"report": {"sinks": [{"type": "stdout", "path": "x"}]}})",
         "unknown key \"report.sinks[0].path\""},
        {R"({"report": {"sinks": [{"type": "syslog", "spool": "s"}]}})",
         "\"report.sinks[0].spool\" needs \"address\""},
        {R"({"report": {"sinks": [{"type": "syslog", "address": "c:70000"}]}})", "not of the form host:port"},
        {R"({"report": {"sinks": [{"type": "syslog", "address": "c:514", "spool": "s"}]}})",
         "needs \"protocol\": \"tcp\""},
        {R"({"report": {"sinks": [{"type": "syslog", "address": "c:514", "protocol": "tcp",
             "spool_max_bytes": 100}]}})",
         "must be an integer 65536..1073741824"},
        {R"({"report": {"sinks": [{"type": "syslog", "address": "c:514", "protocol": "tls"}]}})",
         "unknown protocol \"tls\""},
        {R"({"report": {"sinks": [{"type": "file", "path": "a"}, {"type": "file", "path": "a"}]}})",
         "is listed twice"},
        {R"({"supervisor": {"restart_delay_s": 0}})",
         "\"supervisor.restart_delay_s\" must be an integer 1..86400"},
        {R"({"supervisor": {"renew_after_s": 31536001}})", "must be an integer 0..31536000"},
        {"{\"log\": " + kDeep + "}", "nested too deeply"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 120));
        AgentConfig config;
        std::string error;
        EXPECT_FALSE(ParseAgentConfig(kFile, c.text, config, error));
        EXPECT_EQ(error.rfind(std::string(kFile) + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.problem), std::string::npos) << error;
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
    }
}

TEST(AgentConfigTest, ValidConfigTakesDefaultsAndResolvesPaths) {
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(ParseAgentConfig(kFile,
                                 R"({"log": {"file": "log/agent.log"}, "supervisor": {"renew_after_s": 0},
        "report": {"sinks": [{"type": "syslog"}, {"type": "syslog", "address": "[::1]:514"},
            {"type": "syslog", "address": "c:601", "protocol": "tcp", "spool": "s", "spool_max_bytes": 65536}]}})",
                                 config, error))
        << error;
    EXPECT_EQ(config.log.file, "/etc/hostagent/log/agent.log");
    EXPECT_EQ(config.statusFile, "/etc/hostagent/log/hostagent.status.json");
    EXPECT_EQ(config.restartDelaySeconds, 60);
    EXPECT_EQ(config.renewAfterSeconds, 0);
    ASSERT_EQ(config.sinks.size(), 3u);
    EXPECT_EQ(config.sinks[0].path, "/dev/log");
    EXPECT_EQ(config.sinks[1].transport, Engine::ReportSink::Transport::Udp);
    EXPECT_EQ(config.sinks[2].transport, Engine::ReportSink::Transport::Tcp);
    EXPECT_EQ(config.sinks[2].spool, "/etc/hostagent/s");
    EXPECT_EQ(config.sinks[2].spoolMaxBytes, 65536u);

    ASSERT_TRUE(ParseAgentConfig(kFile, "{}", config, error)) << error;
    ASSERT_EQ(config.sinks.size(), 1u);
    EXPECT_EQ(config.sinks[0].kind, Engine::ReportSink::Kind::Stdout);
    EXPECT_EQ(config.statusFile, "/etc/hostagent/hostagent.status.json");
}

// What --check-config reads beyond the config: the module files, then each policy file and its text.
TEST(AgentConfigTest, MissingFilesAndPoliciesThatAreNoObjectAreNamed) {
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(ParseAgentConfig(kFile, R"({"modules": ["none.so"]})", config, error)) << error;
    EXPECT_FALSE(CheckModuleFiles(config, error));
    EXPECT_EQ(error, std::string(kFile) + ": module file /etc/hostagent/none.so does not exist");
    std::string text;
    EXPECT_FALSE(ReadPolicyFile("/nonexistent/none.json", text, error));
    EXPECT_EQ(error, "No such file or directory");
    for (const auto& [policy, problem] : {std::pair<std::string, const char*>{"[1]", "not a JSON object"},
                                          {"{\"a\": " + kDeep + "}", "nested too deeply"}}) {
        EXPECT_FALSE(CheckPolicyText(policy, error));
        EXPECT_NE(error.find(problem), std::string::npos) << error;
    }
}

}  // namespace
