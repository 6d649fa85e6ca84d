// Drives the real hostagent binary with the test module (tests/agent/test_module) loaded.
#include "sdk/JsonUtils.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <optional>

namespace {

using namespace TestSupport;

// Generous, because sanitizer builds are slow; a pass is quick.
constexpr Millis kWait(15000);

std::string Policy(const std::string& marker, int count = 1, int burstOnStop = 0) {
    return R"({"marker": ")" + marker + R"(", "count": )" + std::to_string(count) + R"(, "burst_on_stop": )" +
           std::to_string(burstOnStop) + "}";
}

// A JSON text nested deeper than the JSON reader's stack limit (1000 levels).
std::string DeeplyNested() {
    return std::string(1001, '[') + std::string(1001, ']');
}

// The test module's events in a JSON-lines file with this marker and kind; a line that is not a
// JSON object fails the test.
std::size_t Count(const std::string& path, const std::string& marker, const std::string& kind) {
    std::size_t count = 0;
    for (const std::string& line : ReadLines(path)) {
        Json::Value event;
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), event), 0) << line;
        count += event["marker"] == marker && event["kind"] == kind && event["policy_name"] == "test.json";
    }
    return count;
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
    bool WaitFor(const std::string& marker, std::size_t count) {
        return WaitUntil([&] { return Count(m_dir.File("alarms.jsonl"), marker, "policy") >= count; }, kWait);
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
    ASSERT_TRUE(agent.WaitFor("first", 1)) << agent.Log();
    EXPECT_TRUE(WaitUntil([&] { return Count(agent.m_dir.File("stdout"), "first", "policy") == 1; }, kWait));
    // A text too deeply nested to parse is reported once and does not stop the agent.
    WriteFile(agent.m_dir.File("test.json"), "{\"a\": " + DeeplyNested() + "}");
    ASSERT_TRUE(WaitUntil([&] { return agent.Log().find("nested too deeply") != std::string::npos; }, kWait))
        << agent.Log();
    WriteFile(agent.m_dir.File("test.json"), Policy("second"));  // noticed by polling, no signal
    ASSERT_TRUE(agent.WaitFor("second", 1)) << agent.Log();
    EXPECT_EQ(agent.Terminate(), 0) << agent.Log();
    std::size_t deepLines = 0;
    for (const std::string& line : ReadLines(agent.m_dir.File("stderr"))) {
        deepLines += line.find("nested too deeply") != std::string::npos;
    }
    EXPECT_EQ(deepLines, 1u) << agent.Log();
    for (const char* sink : {"alarms.jsonl", "stdout"}) {
        EXPECT_EQ(ReadLines(agent.m_dir.File(sink)).size(), 2u) << sink;
        EXPECT_EQ(Count(agent.m_dir.File(sink), "second", "policy"), 1u) << sink;
    }
}

TEST(AgentProcessTest, TerminationRightAfterABurstLeavesNothingUnsent) {
    Agent agent(Policy("burst", 300, 200));
    ASSERT_TRUE(agent.WaitFor("burst", 1)) << agent.Log();
    EXPECT_EQ(agent.Terminate(), 0) << agent.Log();
    for (const char* sink : {"alarms.jsonl", "stdout"}) {
        EXPECT_EQ(Count(agent.m_dir.File(sink), "burst", "policy"), 300u) << sink;
        EXPECT_EQ(Count(agent.m_dir.File(sink), "burst", "stop"), 200u) << sink;  // sent while stopping
    }
}

TEST(AgentProcessTest, CheckConfigNamesTheFileAndTheProblem) {
    const struct {
        std::string config;  // "MODULE": the test module
        const char* policy;  // content of p.json
        const char* file;    // the file the message names
        const char* problem;
    } cases[] = {
        {R"({"modules": ["MODULE"],)", "{}", "agent.json", "not valid JSON"},
        {R"({"module": ["MODULE"]})", "{}", "agent.json", "unknown key \"module\""},
        {R"({"modules": ["none.so"]})", "{}", "agent.json", "none.so does not exist"},
        {R"({"report": {"sinks": [{"type": "pipe"}]}})", "{}", "agent.json", "unknown sink type \"pipe\""},
        {R"({"policies": {"90001": "none.json"}})", "{}", "none.json", "No such file"},
        {R"({"policies": {"90001": "p.json"}})", "[1]", "p.json", "not a JSON object"},
        {R"({"policies": {"90001": "p.json"}})", "DEEP", "p.json", "nested too deeply"},
        {R"({"log": DEEP})", "{}", "agent.json", "nested too deeply"},
        {R"({"modules": ["MODULE"], "policies": {"90001": "p.json"}})", R"({"marker": "ok"})", "",
         "configuration OK"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.config);
        TempDir dir;
        std::string config = c.config;
        if (config.find("MODULE") != std::string::npos) {
            config.replace(config.find("MODULE"), 6, TEST_MODULE);
        }
        std::string policy = c.policy;
        for (std::string* text : {&config, &policy}) {
            if (text->find("DEEP") != std::string::npos) {
                text->replace(text->find("DEEP"), 4, DeeplyNested());
            }
        }
        WriteFile(dir.File("agent.json"), config);
        WriteFile(dir.File("p.json"), policy);
        RunResult check = TestSupport::Run(
            {HOSTAGENT_BIN, "--check-config", "--config", dir.File("agent.json")}, "", Seconds(30));
        EXPECT_EQ(check.code == 0, *c.file == '\0') << check.output;
        EXPECT_NE(check.output.find(*c.file ? dir.File(c.file) : ""), std::string::npos) << check.output;
        EXPECT_NE(check.output.find(c.problem), std::string::npos) << check.output;
        EXPECT_NE(check.code, 70) << "an exception escaped: " << check.output;
    }
}

}  // namespace
