// Feature and task policies, the module's task switching and the classifier chain.

#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "TestFrames.h"
#include "support/LogCapture.h"
#include "support/TestEngine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using TestSupport::TestEngine;

namespace {

std::string Feature(const std::string& task) {
    return R"({"feature_name":"portscan","content":{"port_scan_task":)" + task + "}}";
}

// A task policy watching `count` TCP ports.
std::string Ports(int count, const std::string& condition = R"("task_condition":{},)") {
    std::string list;
    for (int i = 0; i < count; ++i) {
        list += (i == 0 ? "" : ",") + std::string(R"({"port":)") + std::to_string(1000 + i) + "}";
    }
    return "{" + condition + R"("monitor_list":[)" + list + "]}";
}

TEST(PortScanPolicy, ResultsAndTheirLogLines) {
    const std::string get = "[PortScan] Do action (Get ";
    // as the feature document (else the task policy alone), text, parsed, enabled, the one error line
    const std::tuple<bool, std::string, bool, bool, std::string> cases[] = {
        {true, "{\"content\":", false, false, "Parse Json Error"},
        {true, R"({"feature_name":"portscan"})", false, false, get + "policy content) fail!"},
        {true, R"({"content":{}})", false, false, get + "port_scan_task) fail!"},
        {true, R"({"content":{"is_feature_enable":false}})", false, false, get + "port_scan_task) fail!"},
        {true, R"({"content":{"is_feature_enable":false,"port_scan_task":{}}})", true, false, ""},
        {false, "{\"monitor_list\":[", false, false, "[PortScan] policy format err!"},
        {false, R"({"monitor_list":[],"task_condition":{},"white_ip6_list":",,,"})", false, false,
         "[!] Parse policy failed in parse_ip6_ranges."},  // with "ipv6" off as well
        {true, Feature(R"({"task_condition":{}})"), true, false, "Parse json monitor_list err"},
        {true, Feature(Ports(51)), true, false, "Ports' num exceed the maximum"},
        {true, Feature(Ports(50)), true, true, ""},
        {true, Feature(R"({"monitor_list":[],"white_ip_list":"abc","task_condition":{}})"), true, false,
         "[!] Parse policy failed in parse_ip_ranges."},
        {true, Feature(R"({"monitor_list":[]})"), true, false, "Parse task_condition failed."},
        {true, Feature(R"({"monitor_list":[],"task_condition":{"no_such_key":1}})"), true, false,
         "[Framework] task_condition of (port_scan_task) rejected: unknown key (no_such_key)"},
    };
    for (const auto& [asFeature, text, parsed, on, line] : cases) {
        SCOPED_TRACE(text);
        auto& errors = ModuleLogs("error");
        Engine::PortScanPolicy feature("portscan_info_collect");
        Engine::PortScanTaskPolicy task("port_scan_task");
        EXPECT_EQ(parsed, asFeature ? feature.Parse(text) : task.Parse(text));
        EXPECT_EQ(on, feature.IsPortScanEnable());
        EXPECT_EQ(line.empty() ? std::vector<std::string>{} : std::vector<std::string>{line}, errors.Texts());
    }
}

TEST(PortScanPolicy, FailedTaskPoliciesDoNotPileUp) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer's allocator keeps the heap: measured in the plain build";
#endif
    auto& log = ModuleLogs();
    // 50 ports and no task condition: each failure leaves a filled task policy of several KB behind.
    const std::string failing = Feature(Ports(50, ""));
    auto deliver = [&](int times) {
        for (int i = 0; i < times; ++i) {
            Engine::PortScanPolicy feature("portscan_info_collect");
            ASSERT_TRUE(feature.Parse(failing));
            ASSERT_FALSE(feature.IsPortScanEnable());
            log.Clear();  // the recorded log lines are not what is measured
        }
    };
    deliver(100);  // whatever is kept is kept by now
    const std::size_t before = mallinfo2().uordblks;
    deliver(2000);
    EXPECT_LT(mallinfo2().uordblks, before + 1024 * 1024);  // unbounded, this grows by more than 8 MB
}

TEST(PortScanPolicy, MonitorRecordsAndTheirRefresh) {
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(R"({"monitor_list":[{"port":443,"type":0},{"port":443,"type":0},
        {"port":22,"type":2},{"port":80,"type":1}],"task_condition":{}})"));
    // The ordering hides this record from the set's own search; the refresh must still find it.
    Engine::PortInfoNode update(80, 1);
    ASSERT_EQ(policy.GetPolicyPortSet().end(), policy.GetPolicyPortSet().find(update));
    update.alarmNum = 3;
    policy.RefreshAlarmInfo(update);
    const auto& records = policy.GetPolicyPortSet();
    EXPECT_EQ(4u, records.size());  // (22, TCP), (22, UDP), (80, UDP), (443, TCP): replaced in its place
    EXPECT_EQ(1, std::count_if(records.begin(), records.end(),
                               [](const auto& node) { return node.port == 80 && node.alarmNum == 3; }));
}

