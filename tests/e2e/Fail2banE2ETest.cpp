// Debian's fail2ban with the shipped filter and jail beside the agent in the monitored namespace: a
// scanner is banned through nftables and cannot reach a served port; a white-listed source never is.

#include "ScanLab.h"

#include <gtest/gtest.h>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored = "10.84.1.1";
const char* const kScanner = "10.84.1.2";
const char* const kWhiteMonitored = "10.84.2.1";
const char* const kWhiteScanner = "10.84.2.2";
const unsigned kServedPort = 8080;  // in the shipped policy, served here: never alarmed
const int kSourcePort = 42401;

class Fail2banE2E : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT("ip", "ss", "nmap", "nc", "nft", "fail2ban-client");
        m_lab = std::make_unique<Lab>("e2b", kMonitored, kScanner);
        m_lab->AddNeighbour("white", kWhiteMonitored, kWhiteScanner);
        Json::Value policy = Parsed(ReadFile(SHIPPED_POLICY));
        policy["content"]["port_scan_task"]["white_ip_list"] = kWhiteScanner;
        m_served = std::make_unique<Child>(std::vector<std::string>{"nc", "-lk", std::to_string(kServedPort)},
                                           m_lab->mon.Name(), "/dev/null", "/dev/null");
        ASSERT_TRUE(m_lab->WaitListening(kServedPort));
        ASSERT_NO_FATAL_FAILURE(m_lab->StartAgent(policy.toStyledString()));

        // Debian's fail2ban configuration with the shipped filter and jail, the jail turned on for
        // the test's alarm file; everything it keeps stays in the test's folder.
        m_conf = m_lab->dir.File("fail2ban");
        MustRun({"cp", "-r", "/etc/fail2ban", m_conf});
        MustRun({"sh", "-c", "rm -f " + m_conf + "/jail.d/*"});
        MustRun({"cp", SOURCE_DIR "/packaging/fail2ban/filter.d/hostagent.conf", m_conf + "/filter.d/"});
        MustRun({"cp", SOURCE_DIR "/packaging/fail2ban/jail.d/hostagent.conf", m_conf + "/jail.d/"});
        WriteFile(m_conf + "/jail.d/hostagent.local",
                  "[hostagent]\nenabled = true\nlogpath = " + m_lab->AlarmFile() + "\n");
        WriteFile(m_conf + "/fail2ban.local",
                  "[Definition]\nlogtarget = " + m_conf + "/fail2ban.log\nsocket = " + m_conf +
                      "/fail2ban.sock\npidfile = " + m_conf + "/fail2ban.pid\ndbfile = " + m_conf +
                      "/fail2ban.sqlite3\n");
        const RunResult started = Client({"start"});
        ASSERT_EQ(started.code, 0) << started.output;
        m_started = true;
        ASSERT_TRUE(WaitUntil(
            [&] {
                return Client({"status", "hostagent"}).code == 0;
            },
            Seconds(20)))
            << ReadFile(m_conf + "/fail2ban.log");
    }

    void TearDown() override {
        if (m_started) {
            Client({"stop"});
        }
    }

    RunResult Client(const std::vector<std::string>& command) {
        std::vector<std::string> argv = {"fail2ban-client", "-c", m_conf};
        argv.insert(argv.end(), command.begin(), command.end());
        return TestSupport::Run(argv, m_lab->mon.Name(), Seconds(30));
    }
    std::string Ruleset() { return TestSupport::Run({"nft", "list", "ruleset"}, m_lab->mon.Name()).output; }
    bool Connects(const std::string& ns, const char* target) {
        return TestSupport::Run({"nc", "-z", "-w", "2", target, std::to_string(kServedPort)}, ns).code == 0;
    }

    std::unique_ptr<Lab> m_lab;
    std::unique_ptr<Child> m_served;
    std::string m_conf;
    bool m_started = false;
};

TEST_F(Fail2banE2E, AScannerIsBannedAndAWhiteListedSourceNever) {
    ASSERT_TRUE(Connects(m_lab->scanner.Name(), kMonitored));
    // The white-listed source scans first: no alarm may name it, so nothing can ban it.
    m_lab->Nmap({"-sS"}, "21,23", kSourcePort, kWhiteMonitored, "", m_lab->Namespace("white"));
    m_lab->Nmap({"-sS"}, "21,23", kSourcePort, kMonitored);
    ASSERT_TRUE(WaitUntil([&] { return Ruleset().find(kScanner) != std::string::npos; }, Seconds(20)))
        << Ruleset() << ReadFile(m_conf + "/fail2ban.log");
    EXPECT_FALSE(Connects(m_lab->scanner.Name(), kMonitored))
        << "the banned scanner still reaches the served port";
    EXPECT_TRUE(Connects(m_lab->Namespace("white"), kWhiteMonitored));
    for (const Json::Value& alarm : ReadAlarms(m_lab->AlarmFile())) {
        EXPECT_EQ(alarm["network_info"]["remote_address"].asString(), kScanner);
    }
}

}  // namespace
