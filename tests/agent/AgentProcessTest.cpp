// Drives the real hostagent binary with the test module (tests/agent/test_module) loaded.
#include "AgentProcess.h"
#include "TestFiles.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <csignal>
#include <memory>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

using namespace std::chrono_literals;

// Bounds for waits on the child. Generous, because sanitizer builds are slow; a pass is quick.
constexpr auto kEventWait = 15s;
constexpr auto kExitWait = 30s;

std::string PolicyText(const std::string& marker, int count = 1, int burstOnStop = 0) {
    return "{\"marker\": \"" + marker + "\", \"count\": " + std::to_string(count) +
           ", \"burst_on_stop\": " + std::to_string(burstOnStop) + "}";
}

// The events of the test module in a JSON-lines text, as (marker, kind) pairs; a line that is not a
// JSON object fails the test.
struct Event {
    std::string marker;
    std::string kind;
    std::string policyName;
};

std::vector<Event> ParseEvents(const std::vector<std::string>& lines) {
    std::vector<Event> events;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    for (const std::string& line : lines) {
        Json::Value root;
        if (!reader->parse(line.data(), line.data() + line.size(), &root, nullptr) || !root.isObject()) {
            ADD_FAILURE() << "not a JSON object line: " << line;
            continue;
        }
        if (root["source"].asString() == "agent_test_module") {
            events.push_back(
                {root["marker"].asString(), root["kind"].asString(), root["policy_name"].asString()});
        }
    }
    return events;
}

std::size_t Count(const std::vector<Event>& events, const std::string& marker, const std::string& kind) {
    std::size_t count = 0;
    for (const Event& event : events) {
        count += (event.marker == marker && event.kind == kind) ? 1 : 0;
    }
    return count;
}

// One agent with the test module, a policy under "90001" and both kinds of sink, in a temp folder.
class RunningAgent {
public:
    explicit RunningAgent(const std::string& policy, const std::string& extraPolicies = "") {
        if (!policy.empty()) {
            WriteFile(PolicyFile(), policy);
        }
        WriteFile(m_folder / "conf/agent.json",
                  R"({ "log": { "level": "debug", "console": true, "file": "../log/hostagent.log" },
                       "connect": [ "127.0.0.1:443" ],
                       "modules": [ ")" TEST_MODULE R"(" ],
                       "policies": { "90001": "policies/test.json" )" +
                      extraPolicies + R"( },
                       "report": { "sinks": [ { "type": "stdout" },
                                              { "type": "file", "path": "../out/alarms.jsonl" } ] } })");
        m_agent.reset(new AgentProcess({"--config", (m_folder / "conf/agent.json").string()},
                                       m_folder / "stdout", m_folder / "stderr"));
    }

    std::filesystem::path PolicyFile() const { return m_folder / "conf/policies/test.json"; }
    std::vector<Event> FileEvents() const { return ParseEvents(ReadLines(m_folder / "out/alarms.jsonl")); }
    std::vector<Event> StdoutEvents() const { return ParseEvents(ReadLines(m_folder / "stdout")); }
    std::string Stderr() const { return ReadFile(m_folder / "stderr"); }
    AgentProcess& Process() { return *m_agent; }

    // Waits until the alarm file holds at least `count` events (marker, kind).
    bool WaitForEvents(const std::string& marker, const std::string& kind, std::size_t count) {
        return WaitUntil([&]() { return Count(FileEvents(), marker, kind) >= count; }, kEventWait);
    }

private:
    TempFolder m_folder;
    std::unique_ptr<AgentProcess> m_agent;
};