TEST(PortScanPolicy, OptInSwitchesAreOffUnlessTheKeyIsTheJsonTrue) {
    const char* keys[] = {"drain_socket_queue", "exact_port_lookup", "dual_stack_occupancy", "prompt_alarms",
                          "ipv6"};
    for (const std::string value : {"", "true", "false", "1", "\"true\""}) {
        for (const char* key : keys) {
            Engine::PortScanTaskPolicy policy("port_scan_task");
            const std::string extra = value.empty() ? "" : "," + std::string("\"") + key + "\":" + value;
            ASSERT_TRUE(policy.Parse(R"({"monitor_list":[],"task_condition":{})" + extra + "}"));
            const std::vector<bool> on = {policy.IsDrainSocketQueue(), policy.IsExactPortLookup(),
                                          policy.IsDualStackOccupancy(), policy.IsPromptAlarms(),
                                          policy.IsIpv6Enable()};
            for (std::size_t i = 0; i < on.size(); ++i) {
                EXPECT_EQ(value == "true" && key == keys[i], on[i])
                    << key << "=" << value << " read " << keys[i];
            }
        }
    }
}

TEST(PortScanModule, SwitchesOneTaskObject) {
    const std::string on = Feature(R"({"monitor_list":[],"task_condition":{}})");
    const std::string off = R"({"content":{"is_feature_enable":false,"port_scan_task":{}}})";
    ModuleLogs();
    std::vector<std::unique_ptr<Framework::Policy>> policies;
    Engine::PortScanModule module;
    ASSERT_EQ(0, module.Init());
    auto refresh = [&](const std::string& text) {
        Framework::Policy* previous = policies.empty() ? nullptr : policies.back().get();
        policies.emplace_back(module.RefreshFeaturePolicy("portscan.json", text, previous));
        return TestEngine().FindTask("port_scan_task");
    };
    EXPECT_EQ(nullptr, refresh(off));
    Framework::Task* task = refresh(on);
    ASSERT_NE(nullptr, task);
    EXPECT_EQ(task, refresh(on));
    EXPECT_EQ(policies[1].get(), task->GetFeaturePolicy());  // the runtime hands over later ones
    EXPECT_EQ(nullptr, refresh(off));
    EXPECT_EQ(task, refresh(on));
    module.UnInit();
    EXPECT_EQ(nullptr, TestEngine().FindTask("port_scan_task"));
}

// Each family has its own white list (an IPv6 source's unused IPv4 address is 0.0.0.0, listed here).
TEST(PortScanChain, VerdictsOfHalfOpenThenCommon) {
    ModuleLogs();  // the classifiers' lines are recorded, not printed
    Engine::PortScanTaskPolicy policy("port_scan_task");
    ASSERT_TRUE(policy.Parse(R"({"monitor_list":[],"white_ip_list":"192.168.9.0/24, 0.0.0.0",
        "white_ip6_list":"fd00:78::3, fd00:79::/64","task_condition":{}})"));
    Poco::AutoPtr<Framework::Task> task(
        new Framework::Task("port_scan_task", "portscan_info_collect", 0, 16));
    ASSERT_TRUE(TestEngine().RegisterTask(task, false));
    task->SetTaskPolicy(&policy);
    Engine::HFConnectChain chain;
    Engine::CommonComputeChain common;
    chain.next = &common;
    // remote, protocol, flag text, alarm type (0: no classifier answers)
    const std::tuple<const char*, int, const char*, int> cases[] = {
        {"192.168.0.0", 0, "SYN", 2},     {"10.1.2.3", 0, "SYN,ACK", 1},  {"172.31.255.255", 1, "", 1},
        {"192.168.9.20", 0, "SYN", 0},    {"172.32.0.0", 0, "SYN", 0},    {"10.255.255.255", 1, "", 1},
        {"172.15.255.255", 0, "SYN", 0},  {"192.169.0.0", 0, "SYN", 0},   {"fd00:78::2", 0, "SYN", 2},
        {"fe80::9", 0, "SYN,ACK", 1},     {"fc00::1", 1, "", 1},          {"febf:ffff::1", 0, "SYN", 2},
        {"fbff::1", 0, "SYN", 0},         {"fec0::1", 0, "SYN", 0},       {"fd00:78::3", 0, "SYN", 0},
        {"::ffff:10.0.0.5", 0, "SYN", 0}, {"fd00:79::ffff", 0, "SYN", 0}, {"fd00:7a::1", 0, "SYN", 2},
    };
    for (const auto& [remote, type, flag, alarm] : cases) {
        Engine::PacketNode pkt{{0}, 8080, {0}, 40000, type, flag};
        pkt.isIpv6 = inet_pton(AF_INET6, remote, &pkt.remoteAddress6) == 1;
        pkt.remoteAddress.s_addr = pkt.isIpv6 ? 0 : inet_addr(remote);
        int result = 0;
        for (Engine::ComputeChain* link = &chain; link != nullptr && !link->handle(pkt, result, 100);) {
            link = link->next;
        }
        EXPECT_EQ(alarm, result) << remote << " " << flag;
    }
    TestEngine().UnRegisterTask("port_scan_task");
}

}  // namespace
