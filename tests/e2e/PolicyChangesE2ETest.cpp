// What changes while the agent runs, against real scans between two namespaces (private addresses,
// no default route): an IPv6-only listener leaves its port open to IPv4 evidence under
// "dual_stack_occupancy"; an address the monitored host gains is watched at once with
// "follow_address_changes" and not without it; a policy edit that is not JSON leaves detection on;
// a policy that turns "ipv6" off closes IPv6 capture at once.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <thread>
#include <tuple>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored4 = "10.81.1.1";
const char* const kScanner4 = "10.81.1.2";
const char* const kLaterAddress = "10.81.1.9";
const char* const kMonitored6 = "fd00:81::1";
const char* const kScanner6 = "fd00:81::2";
const int kSourcePort = 42101;

// A port an IPv6-only listener holds, one probed on an address added after the start, one probed
// after a broken policy edit, one probed over IPv6 after "ipv6" was turned off.
const unsigned kV6OnlyPort = 2601;
const unsigned kLaterAddressPort = 2602;
const unsigned kAfterBrokenEditPort = 2603;
const unsigned kAfterIpv6OffPort = 2604;

class PolicyChangesE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = MissingPrerequisite({"ip", "ss", "nmap", "python3"}); !why.empty()) {
            GTEST_SKIP() << why;
        }
        m_lab = std::make_unique<Lab>("e2p", kMonitored4, kScanner4);
        for (const auto& [ns, device, address] : {std::make_tuple(&m_lab->mon, "to-scan", kMonitored6),
                                                  std::make_tuple(&m_lab->scanner, "eth0", kScanner6)}) {
            MustRun({"ip", "-n", ns->Name(), "addr", "add", std::string(address) + "/64", "dev", device,
                     "nodad"});
        }
    }

    Json::Value Task(bool follow, bool ipv6) {
        Json::Value task = SwitchesOnTask(
            {{kV6OnlyPort, 0}, {kLaterAddressPort, 0}, {kAfterBrokenEditPort, 0}, {kAfterIpv6OffPort, 0}});
        if (follow) {
            task["follow_address_changes"] = true;
        }
        if (ipv6) {
            task["ipv6"] = true;
        }
        return task;
    }

    void ScanPort(unsigned port, const std::string& target, const std::string& source = "") {
        std::vector<std::string> options = {"-sS"};
        if (!source.empty()) {
            options.insert(options.end(), {"-6", "-S", source, "-e", "eth0"});
        }
        m_lab->Nmap(options, std::to_string(port), kSourcePort, target);
    }

    // The ports of the alarms in the file once `count` are there.
    std::multiset<unsigned> AlarmedPorts(size_t count) { return AlarmPorts(m_lab->WaitForAlarms(count)); }
    // The ports of the alarms in the file after `quiet` more seconds, for what must not alarm.
    std::multiset<unsigned> AlarmedPortsAfter(Seconds quiet) {
        std::this_thread::sleep_for(quiet);
        return AlarmPorts(ReadAlarms(m_lab->AlarmFile()));
    }

    std::unique_ptr<Lab> m_lab;
    std::unique_ptr<Child> m_listener;  // ends before the lab's namespaces
};

TEST_F(PolicyChangesE2E, SwitchesAndEditsTakeEffectWhileScansGoOn) {
    ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(FeaturePolicyText(Task(true, true), "on")));
    ASSERT_TRUE(
        WaitUntil([&] { return !AttachedFilter(m_lab->mon.Name(), m_lab->agent->Pid(), "ipv6").empty(); },
                  Seconds(10)));

    // An IPv6-only socket on the port: no IPv4 client can reach it, so an IPv4 probe is evidence.
    m_listener = std::make_unique<Child>(
        std::vector<std::string>{"python3", "-c",
                                 "import socket,time\n"
                                 "s=socket.socket(socket.AF_INET6)\n"
                                 "s.setsockopt(socket.IPPROTO_IPV6,socket.IPV6_V6ONLY,1)\n"
                                 "s.bind(('::'," +
                                     std::to_string(kV6OnlyPort) + "))\ns.listen()\ntime.sleep(120)\n"},
        m_lab->mon.Name(), "/dev/null", "/dev/null");
    ASSERT_TRUE(m_lab->WaitListening(kV6OnlyPort));
    ScanPort(kV6OnlyPort, kMonitored4);
    EXPECT_EQ(AlarmedPorts(1).count(kV6OnlyPort), 1u) << ReadFile(m_lab->Log());

    // An address the host gains after the filters were built.
    MustRun(
        {"ip", "-n", m_lab->mon.Name(), "addr", "add", std::string(kLaterAddress) + "/24", "dev", "to-scan"});
    ASSERT_TRUE(
        WaitForLine(m_lab->Log(), "[PortScan] Local addresses changed, reloading filters", Seconds(10)));
    ASSERT_TRUE(WaitForLine(m_lab->Log(), "[PortScan] Reload BPF rules", Seconds(10)));
    ScanPort(kLaterAddressPort, kLaterAddress);
    EXPECT_EQ(AlarmedPorts(2).count(kLaterAddressPort), 1u) << ReadFile(m_lab->Log());

    // A broken edit is refused; detection goes on with the policy in force.
    WriteFile(m_lab->dir.File("portscan.json"), "{\"content\": ");
    ASSERT_TRUE(WaitForLine(m_lab->Log(), "refused: not valid JSON", Seconds(10)));
    ScanPort(kAfterBrokenEditPort, kMonitored4);
    EXPECT_EQ(AlarmedPorts(3).count(kAfterBrokenEditPort), 1u) << ReadFile(m_lab->Log());

    // "ipv6" turned off with the same ports: the IPv6 socket goes at once, IPv6 probes are not seen.
    WriteFile(m_lab->dir.File("portscan.json"), FeaturePolicyText(Task(true, false), "ipv6-off"));
    ASSERT_TRUE(WaitUntil(
        [&] { return AttachedFilter(m_lab->mon.Name(), m_lab->agent->Pid(), "ipv6").empty(); }, Seconds(10)))
        << "the IPv6 socket stayed open";
    ScanPort(kAfterIpv6OffPort, kMonitored6, kScanner6);
    EXPECT_EQ(AlarmedPortsAfter(Seconds(3)).count(kAfterIpv6OffPort), 0u)
        << "an IPv6 probe alarmed with ipv6 off";
    m_lab->StopAgent();
    for (const Json::Value& alarm : ReadAlarms(m_lab->AlarmFile())) {
        EXPECT_EQ(alarm["network_info"]["remote_address"].asString(), kScanner4);
    }
}

TEST_F(PolicyChangesE2E, WithoutFollowingAnAddressGainedLaterIsNotWatched) {
    ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(FeaturePolicyText(Task(false, false), "off")));
    MustRun(
        {"ip", "-n", m_lab->mon.Name(), "addr", "add", std::string(kLaterAddress) + "/24", "dev", "to-scan"});
    ScanPort(kLaterAddressPort, kLaterAddress);
    ScanPort(kAfterBrokenEditPort, kMonitored4);  // the address the filter knows: alarmed
    EXPECT_EQ(AlarmedPorts(1).count(kAfterBrokenEditPort), 1u);
    EXPECT_EQ(AlarmedPortsAfter(Seconds(3)), std::multiset<unsigned>{kAfterBrokenEditPort});
    m_lab->StopAgent();
}

}  // namespace