TEST(AgentProcessTest, ReportsEventsAndFollowsPolicyEditsAndSighup) {
    RunningAgent agent(PolicyText("first"));
    ASSERT_TRUE(agent.Process().Started());

    ASSERT_TRUE(agent.WaitForEvents("first", "policy", 1)) << agent.Stderr();
    std::vector<Event> events = agent.FileEvents();
    EXPECT_EQ(events.front().policyName, "test.json");  // delivered under the file's name
    EXPECT_TRUE(WaitUntil([&]() { return Count(agent.StdoutEvents(), "first", "policy") == 1; }, kEventWait));

    // An edit is noticed by polling, without a signal.
    WriteFile(agent.PolicyFile(), PolicyText("second"));
    ASSERT_TRUE(agent.WaitForEvents("second", "policy", 1)) << agent.Stderr();

    // SIGHUP delivers the unchanged file again.
    ASSERT_TRUE(agent.Process().Signal(SIGHUP));
    ASSERT_TRUE(agent.WaitForEvents("second", "policy", 2)) << agent.Stderr();

    ASSERT_TRUE(agent.Process().Signal(SIGTERM));
    EXPECT_EQ(agent.Process().WaitForExit(kExitWait), 0) << agent.Stderr();
    events = agent.FileEvents();
    EXPECT_EQ(Count(events, "first", "policy"), 1u);
    EXPECT_EQ(Count(events, "second", "policy"), 2u);
    EXPECT_EQ(events.size(), 3u);
    EXPECT_EQ(agent.StdoutEvents().size(), 3u);
}

TEST(AgentProcessTest, TerminationRightAfterSendingLosesNoEvent) {
    constexpr int kOnPolicy = 300;
    constexpr int kOnStop = 200;
    RunningAgent agent(PolicyText("burst", kOnPolicy, kOnStop));
    ASSERT_TRUE(agent.Process().Started());
    ASSERT_TRUE(agent.WaitForEvents("burst", "policy", 1)) << agent.Stderr();
    ASSERT_TRUE(agent.Process().Signal(SIGTERM));
    EXPECT_EQ(agent.Process().WaitForExit(kExitWait), 0) << agent.Stderr();

    for (const auto& events : {agent.FileEvents(), agent.StdoutEvents()}) {
        EXPECT_EQ(Count(events, "burst", "policy"), static_cast<std::size_t>(kOnPolicy));
        EXPECT_EQ(Count(events, "burst", "stop"), static_cast<std::size_t>(kOnStop));
    }
}

TEST(AgentProcessTest, SigintStopsTheAgentCleanly) {
    RunningAgent agent(PolicyText("int"));
    ASSERT_TRUE(agent.WaitForEvents("int", "policy", 1)) << agent.Stderr();
    ASSERT_TRUE(agent.Process().Signal(SIGINT));
    EXPECT_EQ(agent.Process().WaitForExit(kExitWait), 0) << agent.Stderr();
}

TEST(AgentProcessTest, RetriesAMissingPolicyAndLogsAKeyNobodyServes) {
    // No policy file at start; a second key that no loaded module serves.
    RunningAgent agent("", R"(, "55555": "policies/orphan.json")");
    std::filesystem::path orphan = agent.PolicyFile().parent_path() / "orphan.json";
    WriteFile(orphan, "{}");
    ASSERT_TRUE(agent.Process().Started());
    ASSERT_TRUE(WaitUntil(
        [&]() { return agent.Stderr().find("No module serves policy key 55555") != std::string::npos; },
        kEventWait))
        << agent.Stderr();
    EXPECT_NE(agent.Stderr().find("test.json"), std::string::npos);  // the missing file was logged

    WriteFile(agent.PolicyFile(), PolicyText("late"));
    ASSERT_TRUE(agent.WaitForEvents("late", "policy", 1)) << agent.Stderr();
    ASSERT_TRUE(agent.Process().Signal(SIGTERM));
    EXPECT_EQ(agent.Process().WaitForExit(kExitWait), 0) << agent.Stderr();
}

TEST(AgentProcessTest, HelpMentionsEveryOptionKeyAndSignal) {
    Finished help = RunToEnd({"--help"}, kExitWait);
    EXPECT_EQ(help.exitCode, 0);
    for (const char* word :
         {"--config", "--check-config", "--help", "\"log\"", "\"connect\"", "\"cpu_limit_percent\"",
          "\"modules\"", "\"policies\"", "\"report\"", "SIGHUP", "SIGINT", "SIGTERM", "CAP_NET_RAW"}) {
        EXPECT_NE(help.out.find(word), std::string::npos) << word;
    }
}

TEST(AgentProcessTest, RefusesBadCommandLines) {
    const std::vector<std::vector<std::string>> cases = {
        {},                                 // no config
        {"--frobnicate"},                   // unknown option
        {"--config"},                       // option without its argument
        {"--config", "a.json", "surplus"},  // stray argument
    };
    for (const auto& args : cases) {
        Finished run = RunToEnd(args, kExitWait);
        EXPECT_EQ(run.exitCode, 64) << (args.empty() ? "(none)" : args[0]) << ": " << run.err;
        EXPECT_NE(run.err.find("hostagent"), std::string::npos) << run.err;
    }
}

