// The .deb (lintian-clean) in a cached Debian 12 root booted by systemd-nspawn in the test's namespace, a
// scanner beside it: files, capabilities, pid file, alarms in the file and journal, a rotation losing and
// repeating nothing, a reload, group status, exposure rating, a clean stop, a purge that leaves nothing.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <regex>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored = "10.83.1.1";
const char* const kScanner = "10.83.1.2";
const int kSourcePort = 42301;
const std::string kLogDir = "/var/log/hostagent/";
// Every path whose name mentions the package, so that what an install leaves can be compared.
const char* const kPathsNamedLikeThePackage = "find /etc /usr /var /run -name '*hostagent*' | sort";

// The pid of the container's init: the process called "systemd" below the nspawn process `nspawn`.
pid_t ContainerInit(pid_t nspawn) {
    const std::string found =
        Run({"sh", "-c",
             "for c in $(pgrep -P " + std::to_string(nspawn) +
                 "); do for g in $(pgrep -P $c) $c; do [ \"$(cat /proc/$g/comm 2>/dev/null)\" = systemd ] && "
                 "echo $g; done; done"})
            .output;
    return found.empty() ? -1 : std::stoi(found);
}

class SystemdE2E : public ::testing::Test {
protected:
    void SetUp() override {
        SKIP_WITHOUT("cpack", "dpkg-deb", "lintian", "mmdebstrap", "systemd-nspawn", "nsenter", "nmap", "ip");
        m_lab = std::make_unique<Lab>("e2d", kMonitored, kScanner);
        const std::string built = MustRun(
            {FindProgram("cpack"), "--config", CPACK_CONFIG, "-B", m_lab->dir.Path()}, "", Seconds(600));
        const std::string arch = MustRun({"dpkg", "--print-architecture"});
        m_deb = m_lab->dir.File("hostagent_" PACKAGE_VERSION "_" + arch.substr(0, arch.find('\n')) + ".deb");
        ASSERT_EQ(access(m_deb.c_str(), R_OK), 0) << built;

        // The root file system, made once per package list (a base and the .deb's dependencies, versions
        // and alternatives dropped) and kept under the build folder.
        const std::string packages =
            "systemd,systemd-sysv,dbus,iproute2,procps,util-linux,logrotate," +
            MustRun(
                {"sh", "-c",
                 "dpkg-deb -f " + m_deb + " Depends | sed -E 's/\\([^)]*\\)|\\|[^,]*//g' | tr -d ' \\n'"});
        const std::string cache =
            std::string(ROOTFS_CACHE) + "-" + std::to_string(std::hash<std::string>()(packages));
        if (access((cache + "/usr/lib/systemd/systemd").c_str(), X_OK) != 0) {
            TestSupport::Run({"rm", "-rf", cache + ".new"});
            MustRun({"env", "--default-signal", "mmdebstrap", "--variant=apt", "--include=" + packages,
                     "bookworm", cache + ".new", "deb http://deb.debian.org/debian bookworm main",
                     "deb http://deb.debian.org/debian-security bookworm-security main"},
                    "", Seconds(600));
            MustRun({"mv", cache + ".new", cache});
        }
        m_root = m_lab->dir.File("rootfs");
        MustRun({"cp", "-a", cache, m_root}, "", Seconds(120));
        MustRun({"cp", m_deb, m_root + "/tmp/hostagent.deb"});
        m_before = MustRun({"chroot", m_root, "sh", "-c", kPathsNamedLikeThePackage});
        MustRun({"chroot", m_root, "dpkg", "-i", "/tmp/hostagent.deb"});
        // A monitoring user in the package's group, and the local syslog sink in the config.
        MustRun({"chroot", m_root, "useradd", "--no-create-home", "--groups", "hostagent", "monitor"});
        Json::Value config = Parsed(ReadFile(m_root + "/etc/hostagent/agent.json"));
        config["report"]["sinks"].append(Parsed(R"({"type": "syslog"})"));
        WriteFile(m_root + "/etc/hostagent/agent.json", config.toStyledString());

        m_container = std::make_unique<Child>(
            std::vector<std::string>{"systemd-nspawn", "-D", m_root, "--register=no", "--keep-unit", "-b",
                                     "--console=passive",
                                     "--network-namespace-path=/run/netns/" + m_lab->mon.Name()},
            "", m_lab->dir.File("nspawn.out"), m_lab->dir.File("nspawn.err"));
        ASSERT_TRUE(WaitUntil([&] { return (m_init = ContainerInit(m_container->Pid())) > 0; }, Seconds(30)));
        const RunResult booted = In({"systemctl", "is-system-running", "--wait"}, Seconds(60));
        ASSERT_NE(booted.output.find("running"), std::string::npos) << booted.output;
    }

