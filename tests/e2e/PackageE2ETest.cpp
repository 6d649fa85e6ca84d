// The Debian package from build to purge: lintian finds no error, dpkg installs it, the unit
// passes systemd-analyze, the installed config checks out, the installed agent started as the
// unit's ExecStart would (systemd is not PID 1 here) reports a paced scan in the installed alarm
// file, the shipped logrotate file rotates log and alarms with no line lost, and a purge leaves no
// file behind. The machine is restored (purged) also when the test fails.

#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <memory>
#include <regex>
#include <sstream>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kMonitoredAddr = "10.79.1.1";
const char* const kScannerAddr = "10.79.1.2";
const std::string kLogDir = "/var/log/hostagent/";
const std::string kUnit = "/lib/systemd/system/hostagent.service";

bool Installed() {
    return Run({"dpkg-query", "-W", "-f=${Status}", "hostagent"}).output.find("install ok installed") !=
           std::string::npos;
}

// dpkg with `args`, waiting up to five minutes for another package manager's lock.
RunResult Dpkg(const std::vector<std::string>& args) {
    std::vector<std::string> argv{"dpkg"};
    argv.insert(argv.end(), args.begin(), args.end());
    RunResult result;
    WaitUntil(
        [&] {
            result = Run(argv, "", Seconds(120));
            return result.output.find("lock") == std::string::npos;
        },
        Seconds(300));
    return result;
}

// Every path on the system whose name mentions the package, so that what an install leaves can be
// compared before and after.
std::string PathsNamedLikeThePackage() {
    return Run({"find", "/etc", "/usr", "/var", "/run", "/opt", "-xdev", "-name", "*hostagent*"}, "",
               Seconds(120))
        .output;
}

// Ends the agent, then purges what this test installed; the agent's files go to the lab's folder
// first when the test failed.
struct PackageLab : Lab {
    PackageLab() : Lab("pk", kMonitoredAddr, kScannerAddr) {}
    ~PackageLab() {
        agent.reset();
        if (::testing::Test::HasFailure()) {
            Run({"cp", "-a", kLogDir + ".", dir.Path() + "/"});
        }
        if (installed && Dpkg({"--purge", "hostagent"}).code != 0) {
            ADD_FAILURE() << "dpkg --purge hostagent failed";
        }
    }
    bool installed = false;
};

class PackageE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = MissingPrerequisite(
                {"cpack", "dpkg", "lintian", "logrotate", "systemd-analyze", "hping3", "ip"});
            !why.empty()) {
            GTEST_SKIP() << why;
        }
        if (Installed()) {
            GTEST_SKIP() << "hostagent is installed on this machine; the test will not replace it";
        }
        before = PathsNamedLikeThePackage();
        lab = std::make_unique<PackageLab>();
    }
    void TearDown() override {
        if (lab) {
            lab.reset();
            EXPECT_FALSE(Installed()) << "the package is still installed";
            EXPECT_EQ(PathsNamedLikeThePackage(), before) << "the purge left files behind (or removed some)";
        }
    }

    std::string before;
    std::unique_ptr<PackageLab> lab;
};

