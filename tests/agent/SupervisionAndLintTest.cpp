// The agent's decisions without a process: restart back-off and renewal planning, and the policy
// findings reported by --check-config and at each delivery.
#include "PolicyLint.h"
#include "Supervisor.h"

#include "support/NetLab.h"

#include <gtest/gtest.h>
#include <json/json.h>

namespace {

using namespace std::chrono_literals;
using HostAgent::Supervisor;
using Event = Framework::Engine::TaskEvent;

Event TaskEvent(Event::Kind kind, const std::string& module, double ran = 0, bool byItself = false) {
    const std::vector<std::string> keys =
        module.empty() ? std::vector<std::string>{} : std::vector<std::string>{"10001"};
    return {kind, "port_scan_task", module, keys, ran, byItself};
}

TEST(SupervisorTest, BackOffDoublesToTheCapAndResetsAfterASteadyRun) {
    Supervisor supervisor(60s, 0s, 3600s, 3600s);
    auto now = Supervisor::Clock::now();
    // Run time before each stop by itself, and the restart delay that must follow.
    const std::pair<double, long> stops[] = {{5, 60},   {5, 120},  {5, 240},  {5, 480},   {5, 960},
                                             {5, 1920}, {5, 3600}, {5, 3600}, {3600, 60}, {10, 120}};
    for (const auto& [ran, delay] : stops) {
        supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), now);
        now += std::chrono::seconds(static_cast<long>(ran));
        EXPECT_EQ(supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", ran, true), now).count(),
                  delay)
            << "after a run of " << ran << " s";
        EXPECT_EQ(supervisor.NextDeadline(), now + std::chrono::seconds(delay));
        EXPECT_TRUE(supervisor.TakeDueRestarts(now + std::chrono::seconds(delay) - 1s).empty());
        now += std::chrono::seconds(delay);
        const auto due = supervisor.TakeDueRestarts(now);
        ASSERT_EQ(due.size(), 1u);
        EXPECT_EQ(due[0].keys, std::vector<std::string>{"10001"});
        EXPECT_TRUE(supervisor.TakeDueRestarts(now).empty());  // once per stop
    }
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").restarts, 10);
}

TEST(SupervisorTest, OnlyAModuleTaskThatStoppedByItselfIsRestarted) {
    const auto now = Supervisor::Clock::now();
    struct Case {
        const char* what;
        std::string module;
        bool byItself;
    };
    for (const Case& c : {Case{"unregistered (shutdown, policy disable)", "portscan", false},
                          Case{"an agent task that returned", "", true}}) {
        SCOPED_TRACE(c.what);
        Supervisor supervisor(60s, 0s, 3600s, 3600s);
        supervisor.OnStarted(TaskEvent(Event::Kind::Started, c.module), now);
        EXPECT_EQ(supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, c.module, 5, c.byItself), now).count(),
                  0);
        EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").state, Supervisor::State::Stopped);
        EXPECT_EQ(supervisor.NextDeadline(), Supervisor::Clock::time_point::max());
    }
}

TEST(SupervisorTest, RenewalIsPlannedFromEachStartAndIsNotARestart) {
    Supervisor supervisor(60s, 86400s, 3600s, 3600s);
    const auto start = Supervisor::Clock::now();
    supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), start);
    EXPECT_EQ(supervisor.NextDeadline(), start + 86400s);
    EXPECT_TRUE(supervisor.DueRenewals(start + 86399s).empty());
    ASSERT_EQ(supervisor.DueRenewals(start + 86400s), std::vector<std::string>{"port_scan_task"});
    supervisor.PostponeRenewal("port_scan_task", start + 86430s);
    EXPECT_TRUE(supervisor.DueRenewals(start + 86400s).empty());

    supervisor.MarkRenewing("port_scan_task");
    EXPECT_EQ(
        supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", 86430), start + 86430s).count(), 0);
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").stopReason, "renewal");
    supervisor.OnStarted(TaskEvent(Event::Kind::Started, "portscan"), start + 86431s);
    EXPECT_EQ(supervisor.NextDeadline(), start + 86431s + 86400s);
    EXPECT_EQ(supervisor.GetTasks().at("port_scan_task").restarts, 0);
    // A stop by itself later is a real one again.
    EXPECT_EQ(
        supervisor.OnStopped(TaskEvent(Event::Kind::Stopped, "portscan", 9, true), start + 86440s).count(),
        60);
}