    void TearDown() override {
        if (m_container) {
            In({"systemctl", "poweroff"});
            m_container->WaitExit(Millis(30000));  // else its destructor kills it
        }
    }

    // Runs `argv` inside the container (every namespace of its init).
    RunResult In(const std::vector<std::string>& argv, Seconds limit = Seconds(30)) {
        std::vector<std::string> command = {"nsenter", "-t", std::to_string(m_init), "-a"};
        command.insert(command.end(), argv.begin(), argv.end());
        return TestSupport::Run(command, "", limit);
    }

    std::unique_ptr<Lab> m_lab;
    std::string m_deb, m_root, m_before;
    std::unique_ptr<Child> m_container;
    pid_t m_init = -1;
};

TEST_F(SystemdE2E, TheShippedServiceRunsDetectsRotatesReloadsReportsStopsAndPurgesUnderSystemd) {
    const RunResult lint = TestSupport::Run({"lintian", "--no-cfg", m_deb}, "", Seconds(300));
    EXPECT_FALSE(std::regex_search(lint.output, std::regex("^E: ", std::regex::multiline))) << lint.output;
    // Installed: root's files nobody else may write, a unit systemd finds sound, a config that checks out.
    EXPECT_EQ(In({"find", "/usr/sbin/hostagent", "/usr/lib/hostagent", "/etc/hostagent", "(", "-perm", "/022",
                  "-o", "!", "-user", "root", ")"})
                  .output,
              "");
    const RunResult verify = In({"systemd-analyze", "verify", "--man=no", "hostagent.service"});
    EXPECT_EQ(verify.code, 0) << verify.output;
    EXPECT_EQ(In({"hostagent", "--version"}).output, "hostagent " PACKAGE_VERSION "\n");
    EXPECT_EQ(In({"hostagent", "--config", "/etc/hostagent/agent.json", "--check-config"}).output,
              "configuration OK\n");

    // Started at boot (the package enabled it), and ready only once its policy was delivered.
    const auto active = [&] { return In({"systemctl", "is-active", "hostagent"}).output == "active\n"; };
    ASSERT_TRUE(WaitUntil(active, Seconds(30)))
        << In({"systemctl", "status", "--no-pager", "hostagent"}).output;
    EXPECT_EQ(In({"systemctl", "show", "-p", "Type,WatchdogUSec,NRestarts", "hostagent"}).output,
              "Type=notify\nWatchdogUSec=1min\nNRestarts=0\n");
    const std::string pid = In({"systemctl", "show", "-p", "MainPID", "--value", "hostagent"}).output;
    EXPECT_EQ(In({"cat", "/run/hostagent/hostagent.pid"}).output, pid);
    // Exactly CAP_DAC_READ_SEARCH (2), CAP_NET_RAW (13) and CAP_SYS_PTRACE (19), bounding set included.
    const std::string caps =
        In({"grep", "-E", "^Cap(Prm|Eff|Bnd)", "/proc/" + pid.substr(0, pid.size() - 1) + "/status"}).output;
    EXPECT_EQ(caps, "CapPrm:\t0000000000082004\nCapEff:\t0000000000082004\nCapBnd:\t0000000000082004\n");

    // A scan from the neighbour: alarms in the file and, through the local syslog sink, the journal.
    const std::string log = m_root + kLogDir + "hostagent.log", alarmFile = m_root + kLogDir + "alarms.jsonl";
    ASSERT_TRUE(WaitForLine(log, "Reload BPF rules", Seconds(20)));
    m_lab->Nmap({"-sS"}, "21,23,3389", kSourcePort, kMonitored);
    ASSERT_TRUE(WaitUntil([&] { return ReadAlarms(alarmFile).size() >= 3; }, Seconds(15)));
    EXPECT_TRUE(WaitUntil(
        [&] {
            return Occurrences(In({"journalctl", "-t", "hostagent", "-o", "cat", "--no-pager"}).output,
                               "\"event_classid\":\"portscan_0002\"") >= 3;
        },
        Seconds(15)))
        << In({"journalctl", "--no-pager", "-n", "30"}).output;

    // The status, as a member of the monitoring group.
    const RunResult status = In({"runuser", "-u", "monitor", "--", "hostagent", "--status"});
    EXPECT_EQ(status.code, 0) << status.output;
    EXPECT_NE(status.output.find("port_scan_task"), std::string::npos) << status.output;

    // Rotation with the shipped file: the agent is told and goes on in new files.
    const RunResult rotate = In({"logrotate", "-f", "/etc/logrotate.d/hostagent"});
    ASSERT_EQ(rotate.code, 0) << rotate.output;
    ASSERT_TRUE(WaitForLine(log, "[Report] Reopening alarm files", Seconds(10)))
        << "the agent did not reopen its files after the rotation";
    m_lab->Nmap({"-sS"}, "25", kSourcePort, kMonitored);
    ASSERT_TRUE(WaitUntil([&] { return ReadAlarms(alarmFile).size() >= 1; }, Seconds(15)))
        << "no alarm in the new alarm file";

    // A reload delivers an edited policy.
    Json::Value policy = Parsed(ReadFile(m_root + "/etc/hostagent/policies/portscan.json"));
    policy["content"]["port_scan_task"]["summary_quiet_s"] = 7;
    WriteFile(m_root + "/etc/hostagent/policies/portscan.json", policy.toStyledString());
    EXPECT_EQ(In({"systemctl", "reload", "hostagent"}).code, 0);
    EXPECT_TRUE(WaitForLine(log, "SIGHUP received", Seconds(10)));

    // How exposed systemd rates the service, with systemd itself judging it.
    const RunResult security = In({"systemd-analyze", "security", "--no-pager", "hostagent.service"});
    std::smatch exposure;
    ASSERT_TRUE(
        std::regex_search(security.output, exposure, std::regex(R"(exposure level for \S+: ([0-9.]+))")))
        << security.output;
    EXPECT_LE(std::stod(exposure[1]), 2.5) << security.output;

    // A clean stop: none reported lost, none missing from the files (below).
    EXPECT_EQ(In({"systemctl", "stop", "hostagent"}).code, 0);
    EXPECT_EQ(ReadFile(log).find("are lost"), std::string::npos) << ReadFile(log);
    EXPECT_EQ(In({"systemctl", "is-failed", "hostagent"}).output, "inactive\n");

    // Nothing lost or repeated by the rotation: the alarm files hold, once each, what the logs say was sent.
    std::vector<Json::Value> filed = ReadAlarms(alarmFile + ".1"), logged = LoggedAlarms(log + ".1");
    EXPECT_EQ(filed.size(), 3u);
    const std::vector<Json::Value> newFiled = ReadAlarms(alarmFile), newLogged = LoggedAlarms(log);
    filed.insert(filed.end(), newFiled.begin(), newFiled.end());
    logged.insert(logged.end(), newLogged.begin(), newLogged.end());
    EXPECT_EQ(EventIds(filed), EventIds(logged));
    EXPECT_EQ(EventIds(filed).size(), filed.size());

    const RunResult purge = In({"dpkg", "--purge", "hostagent"}, Seconds(120));
    EXPECT_EQ(purge.code, 0) << purge.output;
    EXPECT_EQ(In({"sh", "-c", kPathsNamedLikeThePackage}).output, m_before) << "the purge left files behind";
}

}  // namespace
