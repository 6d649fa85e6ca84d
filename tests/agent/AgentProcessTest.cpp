// Drives the real hostagent binary with the test module (tests/agent/test_module) loaded.
#include "sdk/JsonUtils.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>

namespace {

using namespace TestSupport;

constexpr Millis kWait(15000);     // generous for sanitizer builds; a pass is quick
constexpr Millis kEditSeen(5000);  // how soon a policy file's edit reaches the module, unsignalled

std::string Policy(const std::string& marker, int count = 1, int burstOnStop = 0) {
    return R"({"marker": ")" + marker + R"(", "count": )" + std::to_string(count) + R"(, "burst_on_stop": )" +
           std::to_string(burstOnStop) + "}";
}

// The test module's events with this marker and kind in a JSON-lines file; other lines fail the test.
std::size_t Count(const std::string& path, const std::string& marker, const std::string& kind) {
    std::size_t count = 0;
    for (const std::string& line : ReadLines(path)) {
        Json::Value event;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), event), 0) << line;
        count += event["marker"] == marker && event["kind"] == kind && event["policy_name"] == "test.json";
    }
    return count;
}

// --check-config on dir/agent.json: its output is one line whatever the result.
RunResult CheckConfig(const TempDir& dir) {
    RunResult check = Run({HOSTAGENT_BIN, "--check-config", "--config", dir.File("agent.json")});
    EXPECT_EQ(std::count(check.output.begin(), check.output.end(), '\n'), 1) << check.output;
    return check;
}

// The agent with the test module, its policy under key "90001", and a stdout and a file sink.
struct Agent {
    explicit Agent(const std::string& policy) {
        WriteFile(m_dir.File("test.json"), policy);
        WriteFile(m_dir.File("agent.json"), R"({"log": {"level": "debug"}, "modules": [")" TEST_MODULE R"("],
            "policies": {"90001": "test.json"},
            "report": {"sinks": [{"type": "stdout"}, {"type": "file", "path": "alarms.jsonl"}]}})");
        m_child = std::make_unique<Child>(
            std::vector<std::string>{HOSTAGENT_BIN, "--config", m_dir.File("agent.json")}, "",
            m_dir.File("stdout"), m_dir.File("stderr"));
    }
    bool WaitFor(const std::string& marker, Millis within = kWait) {
        return WaitUntil([&] { return Count(m_dir.File("alarms.jsonl"), marker, "policy") > 0; }, within);
    }
    std::optional<int> Terminate() {
        m_child->Signal(SIGTERM);
        return m_child->WaitExit(kWait * 2);
    }
    std::string Log() const { return ReadFile(m_dir.File("stderr")); }

    TempDir m_dir;
    std::unique_ptr<Child> m_child;
};

TEST(AgentProcessTest, ReportsEventsAndFollowsPolicyEdits) {
    Agent agent(Policy("first"));
    ASSERT_TRUE(agent.WaitFor("first")) << agent.Log();
    const auto logged = [&](const char* text, Millis within = kWait) {
        return WaitUntil([&] { return agent.Log().find(text) != std::string::npos; }, within);
    };
    // Nested deeper than the JSON reader's limit (1000): reported once, and the agent goes on.
    const std::string policy = agent.m_dir.File("test.json");
    WriteFile(policy, "{\"a\": " + std::string(1001, '[') + std::string(1001, ']') + "}");
    ASSERT_TRUE(logged("nested too deeply")) << agent.Log();
    // Nor is a policy the module would give up delivered: the last good one stays, the status says
    // why (and exits 0: the agent itself is fine).
    WriteFile(policy, R"({"count": 5})");
    ASSERT_TRUE(logged("\"marker\" is missing")) << agent.Log();
    const RunResult status =
        TestSupport::Run({HOSTAGENT_BIN, "--status", "--config", agent.m_dir.File("agent.json")});
    EXPECT_EQ(status.code, 0) << status.output;
    const std::string problem = ": \"marker\" is missing (the policy delivered before stays in force)";
    EXPECT_NE(status.output.find("problem: " + policy + problem), std::string::npos) << status.output;
    // Edits are noticed without a signal: in place, and by rename into place as editors do, also
    // after the file was gone for a while (the last good policy stays meanwhile).
    WriteFile(policy, Policy("second"));
    ASSERT_TRUE(agent.WaitFor("second", kEditSeen)) << agent.Log();
    ASSERT_EQ(std::remove(policy.c_str()), 0);
    ASSERT_TRUE(logged("Cannot read policy file", kEditSeen)) << agent.Log();
    WriteFile(policy + ".new", Policy("third"));
    ASSERT_EQ(std::rename((policy + ".new").c_str(), policy.c_str()), 0);
    ASSERT_TRUE(agent.WaitFor("third", kEditSeen)) << agent.Log();
    EXPECT_EQ(agent.Terminate(), 0) << agent.Log();
    const std::string log = agent.Log();
    EXPECT_EQ(log.find("nested too deeply"), log.rfind("nested too deeply")) << log;  // one line
    for (const char* sink : {"alarms.jsonl", "stdout"}) {  // first, second, third, once each
        EXPECT_EQ(ReadLines(agent.m_dir.File(sink)).size(), 3u) << sink;
        EXPECT_EQ(Count(agent.m_dir.File(sink), "second", "policy"), 1u) << sink;
        EXPECT_EQ(Count(agent.m_dir.File(sink), "third", "policy"), 1u) << sink;
    }
}

