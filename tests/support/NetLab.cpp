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
#include <sstream>
#include <stdexcept>
#include <thread>

namespace TestSupport {

namespace {

int DecodeStatus(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        return 128 + WTERMSIG(status);
    }
    return -1;
}

std::string Join(const std::vector<std::string>& argv) {
    std::string text;
    for (const auto& arg : argv) {
        text += (text.empty() ? "" : " ") + arg;
    }
    return text;
}

}  // namespace

std::string FindProgram(const std::string& program) {
    if (program.find('/') != std::string::npos) {
        return access(program.c_str(), X_OK) == 0 ? program : "";
    }
    const char* env = getenv("PATH");
    std::string dirs = std::string(env != nullptr ? env : "") + ":/usr/sbin:/sbin:/usr/bin:/bin";
    std::stringstream stream(dirs);
    std::string dir;
    while (std::getline(stream, dir, ':')) {
        if (dir.empty()) {
            continue;
        }
        std::string candidate = dir + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return "";
}

TempDir::TempDir() {
    char pattern[] = "/tmp/hostagent-e2e-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    if (!m_keep) {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
}

void RemoveStaleNamespaces(const std::string& prefix) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/run/netns", error)) {
        std::string name = entry.path().filename();
        if (name.rfind(prefix, 0) != 0) {
            continue;
        }
        // The owner's pid follows the prefix; only namespaces whose owner is gone are removed.
        pid_t owner = static_cast<pid_t>(atol(name.c_str() + prefix.size()));
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
        MustRun({"ip", "-n", ns->Name(), "addr", "add", addr, "dev", ifName});
        MustRun({"ip", "-n", ns->Name(), "link", "set", ifName, "up"});
    }
}

Child::Child(const std::vector<std::string>& argv, const std::string& netns, const std::string& outPath,
             const std::string& errPath) {
    if (argv.empty()) {
        throw std::invalid_argument("empty command");
    }
    std::string program = FindProgram(argv[0]);
    if (program.empty()) {
        throw std::runtime_error("program not found: " + argv[0]);
    }
    // Everything the child touches is prepared here: between fork and exec only system calls run.
    std::vector<char*> args;
    for (const auto& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    std::string nsPath = netns.empty() ? "" : "/run/netns/" + netns;
    const pid_t parent = getpid();

    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        // Dies with the test, even when the test itself is killed and no destructor runs.
        if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parent) {
            _exit(126);
        }
        if (!nsPath.empty()) {
            int fd = open(nsPath.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) {
                _exit(126);
            }
            close(fd);
        }
        int in = open("/dev/null", O_RDONLY);
        int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (in < 0 || out < 0 || err < 0) {
            _exit(126);
        }
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        // Only the three standard descriptors go to the program: some (mmdebstrap) pass numbered
        // descriptors of their own on and break on others that are open.
        for (int fd : {in, out, err}) {
            if (fd > 2) {
                close(fd);
            }
        }
        execv(program.c_str(), args.data());
        _exit(127);
    }
}

Child::~Child() {
    if (!Running()) {
        return;
    }
    Signal(SIGTERM);
    if (!WaitExit(Seconds(5))) {
        Signal(SIGKILL);
        WaitExit(Seconds(5));
    }
}

bool Child::Running() {
    if (m_pid <= 0 || m_status) {
        return false;
    }
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_status = DecodeStatus(status);
        return false;
    }
    return true;
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
    char pattern[] = "/tmp/hostagent-e2e-run-XXXXXX";
    int fd = mkstemp(pattern);
    if (fd < 0) {
        throw std::runtime_error("mkstemp failed");
    }
    close(fd);
    RunResult result;
    {
        Child child(argv, netns, pattern, pattern);
        auto code = child.WaitExit(limit);
        result.code = code ? *code : -1;
    }
    result.output = ReadFile(pattern);
    unlink(pattern);
    return result;
}

std::string MustRun(const std::vector<std::string>& argv, const std::string& netns, Seconds limit) {
    RunResult result = Run(argv, netns, limit);
    if (result.code != 0) {
        throw std::runtime_error(Join(argv) + " (netns '" + netns + "') exited " +
                                 std::to_string(result.code) + ": " + result.output);
    }
    return result.output;
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
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
    // Written beside and renamed, so a reader never sees half a file.
    std::string temp = path + ".tmp";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << text;
        if (!out.flush()) {
            throw std::runtime_error("cannot write " + temp);
        }
    }
    std::filesystem::rename(temp, path);
}

bool WaitUntil(const std::function<bool()>& ready, Millis timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!ready()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(Millis(100));
    }
    return true;
}

std::optional<std::string> WaitForLine(const std::string& path, const std::string& needle, Millis timeout) {
    std::optional<std::string> found;
    WaitUntil(
        [&] {
            for (const auto& line : ReadLines(path)) {
                if (line.find(needle) != std::string::npos) {
                    found = line;
                    return true;
                }
            }
            return false;
        },
        timeout);
    return found;
}

}  // namespace TestSupport
