// The package as systemd runs it: a Debian 12 root file system (mmdebstrap, cached under the build
// folder) with the package installed by dpkg, booted by systemd-nspawn inside a network namespace the
// test made, the service started exactly as shipped (the config gains only a local syslog sink). A
// scanner namespace beside it (private addresses, no default route) scans it with nmap. Checked: the
// agent's capabilities, the alarms in its file and in the journal, a reload, the status as a member
// of the monitoring group, the exposure systemd rates, and a stop that leaves nothing unsent.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iostream>
#include <regex>
#include <sstream>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitored = "10.83.1.1";
const char* const kScanner = "10.83.1.2";
const int kSourcePort = 42301;

// The packages the root file system holds besides the package's own dependencies.
const char* const kBasePackages = "systemd,systemd-sysv,dbus,iproute2,procps,util-linux";

// The dependency names of the .deb (versions and alternatives dropped), comma-separated.
std::string DependencyNames(const std::string& deb) {
    const std::string depends = MustRun({"dpkg-deb", "-f", deb, "Depends"});
    std::string names;
    std::istringstream in(depends);
    for (std::string item; std::getline(in, item, ',');) {
        item = item.substr(0, item.find('|'));
        std::istringstream words(item);
        std::string name;
        words >> name;
        if (!name.empty()) {
            names += "," + name;
        }
    }
    return names;
}

// The pid of the container's init: the process called "systemd" below the nspawn process `nspawn`.
pid_t ContainerInit(pid_t nspawn) {
    const std::string found =
        Run({"sh", "-c",
             "for c in $(pgrep -P " + std::to_string(nspawn) +
                 "); do for g in $(pgrep -P $c) $c; do [ \"$(cat /proc/$g/comm)\" = systemd ] && "
                 "echo $g; done; done"})
            .output;
    return found.empty() ? -1 : std::stoi(found);
}

class SystemdE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = MissingPrerequisite(
                {"cpack", "dpkg-deb", "mmdebstrap", "systemd-nspawn", "nsenter", "nmap", "ip"});
            !why.empty()) {
            GTEST_SKIP() << why;
        }
        m_lab = std::make_unique<Lab>("e2d", kMonitored, kScanner);
        const RunResult built = TestSupport::Run(
            {FindProgram("cpack"), "--config", CPACK_CONFIG, "-B", m_lab->dir.Path()}, "", Seconds(600));
        ASSERT_EQ(built.code, 0) << built.output;
        const std::string arch = MustRun({"dpkg", "--print-architecture"});
        m_deb = m_lab->dir.File("hostagent_" PACKAGE_VERSION "_" + arch.substr(0, arch.find('\n')) + ".deb");
        ASSERT_EQ(access(m_deb.c_str(), R_OK), 0) << built.output;

        // The root file system, made once per package list and kept under the build folder.
        const std::string packages = kBasePackages + DependencyNames(m_deb);
        const std::string cache =
            std::string(ROOTFS_CACHE) + "-" + std::to_string(std::hash<std::string>()(packages));
        if (access((cache + "/usr/lib/systemd/systemd").c_str(), X_OK) != 0) {
            TestSupport::Run({"rm", "-rf", cache + ".new"});
            const RunResult made = TestSupport::Run(
                {"env", "--default-signal", "mmdebstrap", "--variant=apt", "--include=" + packages,
                 "bookworm", cache + ".new", "deb http://deb.debian.org/debian bookworm main",
                 "deb http://deb.debian.org/debian-security bookworm-security main"},
                "", Seconds(600));
            ASSERT_EQ(made.code, 0) << made.output;
            MustRun({"mv", cache + ".new", cache});
        }
        m_root = m_lab->dir.File("rootfs");
        MustRun({"cp", "-a", cache, m_root}, "", Seconds(120));
        MustRun({"cp", m_deb, m_root + "/tmp/hostagent.deb"});
        const RunResult installed = TestSupport::Run({"chroot", m_root, "dpkg", "-i", "/tmp/hostagent.deb"});
        ASSERT_EQ(installed.code, 0) << installed.output;
        // A monitoring user in the package's group, and the local syslog sink in the config.
        MustRun({"chroot", m_root, "useradd", "--no-create-home", "--groups", "hostagent", "monitor"});
        Json::Value config;
        ASSERT_TRUE(ParseJson(ReadFile(m_root + "/etc/hostagent/agent.json"), config));
        Json::Value local(Json::objectValue);
        local["type"] = "syslog";
        config["report"]["sinks"].append(local);
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
            if (!m_container->WaitExit(Millis(30000))) {
                m_container->Signal(SIGKILL);
            }
            m_container.reset();
        }
    }

    // Runs `argv` inside the container (every namespace of its init).
    RunResult In(const std::vector<std::string>& argv, Seconds limit = Seconds(30)) {
        std::vector<std::string> command = {"nsenter", "-t", std::to_string(m_init), "-a"};
        command.insert(command.end(), argv.begin(), argv.end());
        return TestSupport::Run(command, "", limit);
    }

    std::string File(const std::string& path) const { return ReadFile(m_root + path); }

    std::unique_ptr<Lab> m_lab;
    std::string m_deb, m_root;
    std::unique_ptr<Child> m_container;
    pid_t m_init = -1;
};