// A policy with the shipped task settings, changed by `edit`.
std::string PolicyWith(const std::function<void(Json::Value&)>& edit) {
    Json::Value policy;
    Json::Reader().parse(R"({"content": {"port_scan_task": {"monitor_list": [{"port": 21, "type": 0},
        {"port": 22, "type": 0}, {"port": 80, "type": 0}, {"port": 5353, "type": 1}], "white_ip_list": "",
        "check_port_before_alarm": true, "only_master_interface": false, "enable": true, "task_condition": {}}}})",
                         policy);
    edit(policy["content"]["port_scan_task"]);
    return policy.toStyledString();
}

Json::Value Entry(long port, int type) {
    Json::Value entry;
    entry["port"] = static_cast<Json::Int64>(port);
    entry["type"] = type;
    return entry;
}

TEST(PolicyLintTest, EachIneffectiveSettingIsNamedOnce) {
    struct Case {
        const char* what;
        std::function<void(Json::Value&)> edit;
        int addresses;
        const char* finding;  // nullptr: no finding
    };
    // 239 ports: with 2 rules per address and 10 more the capture filter needs 255 at 3 addresses.
    const auto ports239 = [](Json::Value& t) {
        for (int port = 1000; port < 1000 + 235; ++port) {
            t["monitor_list"].append(Entry(port, 0));
        }
    };
    const Case cases[] = {
        {"good policy", [](Json::Value&) {}, 3, nullptr},
        {"UDP below TCP", [](Json::Value& t) { t["monitor_list"].append(Entry(53, 1)); }, 3,
         "UDP port 53 is numbered below TCP port 80"},
        {"UDP below TCP, exact lookup",
         [](Json::Value& t) {
             t["monitor_list"].append(Entry(53, 1));
             t["exact_port_lookup"] = true;
         },
         3, nullptr},
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
        {"port listed twice", [](Json::Value& t) { t["monitor_list"].append(Entry(22, 0)); }, 3,
         "port 22 appears in 2 \"monitor_list\" entries"},
        {"filter within reach", ports239, 3, nullptr},
        {"filter beyond reach", ports239, 4, "watch at most 237 ports on this host"},
        {"keys of newer modules are known",
         [](Json::Value& t) {
             for (const char* key : {"drain_socket_queue", "exact_port_lookup", "dual_stack_occupancy",
                                     "prompt_alarms", "ipv6"}) {
                 t[key] = false;
             }
             t["white_ip6_list"] = "";
         },
         3, nullptr},
        {"misspelt key", [](Json::Value& t) { t["alarm_max_nun"] = 0; }, 3, "unknown key \"alarm_max_nun\""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const auto findings = HostAgent::LintPolicy("/etc/p.json", PolicyWith(c.edit), c.addresses);
        if (c.finding == nullptr) {
            EXPECT_TRUE(findings.empty()) << findings.front();
            continue;
        }
        ASSERT_EQ(findings.size(), 1u) << (findings.empty() ? "" : findings.back());
        EXPECT_EQ(findings[0].rfind("warning: /etc/p.json: ", 0), 0u) << findings[0];
        EXPECT_NE(findings[0].find(c.finding), std::string::npos) << findings[0];
    }
    // Not ours to judge: the module reports its own syntax errors; other modules' policies pass.
    EXPECT_TRUE(HostAgent::LintPolicy("p", "{\"content\": ", 3).empty());
    EXPECT_TRUE(HostAgent::LintPolicy("p", "{\"content\": {\"other_task\": {}}}", 3).empty());
}

TEST(PolicyLintTest, ShippedPolicyHasNoFinding) {
    const std::string text = TestSupport::ReadFile(SHIPPED_POLICY);
    ASSERT_FALSE(text.empty());
    for (int addresses : {HostAgent::CountLocalIpv4Addresses(), 16}) {
        const auto findings = HostAgent::LintPolicy(SHIPPED_POLICY, text, addresses);
        EXPECT_TRUE(findings.empty()) << findings.front();
    }
    Json::Value policy;
    ASSERT_TRUE(Json::Reader().parse(text, policy));
    EXPECT_EQ(policy["content"]["port_scan_task"]["alarm_max_num"], 0) << "a single probe must alarm";
}

}  // namespace
