// The config reader as a pure function (text in, config or one problem line out), and the checks of
// the files the config names.
#include "AgentConfig.h"
#include "PolicyFile.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

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
    ASSERT_EQ(config.sinks.size(), 3u);
    EXPECT_EQ(config.sinks[1].transport, Engine::ReportSink::Transport::Udp);
    EXPECT_EQ(config.sinks[2].transport, Engine::ReportSink::Transport::Tcp);
    EXPECT_EQ(config.sinks[2].spool, "/etc/hostagent/s");

    ASSERT_TRUE(ParseAgentConfig(kFile, "{}", config, error)) << error;
    ASSERT_EQ(config.sinks.size(), 1u);
    EXPECT_EQ(config.sinks[0].kind, Engine::ReportSink::Kind::Stdout);
    EXPECT_EQ(config.statusFile, "/etc/hostagent/hostagent.status.json");
}

// What --check-config reads beyond the config: the module files, then each policy's text (a policy
// file it cannot read: AgentProcessTest).
TEST(AgentConfigTest, MissingModulesAndPoliciesThatAreNoObjectAreNamed) {
    AgentConfig config;
    std::string error;
    ASSERT_TRUE(ParseAgentConfig(kFile, R"({"modules": ["none.so"]})", config, error)) << error;
    EXPECT_FALSE(CheckModuleFiles(config, error));
    EXPECT_EQ(error, std::string(kFile) + ": module file /etc/hostagent/none.so does not exist");
    EXPECT_FALSE(CheckPolicyText("[1]", error));
    EXPECT_EQ(error, "not a JSON object");
}

// The config, a module and a policy file, and the folders above them, must be safe from other users.
TEST(AgentConfigTest, FilesOtherUsersCanChangeAreRefusedWithTheFix) {
    // `unsafe` given `mode` or to another user: the problem's words before the path at fault ("": none).
    for (const auto& [unsafe, mode, chownToOther, prefix] :
         {std::tuple{"agent.json", 0666, false, "unsafe: "},
          {"module.so", 0777, false, "unsafe: "},
          {"policies/p.json", 0666, false, "unsafe: "},
          {"policies", 0777, false, "unsafe: its folder "},
          {"policies", 01777, false, ""},  // a sticky folder is fine
          {"policies/p.json", 0644, true, "unsafe: "}}) {
        SCOPED_TRACE(std::string(unsafe) + (chownToOther ? " chown" : ""));
        TestSupport::TempDir dir;
        ASSERT_EQ(mkdir(dir.File("policies").c_str(), 0755), 0);
        TestSupport::WriteFile(dir.File("module.so"), "");
        TestSupport::WriteFile(dir.File("policies/p.json"), "{}");
        TestSupport::WriteFile(dir.File("agent.json"),
                               R"({"modules": ["module.so"], "policies": {"90001": "policies/p.json"}})");
        const std::string path = dir.File(unsafe);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        if (chownToOther && chown(path.c_str(), 54321, 54321) != 0) {
            GTEST_SKIP() << "giving a file to another user needs root";
        }
        AgentConfig config;
        std::string error, text;
        const bool accepted = LoadAgentConfig(dir.File("agent.json"), config, error) &&
                              CheckModuleFiles(config, error) &&
                              ReadPolicyFile(config.policies.at(0).path, text, error);
        EXPECT_EQ(accepted, *prefix == '\0') << error;
        const std::string fix = (chownToOther ? "fix: chown root " : "fix: chmod go-w ") + path;
        EXPECT_TRUE(accepted ||
                    (error.find(prefix + path) != std::string::npos && error.find(fix) != std::string::npos))
            << error;
    }
}

}  // namespace