TEST_F(SystemdE2E, TheShippedServiceRunsDetectsReloadsReportsAndStopsUnderSystemd) {
    // Started at boot (the package enabled it), and ready only once its policy was delivered.
    ASSERT_TRUE(WaitUntil(
        [&] {
            return In({"systemctl", "is-active", "hostagent"}).output == "active\n";
        },
        Seconds(30)))
        << In({"systemctl", "status", "--no-pager", "hostagent"}).output;
    EXPECT_EQ(In({"systemctl", "show", "-p", "Type,WatchdogUSec,NRestarts", "hostagent"}).output,
              "Type=notify\nWatchdogUSec=1min\nNRestarts=0\n");
    const std::string pid = In({"systemctl", "show", "-p", "MainPID", "--value", "hostagent"}).output;
    // Exactly CAP_DAC_READ_SEARCH (2), CAP_NET_RAW (13) and CAP_SYS_PTRACE (19), bounding set included.
    const std::string caps =
        In({"grep", "-E", "^Cap(Prm|Eff|Bnd)", "/proc/" + pid.substr(0, pid.size() - 1) + "/status"}).output;
    EXPECT_EQ(caps, "CapPrm:\t0000000000082004\nCapEff:\t0000000000082004\nCapBnd:\t0000000000082004\n");

    // A scan from the neighbour: alarms in the file and, through the local syslog sink, the journal.
    ASSERT_TRUE(WaitForLine(m_root + "/var/log/hostagent/hostagent.log", "Reload BPF rules", Seconds(20)));
    m_lab->Nmap({"-sS"}, "21,23,3389", kSourcePort, kMonitored);
    ASSERT_TRUE(WaitUntil([&] { return ReadAlarms(m_root + "/var/log/hostagent/alarms.jsonl").size() >= 3; },
                          Seconds(15)));
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
    std::cout << "hostagent --status as a member of group hostagent:\n"
              << status.output << "journalctl -t hostagent (last line):\n"
              << In({"journalctl", "-t", "hostagent", "-n", "1", "--no-pager"}).output;

    // A reload delivers an edited policy.
    Json::Value policy;
    ASSERT_TRUE(ParseJson(File("/etc/hostagent/policies/portscan.json"), policy));
    policy["content"]["port_scan_task"]["summary_quiet_s"] = 7;
    WriteFile(m_root + "/etc/hostagent/policies/portscan.json", policy.toStyledString());
    EXPECT_EQ(In({"systemctl", "reload", "hostagent"}).code, 0);
    EXPECT_TRUE(WaitForLine(m_root + "/var/log/hostagent/hostagent.log", "SIGHUP received", Seconds(10)));

    // How exposed systemd rates the service, with systemd itself judging it.
    const RunResult security = In({"systemd-analyze", "security", "--no-pager", "hostagent.service"});
    std::smatch exposure;
    ASSERT_TRUE(
        std::regex_search(security.output, exposure, std::regex(R"(exposure level for \S+: ([0-9.]+))")))
        << security.output;
    std::cout << "systemd-analyze security (online): exposure " << exposure[1] << "\n";
    EXPECT_LE(std::stod(exposure[1]), 2.5) << security.output;

    // A stop leaves nothing unsent: every alarm is in the file, none is reported lost.
    const size_t alarms = ReadAlarms(m_root + "/var/log/hostagent/alarms.jsonl").size();
    EXPECT_EQ(In({"systemctl", "stop", "hostagent"}).code, 0);
    const std::string log = File("/var/log/hostagent/hostagent.log");
    EXPECT_NE(log.find("[Agent] hostagent stopped"), std::string::npos) << log;
    EXPECT_EQ(log.find("are lost"), std::string::npos) << log;
    EXPECT_EQ(ReadAlarms(m_root + "/var/log/hostagent/alarms.jsonl").size(), alarms);
    EXPECT_EQ(In({"systemctl", "is-failed", "hostagent"}).output, "inactive\n");
}

}  // namespace
