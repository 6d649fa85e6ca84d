// Scanners that know they are watched, against the shipped policy, from two scanner namespaces:
// spoofed public floods freeze and stop nothing, decoys do not hide the scanner, each scan of one
// source ends in one summary, the shipped UDP ports alarm, and a node exporter shows the metrics.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored = "10.82.1.1";
const char* const kScanner = "10.82.1.2";
const char* const kSecondMonitored = "10.82.2.1";
const char* const kSecondScanner = "10.82.2.2";
const char* const kSpoofedPublic = "198.51.100.7";
const char* const kDecoys = "10.82.1.50,10.82.1.51";
const int kSourcePort = 42201;

std::set<unsigned> PortsOf(const std::vector<Json::Value>& alarms) {
    const std::multiset<unsigned> ports = AlarmPorts(alarms);
    return {ports.begin(), ports.end()};
}

class PortScanAdversaryE2E : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT("ip", "ss", "nmap", "hping3");
        m_lab = std::make_unique<Lab>("e2a", kMonitored, kScanner);
        m_lab->AddNeighbour("second", kSecondMonitored, kSecondScanner);
        m_task = Parsed(ReadFile(SHIPPED_POLICY))["content"]["port_scan_task"];
        // Metrics for a node exporter's textfile collector, in a folder of their own.
        Json::Value config = AgentConfig();
        config["metrics_file"] = "metrics/hostagent.prom";
        MustRun({"mkdir", "-p", m_lab->dir.File("metrics")});
        ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(ReadFile(SHIPPED_POLICY), config));
    }

    // The documents once the file holds `count` of class `classId` from `remote`.
    std::vector<Json::Value> WaitFor(size_t count, const std::string& classId, const std::string& remote,
                                     Seconds limit = Seconds(10)) {
        std::vector<Json::Value> chosen;
        const auto other = [&](const Json::Value& document) {
            return document["event_classid"] != classId ||
                   document["network_info"]["remote_address"] != remote;
        };
        WaitUntil(
            [&] {
                chosen = ReadAlarms(m_lab->AlarmFile());
                chosen.erase(std::remove_if(chosen.begin(), chosen.end(), other), chosen.end());
                return chosen.size() >= count;
            },
            limit);
        return chosen;
    }

    std::unique_ptr<Lab> m_lab;
    Json::Value m_task;
};

TEST_F(PortScanAdversaryE2E, SpoofedFramesDecoysAndRepeatsDoNotHideTheScanner) {
    // (a) A 3 s spoofed public flood (10,000 a second, past a port's packet limit) to one port, then a
    // scan of it and seven more: eight alarms; no port froze and the task never stopped.
    TestSupport::Run(Hping("-S", 110, 30000, "u100", kSourcePort, kMonitored, kSpoofedPublic),
                     m_lab->scanner.Name());
    m_lab->Nmap({"-sS"}, "21,23,25,110,135,139,445,1433", kSourcePort, kMonitored);
    EXPECT_EQ(PortsOf(WaitFor(8, "portscan_0002", kScanner)),
              (std::set<unsigned>{21, 23, 25, 110, 135, 139, 445, 1433}));
    const std::string log = ReadFile(m_lab->Log());
    EXPECT_EQ(log.find("stopped by itself"), std::string::npos);
    EXPECT_EQ(log.find("Freeze port"), std::string::npos);

    // (b) Two decoys beside the real scanner: the scanner is named for every port.
    m_lab->Nmap({"-sS", "-D", std::string(kDecoys) + ",ME"}, "1521,3306,3389", kSourcePort, kMonitored);
    EXPECT_EQ(PortsOf(WaitFor(11, "portscan_0002", kScanner)),
              (std::set<unsigned>{21, 23, 25, 110, 135, 139, 445, 1433, 1521, 3306, 3389}));

    // (c) One scan of ten ports from a second scanner: one summary of the ten within the quiet time
    // and two seconds of its end; the same scan again: a second summary, although every port alarmed.
    const std::string tenPorts = "21,23,25,110,135,139,445,1433,1521,3306";
    const auto quiet = Seconds(m_task.get("summary_quiet_s", 5).asInt());
    for (size_t round = 1; round <= 2; ++round) {
        m_lab->Nmap({"-sS"}, tenPorts, kSourcePort, kSecondMonitored, "", m_lab->Namespace("second"));
        const auto ended = std::chrono::steady_clock::now();
        const std::vector<Json::Value> summaries =
            WaitFor(round, "portscan_0003", kSecondScanner, quiet + Seconds(4));
        ASSERT_EQ(summaries.size(), round);
        EXPECT_LE(std::chrono::steady_clock::now() - ended, quiet + Seconds(2))
            << "summary " << round << " late";
        EXPECT_EQ(summaries.back()["scan_summary"]["port_count"].asUInt(), 10u);
        EXPECT_EQ(summaries.back()["network_info"]["local_address"].asString(), kSecondMonitored);
    }

    // (d) A UDP scan of the shipped UDP ports: each alarms.
    std::set<unsigned> udpPorts;
    std::string udpList;
    for (const Json::Value& entry : m_task["monitor_list"]) {
        if (entry["type"].asInt() == 1) {
            udpPorts.insert(entry["port"].asUInt());
            udpList += (udpList.empty() ? "" : ",") + std::to_string(entry["port"].asUInt());
        }
    }
    ASSERT_GE(udpPorts.size(), 8u);
    m_lab->Nmap({"-sU"}, udpList, kSourcePort, kMonitored);
    EXPECT_EQ(PortsOf(WaitFor(udpPorts.size(), "portscan_0001", kScanner)), udpPorts);

    // The numbers, through Debian's node exporter on the monitored namespace's loopback.
    Child exporter({"prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
                    "--collector.textfile.directory=" + m_lab->dir.File("metrics"),
                    "--web.listen-address=127.0.0.1:19182"},
                   m_lab->mon.Name(), m_lab->dir.File("exporter.out"), m_lab->dir.File("exporter.err"));
    std::string scraped;
    const bool seen = WaitUntil(
        [&] {
            scraped = TestSupport::Run({"curl", "-s", "http://127.0.0.1:19182/metrics"}, m_lab->mon.Name(),
                                       Seconds(5))
                          .output;
            return scraped.find("hostagent_alarms_total{class=\"portscan_0003\"} ") != std::string::npos &&
                   scraped.find("hostagent_alarms_total{class=\"portscan_0001\"} " +
                                std::to_string(udpPorts.size())) != std::string::npos;
        },
        Seconds(25));
    EXPECT_TRUE(seen) << scraped;
    for (const char* sample :
         {"hostagent_up 1", "hostagent_task_running{task=\"port_scan_task\"} 1",
          "hostagent_task_restarts_total{task=\"port_scan_task\"} 0",
          "hostagent_watched_ports{task=\"port_scan_task\"} 29",
          "hostagent_frozen_ports{task=\"port_scan_task\"} 0", "hostagent_sink_pending_bytes",
          "hostagent_capture_frames_total{task=\"port_scan_task\"}"}) {
        EXPECT_NE(scraped.find(sample), std::string::npos) << sample << "\n" << scraped;
    }
    m_lab->StopAgent();
}

}  // namespace