TEST(AgentProcessTest, TerminationRightAfterABurstLeavesNothingUnsent) {
    Agent agent(Policy("burst", 300, 200));
    ASSERT_TRUE(agent.WaitFor("burst")) << agent.Log();
    EXPECT_EQ(agent.Terminate(), 0) << agent.Log();
    for (const char* sink : {"alarms.jsonl", "stdout"}) {
        EXPECT_EQ(Count(agent.m_dir.File(sink), "burst", "policy"), 300u) << sink;
        EXPECT_EQ(Count(agent.m_dir.File(sink), "burst", "stop"), 200u) << sink;  // sent while stopping
    }
}

// The problems --check-config finds are AgentConfigTest's; this is its exit code and its one line.
TEST(AgentProcessTest, CheckConfigExitsWithOneLineNamingTheFileAndTheProblem) {
    TempDir dir;
    WriteFile(dir.File("agent.json"),
              R"({"modules": [")" TEST_MODULE R"("], "policies": {"90001": "p.json"}})");
    WriteFile(dir.File("p.json"), "[1]");
    const RunResult check = CheckConfig(dir);
    EXPECT_EQ(check.code, 78) << check.output;  // EX_CONFIG
    EXPECT_NE(check.output.find(dir.File("p.json") + ": not a JSON object"), std::string::npos)
        << check.output;
}

TEST(AgentProcessTest, ModulesOfAnotherPluginApiAreRefusedAtStartAndByCheckConfig) {
    for (const auto& [library, problem] :
         {std::pair{TEST_MODULE_OTHER_API, "was built for plug-in API version 999"},
          {TEST_MODULE_NO_API, "has no plug-in API version (HostAgentModuleApiVersion): found none"}}) {
        SCOPED_TRACE(library);
        TempDir dir;
        WriteFile(dir.File("agent.json"), std::string(R"({"modules": [")") + library + R"("]})");
        const std::string expected =
            std::string("module ") + library + " " + problem + ", this agent needs version 1";
        const RunResult check = CheckConfig(dir);
        EXPECT_NE(check.code, 0);
        EXPECT_NE(check.output.find(dir.File("agent.json") + ": " + expected), std::string::npos)
            << check.output;
        const RunResult start =
            TestSupport::Run({HOSTAGENT_BIN, "--config", dir.File("agent.json")}, "", Seconds(30));
        EXPECT_NE(start.code, 0);
        EXPECT_NE(start.output.find(expected), std::string::npos) << start.output;
    }
}

TEST(AgentProcessTest, FilesOtherUsersCanChangeAreRefused) {
    // `unsafe` given `mode`, or to a user other than root and the agent's: `problem` (and the fix).
    for (const auto& [unsafe, mode, chownToOther, problem] :
         {std::tuple{"lib/module.so", 0777, false, "lib/module.so: unsafe: "},
          {"agent.json", 0666, false, "agent.json: unsafe: "},
          {"policies/p.json", 0666, false, "policies/p.json: unsafe: "},
          {"policies", 0777, false, "unsafe: its folder "},
          {"policies/p.json", 0644, true, "is owned by uid 54321"},
          {"policies", 01777, false, "configuration OK"}}) {  // a sticky folder is fine
        SCOPED_TRACE(std::string(unsafe) + (chownToOther ? " chown" : ""));
        TempDir dir;
        for (const char* folder : {"lib", "policies"}) {
            ASSERT_EQ(mkdir(dir.File(folder).c_str(), 0755), 0);
        }
        WriteFile(dir.File("lib/module.so"), ReadFile(TEST_MODULE));
        WriteFile(dir.File("policies/p.json"), Policy("safe"));
        WriteFile(dir.File("agent.json"),
                  R"({"modules": ["lib/module.so"], "policies": {"90001": "policies/p.json"}})");
        const std::string path = dir.File(unsafe);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        if (chownToOther && chown(path.c_str(), 54321, 54321) != 0) {
            GTEST_SKIP() << "giving a file to another user needs root";
        }
        const RunResult check = CheckConfig(dir);
        const bool ok = std::string(problem) == "configuration OK";
        EXPECT_EQ(check.code == 0, ok) << check.output;
        EXPECT_NE(check.output.find(problem), std::string::npos) << check.output;
        const std::string fix = (chownToOther ? "fix: chown root " : "fix: chmod go-w ") + path;
        EXPECT_TRUE(ok || check.output.find(fix) != std::string::npos) << check.output;
    }
}

}  // namespace