TEST_F(PackageE2E, InstallsRunsReportsRotatesAndPurgesClean) {
    // Build, lint, install.
    RunResult built = TestSupport::Run(
        {FindProgram("cpack"), "--config", CPACK_CONFIG, "-B", lab->dir.Path()}, "", Seconds(600));
    ASSERT_EQ(built.code, 0) << built.output;
    const std::string arch = MustRun({"dpkg", "--print-architecture"});
    const std::string deb =
        lab->dir.File("hostagent_" PACKAGE_VERSION "_" + arch.substr(0, arch.find('\n')) + ".deb");
    ASSERT_EQ(access(deb.c_str(), R_OK), 0) << built.output;
    RunResult lint = TestSupport::Run({"lintian", "--no-cfg", deb}, "", Seconds(300));
    EXPECT_EQ(std::regex_search(lint.output, std::regex("^E: ", std::regex::multiline)), false)
        << lint.output;
    RunResult install = Dpkg({"-i", deb});
    lab->installed = true;
    ASSERT_EQ(install.code, 0) << install.output;

    // The unit, as far as systemd's tools can judge it without a running systemd.
    RunResult verify = TestSupport::Run({"systemd-analyze", "verify", "--man=no", kUnit});
    EXPECT_EQ(verify.code, 0) << verify.output;
    RunResult security = TestSupport::Run({"systemd-analyze", "security", "--offline=true", kUnit});
    std::smatch exposure;
    ASSERT_TRUE(
        std::regex_search(security.output, exposure, std::regex(R"(exposure level for \S+: ([0-9.]+))")))
        << security.output;
    std::cout << "systemd-analyze security: exposure " << exposure[1] << "\n";
    EXPECT_LE(std::stod(exposure[1]), 3.0) << security.output;
    struct stat wants {};
    EXPECT_EQ(lstat("/etc/systemd/system/multi-user.target.wants/hostagent.service", &wants), 0)
        << "the service is not enabled";

    // Installed files: root's, nobody else may write them.
    EXPECT_EQ(MustRun({"find", "/usr/sbin/hostagent", "/usr/lib/hostagent", "/etc/hostagent", "(", "-perm",
                       "/022", "-o", "!", "-user", "root", ")"}),
              "");
    // Checked here rather than by systemd-analyze, whose man lookup would leave a cached page behind.
    EXPECT_NE(MustRun({"man", "-l", "/usr/share/man/man8/hostagent.8.gz"}).find("SIGUSR1"),
              std::string::npos);
    EXPECT_EQ(MustRun({"/usr/sbin/hostagent", "--version"}), "hostagent " PACKAGE_VERSION "\n");
    EXPECT_EQ(MustRun({"/usr/sbin/hostagent", "--config", "/etc/hostagent/agent.json", "--check-config"}),
              "configuration OK\n");

    // Started the way the unit's ExecStart starts it.
    std::smatch execStart;
    const std::string unit = ReadFile(kUnit);
    ASSERT_TRUE(std::regex_search(unit, execStart, std::regex("\nExecStart=([^\n]+)")));
    std::istringstream words(execStart[1].str());
    std::vector<std::string> argv{std::istream_iterator<std::string>(words),
                                  std::istream_iterator<std::string>()};
    const long started = time(nullptr);
    lab->agent = std::make_unique<Child>(argv, lab->mon.Name(), lab->dir.File("agent.out"),
                                         lab->dir.File("agent.err"));
    ASSERT_TRUE(WaitForLine(kLogDir + "hostagent.log", "Reload BPF rules", Seconds(30)))
        << ReadFile(lab->dir.File("agent.err"));
    EXPECT_EQ(ReadFile("/run/hostagent/hostagent.pid"), std::to_string(lab->agent->Pid()) + "\n");

    // A paced SYN scan of a port of the shipped policy: its alarm reaches the installed alarm file.
    lab->Scan(Hping("-S", 21, 2, "u200000", 43000, kMonitoredAddr));
    ASSERT_TRUE(WaitUntil([&] { return ReadAlarms(kLogDir + "alarms.jsonl").size() >= 1; },
                          Seconds(started + 110 - time(nullptr))))
        << "no alarm in " << kLogDir << "alarms.jsonl";

    // Rotation with the shipped file: the agent is told (SIGUSR1 through the pid file) and goes on in
    // new files.
    RunResult rotate = TestSupport::Run(
        {"logrotate", "-f", "-s", lab->dir.File("logrotate.state"), "/etc/logrotate.d/hostagent"}, "",
        Seconds(60));
    ASSERT_EQ(rotate.code, 0) << rotate.output;
    ASSERT_TRUE(WaitForLine(kLogDir + "hostagent.log", "[Report] Reopening alarm files", Seconds(10)))
        << "the agent did not reopen its files after the rotation";
    lab->Scan(Hping("-S", 23, 2, "u200000", 43000, kMonitoredAddr));
    ASSERT_TRUE(WaitUntil([&] { return ReadAlarms(kLogDir + "alarms.jsonl").size() >= 1; },
                          Seconds(started + 200 - time(nullptr))))
        << "no alarm in the new alarm file";
    lab->StopAgent();
    EXPECT_NE(access("/run/hostagent/hostagent.pid", F_OK), 0) << "the pid file stayed";

    // No line lost: what the log says was sent, in the old and the new log, is what the old and the
    // new alarm file hold, one each.
    std::vector<Json::Value> filed = ReadAlarms(kLogDir + "alarms.jsonl.1"), logged;
    EXPECT_EQ(filed.size(), 1u);
    for (const Json::Value& alarm : ReadAlarms(kLogDir + "alarms.jsonl")) {
        filed.push_back(alarm);
    }
    for (const std::string& log : {kLogDir + "hostagent.log.1", kLogDir + "hostagent.log"}) {
        for (const Json::Value& alarm : LoggedAlarms(log)) {
            logged.push_back(alarm);
        }
    }
    EXPECT_EQ(filed.size(), 2u);
    EXPECT_EQ(EventIds(filed), EventIds(logged));
    EXPECT_EQ(EventIds(filed).size(), filed.size());

    RunResult purge = Dpkg({"--purge", "hostagent"});
    lab->installed = purge.code != 0;
    EXPECT_EQ(purge.code, 0) << purge.output;
}

}  // namespace