struct CheckCase {
    const char* what;
    std::string config;     // config text; "MODULE" and "POLICY" are replaced by good paths
    std::string policy;     // content of policies/p.json
    const char* fileNamed;  // the file the message must name: "config" or "policy"
    const char* problem;
};

TEST(AgentProcessTest, CheckConfigNamesTheFileAndTheProblem) {
    const std::string good = R"({"modules": ["MODULE"], "policies": {"90001": "policies/p.json"}})";
    const CheckCase cases[] = {
        {"bad JSON", R"({"modules": ["MODULE"],)", "{}", "config", "not valid JSON"},
        {"unknown key", R"({"module": ["MODULE"]})", "{}", "config", "unknown key \"module\""},
        {"bad level", R"({"log": {"level": "verbose"}})", "{}", "config", "unknown level \"verbose\""},
        {"missing module", R"({"modules": ["lib/none.so"]})", "{}", "config", "none.so does not exist"},
        {"missing policy", R"({"policies": {"90001": "policies/none.json"}})", "{}", "policy",
         "No such file"},
        {"policy not an object", good, "[1]", "policy", "not a JSON object"},
        {"policy not JSON", good, "{\"marker\": ", "policy", "not valid JSON"},
        {"bad sink", R"({"report": {"sinks": [{"type": "pipe"}]}})", "{}", "config",
         "unknown sink type \"pipe\""},
        {"cpu out of range", R"({"cpu_limit_percent": 150})", "{}", "config", "0..100"},
    };
    for (const CheckCase& c : cases) {
        SCOPED_TRACE(c.what);
        TempFolder folder;
        std::string config = c.config;
        for (std::string::size_type at; (at = config.find("MODULE")) != std::string::npos;) {
            config.replace(at, 6, TEST_MODULE);
        }
        WriteFile(folder / "agent.json", config);
        WriteFile(folder / "policies/p.json", c.policy);
        Finished check =
            RunToEnd({"--check-config", "--config", (folder / "agent.json").string()}, kExitWait);
        ASSERT_TRUE(check.exitCode.has_value());
        EXPECT_NE(*check.exitCode, 0);
        std::string named = std::string(c.fileNamed) == "config" ? (folder / "agent.json").string()
                                                                 : (folder / "policies").string();
        EXPECT_NE(check.err.find(named), std::string::npos) << check.err;
        EXPECT_NE(check.err.find(c.problem), std::string::npos) << check.err;
        EXPECT_EQ(check.out.find("configuration OK"), std::string::npos);
    }

    TempFolder folder;
    std::string config = good;
    config.replace(config.find("MODULE"), 6, TEST_MODULE);
    WriteFile(folder / "agent.json", config);
    WriteFile(folder / "policies/p.json", PolicyText("ok"));
    Finished check = RunToEnd({"--check-config", "--config", (folder / "agent.json").string()}, kExitWait);
    EXPECT_EQ(check.exitCode, 0) << check.err;
    EXPECT_NE(check.out.find("configuration OK"), std::string::npos);
}

TEST(AgentProcessTest, StopsWithAClearErrorWhenAModuleCannotBeLoaded) {
    struct ModuleCase {
        const char* what;
        std::string module;
        const char* problem;
    };
    TempFolder folder;
    WriteFile(folder / "libtext.so", "this is not a shared library");
    const ModuleCase cases[] = {
        {"not a library", (folder / "libtext.so").string(), "cannot load module"},
        {"no factory", NOT_A_MODULE, "has no CreateModule"},
    };
    for (const ModuleCase& c : cases) {
        SCOPED_TRACE(c.what);
        WriteFile(folder / "agent.json",
                  R"({"log": {"console": false}, "modules": [")" + c.module +
                      R"("], "report": {"sinks": [{"type": "file", "path": "a.jsonl"}]}})");
        Finished run = RunToEnd({"--config", (folder / "agent.json").string()}, kExitWait);
        ASSERT_TRUE(run.exitCode.has_value());
        EXPECT_NE(*run.exitCode, 0);
        EXPECT_NE(run.err.find(c.module), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(c.problem), std::string::npos) << run.err;
    }
}

}  // namespace
}  // namespace AgentTest
