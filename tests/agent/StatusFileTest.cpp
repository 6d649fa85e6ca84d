// The status and metrics files as monitors read them: a hung agent told from a live one, a file that
// cannot be read (read as a monitor: SystemdE2E; no agent once the file is gone: AgentSupervisionE2E).
#include "MetricsFile.h"
#include "StatusFile.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <sys/prctl.h>
#include <unistd.h>

#include <sstream>

namespace {

using namespace HostAgent;

TEST(StatusFileTest, AMonitorReadsItAndTellsAHungAgentAndAnUnreadableFile) {
    TestSupport::TempDir dir;
    const std::string path = dir.File("hostagent.status.json");
    const auto now = std::chrono::system_clock::now();
    Json::Value status;
    std::istringstream(R"({"version": "test", "tasks": [{"name": "port_scan_task", "state": "running"}]})") >>
        status;
    status["pid"] = static_cast<Json::Int>(getpid());
    status["updated"] = UtcText(now);
    std::string error;
    ASSERT_TRUE(WriteStatusFile(path, status, error)) << error;

    char name[16] = {};
    prctl(PR_GET_NAME, name);
    prctl(PR_SET_NAME, "hostagent");  // as the status reader expects of a live agent
    std::ostringstream out, err, late;
    EXPECT_EQ(kStatusAllRunning, PrintStatus(path, out, err, now + std::chrono::seconds(119)));
    EXPECT_EQ(out.str().find("NOT RESPONDING"), std::string::npos) << out.str();
    EXPECT_EQ(kStatusTaskDown, PrintStatus(path, late, err, now + std::chrono::seconds(121)));
    EXPECT_NE(late.str().find("NOT RESPONDING"), std::string::npos) << late.str();
    prctl(PR_SET_NAME, name);

    TestSupport::WriteFile(path, "{\"pid\": ");
    EXPECT_EQ(kStatusUnreadable, PrintStatus(path, out, err));
}

// Prometheus' text format: HELP and TYPE once per name before its samples, label values escaped.
TEST(MetricsFileTest, TextFormatGroupsSamplesByName) {
    const std::string text = PrometheusText({
        {"hostagent_alarms_total", "counter", "Alarms.", Label("class", "portscan_0002"), 3},
        {"hostagent_sink_pending_bytes", "gauge", "Pending.", Label("sink", "/var/\"x\"\\y"), 1.5},
        {"hostagent_alarms_total", "counter", "Alarms.", Label("class", "portscan_0001"), 12345678901},
    });
    EXPECT_EQ(text,
              "# HELP hostagent_alarms_total Alarms.\n# TYPE hostagent_alarms_total counter\n"
              "hostagent_alarms_total{class=\"portscan_0002\"} 3\n"
              "hostagent_alarms_total{class=\"portscan_0001\"} 12345678901\n"
              "# HELP hostagent_sink_pending_bytes Pending.\n# TYPE hostagent_sink_pending_bytes gauge\n"
              "hostagent_sink_pending_bytes{sink=\"/var/\\\"x\\\"\\\\y\"} 1.5\n");
}

}  // namespace
