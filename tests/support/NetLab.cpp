#include "support/NetLab.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace TestSupport {

std::string FindProgram(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0 ? program : "";
    }
    const char* env = getenv("PATH");
    std::stringstream dirs(std::string(env != nullptr ? env : "") + ":/usr/sbin:/sbin:/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        if (!dir.empty() && access((dir + "/" + program).c_str(), X_OK) == 0) {
            return dir + "/" + program;
        }
    }
    return "";
}

TempDir::TempDir() : m_path("/tmp/hostagent-e2e-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
}

TempDir::~TempDir() {
    std::error_code ignored;
    if (!m_keep) {
        std::filesystem::remove_all(m_path, ignored);
    }
}

void RemoveStaleNamespaces(const std::string& prefix) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/run/netns", error)) {
        const std::string name = entry.path().filename();
        const pid_t owner = name.rfind(prefix, 0) == 0 ? atoi(name.c_str() + prefix.size()) : 0;
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) {
            Run({"ip", "netns", "del", name});
        }
    }
}

NetNs::NetNs(std::string name) : m_name(std::move(name)) {
    MustRun({"ip", "netns", "add", m_name});
    try {
        MustRun({"ip", "-n", m_name, "link", "set", "lo", "up"});
    } catch (...) {
        Run({"ip", "netns", "del", m_name});
        throw;
    }
}

NetNs::~NetNs() {
    Run({"ip", "netns", "del", m_name});
}

void AddVethPair(const NetNs& a, const std::string& aIf, const std::string& aAddr, const NetNs& b,
                 const std::string& bIf, const std::string& bAddr) {
    MustRun({"ip", "link", "add", aIf, "netns", a.Name(), "type", "veth", "peer", "name", bIf, "netns",
             b.Name()});
    for (const auto& [ns, ifName, addr] : {std::tuple{&a, aIf, aAddr}, std::tuple{&b, bIf, bAddr}}) {
        if (!addr.empty()) {
            MustRun({"ip", "-n", ns->Name(), "addr", "add", addr, "dev", ifName});
        }
        MustRun({"ip", "-n", ns->Name(), "link", "set", ifName, "up"});
    }
}

Child::Child(const std::vector<std::string>& argv, const std::string& netns, const std::string& outPath,
             const std::string& errPath) {
    const std::string program = argv.empty() ? "" : FindProgram(argv[0]);
    if (program.empty()) {
        throw std::runtime_error("program not found: " + (argv.empty() ? "" : argv[0]));
    }
    // Prepared before fork: between fork and exec only system calls run.
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    const std::string nsPath = "/run/netns/" + netns;
    const pid_t parent = getpid();
    if ((m_pid = fork()) < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        // Dies with the test, even when the test is killed and no destructor runs.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
            _exit(126);
        }
        const int ns = netns.empty() ? -1 : open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (!netns.empty() && (ns < 0 || setns(ns, CLONE_NEWNET) != 0)) {
            _exit(126);
        }
        const int fds[] = {open("/dev/null", O_RDONLY),
                           open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644),
                           open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)};
        // Only the standard descriptors go on: some programs (mmdebstrap) break on other open ones.
        for (int i = 0; i < 3; ++i) {
            if (fds[i] < 0 || dup2(fds[i], i) < 0 || (fds[i] > 2 && close(fds[i]) != 0)) {
                _exit(126);
            }
        }
        execv(program.c_str(), args.data());
        _exit(127);
    }
}

Child::~Child() {
    Signal(SIGTERM);
    if (!WaitExit(Seconds(5))) {
        Signal(SIGKILL);
        WaitExit(Seconds(5));
    }
}

bool Child::Running() {
    int status = 0;
    if (!m_status && m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return m_pid > 0 && !m_status;
}

void Child::Signal(int sig) {
    if (Running()) {
        kill(m_pid, sig);
    }
}

std::optional<int> Child::WaitExit(Millis timeout) {
    WaitUntil([this] { return !Running(); }, timeout);
    return m_status;
}

RunResult Run(const std::vector<std::string>& argv, const std::string& netns, Seconds limit) {
    const TempDir dir;
    const int code = Child(argv, netns, dir.File("out"), dir.File("out")).WaitExit(limit).value_or(-1);
    return {code, ReadFile(dir.File("out"))};
}

std::string MustRun(const std::vector<std::string>& argv, const std::string& netns, Seconds limit) {
    RunResult result = Run(argv, netns, limit);
    if (result.code != 0) {
        std::string command;
        for (const auto& arg : argv) {
            command += arg + " ";
        }
        throw std::runtime_error(command + "(netns '" + netns + "') exited " + std::to_string(result.code) +
                                 ": " + result.output);
    }
    return result.output;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void WriteFile(const std::string& path, const std::string& text) {
    const std::string temp = path + ".tmp";
    if (!(std::ofstream(temp, std::ios::trunc) << text).flush()) {
        throw std::runtime_error("cannot write " + temp);
    }
    std::filesystem::rename(temp, path);
}

bool WaitUntil(const std::function<bool()>& ready, Millis timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (; !ready(); std::this_thread::sleep_for(Millis(100))) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
    }
    return true;
}

bool WaitForLine(const std::string& path, const std::string& needle, Millis timeout) {
    return WaitUntil([&] { return ReadFile(path).find(needle) != std::string::npos; }, timeout);
}

}  // namespace TestSupport
