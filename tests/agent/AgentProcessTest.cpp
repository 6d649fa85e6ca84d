// Drives the real hostagent binary with the test module (tests/agent/test_module) loaded.
#include "sdk/JsonUtils.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <set>

namespace {

using namespace TestSupport;

constexpr Millis kWait(15000);     // generous for sanitizer builds; a pass is quick
constexpr Millis kEditSeen(5000);  // how soon a policy file's edit reaches the module, unsignalled

std::string Policy(const std::string& marker, int count = 1, int burstOnStop = 0) {
    return R"({"marker": ")" + marker + R"(", "count": )" + std::to_string(count) + R"(, "burst_on_stop": )" +
           std::to_string(burstOnStop) + "}";
}

// The distinct test module events (by "seq") with this marker and kind in a JSON-lines file: with the
// file's line count, a lost one and a doubled one cannot cancel out. Other lines fail the test.
std::size_t Count(const std::string& path, const std::string& marker, const std::string& kind) {
    std::set<int> seqs;
    for (const std::string& line : ReadLines(path)) {
        Json::Value event;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), event), 0) << line;
        if (event["marker"] == marker && event["kind"] == kind && event["policy_name"] == "test.json") {
            seqs.insert(event["seq"].asInt());
        }
    }
    return seqs.size();
}

// Events reach both sinks; policy edits are followed without a signal, and a policy the agent cannot
// use is reported once while the last good one stays; on SIGTERM everything queued is sent first.
TEST(AgentProcessTest, ReportsEventsFollowsPolicyEditsAndSendsAllBeforeExit) {
    TempDir dir;
    const std::string policy = dir.File("test.json"), config = dir.File("agent.json");
    WriteFile(policy, Policy("first"));
    WriteFile(config, R"({"log": {"level": "debug"}, "modules": [")" TEST_MODULE R"("],
        "policies": {"90001": "test.json"},
        "report": {"sinks": [{"type": "stdout"}, {"type": "file", "path": "alarms.jsonl"}]}})");
    Child agent({HOSTAGENT_BIN, "--config", config}, "", dir.File("stdout"), dir.File("stderr"));
    const auto log = [&] { return ReadFile(dir.File("stderr")); };
    const auto reported = [&](const char* marker, Millis within) {
        return WaitUntil([&] { return Count(dir.File("alarms.jsonl"), marker, "policy") > 0; }, within);
    };
    const auto logged = [&](const char* text, Millis within) {
        return WaitUntil([&] { return log().find(text) != std::string::npos; }, within);
    };
    ASSERT_TRUE(reported("first", kWait)) << log();
    // A policy the module would give up is not delivered: the last good one stays, the log says so once
    // and the status says why (and exits 0: the agent itself is fine).
    WriteFile(policy, R"({"count": 5})");
    ASSERT_TRUE(logged("\"marker\" is missing", kWait)) << log();
    const RunResult status = TestSupport::Run({HOSTAGENT_BIN, "--status", "--config", config});
    EXPECT_EQ(status.code, 0) << status.output;
    const std::string problem = ": \"marker\" is missing (the policy delivered before stays in force)";
    EXPECT_NE(status.output.find("problem: " + policy + problem), std::string::npos) << status.output;
    // Edits are noticed without a signal: in place, and by rename into place as editors do, also
    // after the file was gone for a while (the last good policy stays meanwhile).
    WriteFile(policy, Policy("second"));
    ASSERT_TRUE(reported("second", kEditSeen)) << log();
    ASSERT_EQ(std::remove(policy.c_str()), 0);
    ASSERT_TRUE(logged("Cannot read policy file", kEditSeen)) << log();
    // The last policy sends a burst, and one when the module stops: SIGTERM as soon as the burst's first
    // event is written must leave none of either unsent.
    WriteFile(policy + ".new", Policy("third", 300, 200));
    ASSERT_EQ(std::rename((policy + ".new").c_str(), policy.c_str()), 0);
    ASSERT_TRUE(reported("third", kEditSeen)) << log();
    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.WaitExit(kWait * 2), 0) << log();
    const std::string text = log();
    EXPECT_EQ(text.find("\"marker\" is missing"), text.rfind("\"marker\" is missing")) << text;
    for (const char* sink : {"alarms.jsonl", "stdout"}) {  // first and second once each, then third's
        EXPECT_EQ(ReadLines(dir.File(sink)).size(), 502u) << sink;
        EXPECT_EQ(Count(dir.File(sink), "second", "policy"), 1u) << sink;
        EXPECT_EQ(Count(dir.File(sink), "third", "policy"), 300u) << sink;
        EXPECT_EQ(Count(dir.File(sink), "third", "stop"), 200u) << sink;
    }
}

// --check-config exits EX_CONFIG with one line naming the file and the problem (the problems it finds
// are AgentConfigTest's); a module of another plug-in API is refused at start as well.
TEST(AgentProcessTest, CheckConfigAndStartRefuseWithOneLineNamingTheFileAndTheProblem) {
    for (const auto& [module, file, problem] :
         {std::tuple{TEST_MODULE, "p.json", "No such file or directory"},
          {TEST_MODULE_OTHER_API, "agent.json",
           "module " TEST_MODULE_OTHER_API
           " was built for plug-in API version 999, this agent needs version 1"},
          {TEST_MODULE_NO_API, "agent.json",
           "module " TEST_MODULE_NO_API " has no plug-in API version (HostAgentModuleApiVersion): found none"
           ", this agent needs version 1"}}) {
        SCOPED_TRACE(module);
        TempDir dir;
        WriteFile(dir.File("agent.json"),
                  std::string(R"({"modules": [")") + module + R"("], "policies": {"90001": "p.json"}})");
        const RunResult check =
            TestSupport::Run({HOSTAGENT_BIN, "--check-config", "--config", dir.File("agent.json")});
        EXPECT_EQ(check.code, 78) << check.output;  // EX_CONFIG
        EXPECT_EQ(std::count(check.output.begin(), check.output.end(), '\n'), 1) << check.output;
        EXPECT_NE(check.output.find(dir.File(file) + ": " + problem), std::string::npos) << check.output;
        if (std::string(module) != TEST_MODULE) {  // with it the agent runs: the test above
            const RunResult start =
                TestSupport::Run({HOSTAGENT_BIN, "--config", dir.File("agent.json")}, "", Seconds(30));
            EXPECT_NE(start.code, 0);
            EXPECT_NE(start.output.find(problem), std::string::npos) << start.output;
        }
    }
}

}  // namespace
