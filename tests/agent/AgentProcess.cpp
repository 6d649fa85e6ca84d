#include "AgentProcess.h"

#include "TestFiles.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>

extern char** environ;

namespace AgentTest {

AgentProcess::AgentProcess(const std::vector<std::string>& args, const std::filesystem::path& stdoutFile,
                           const std::filesystem::path& stderrFile) {
    std::vector<std::string> argv = {HOSTAGENT_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& arg : argv) {
        pointers.push_back(arg.data());
    }
    pointers.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrFile.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    // The child starts with no blocked signals and default actions, whatever this process uses.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    pid_t pid = -1;
    if (posix_spawn(&pid, HOSTAGENT_BIN, &actions, &attributes, pointers.data(), environ) == 0) {
        m_pid = pid;
    }
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
}

AgentProcess::~AgentProcess() {
    if (m_pid > 0 && !m_reaped) {
        kill(m_pid, SIGKILL);
        int status = 0;
        waitpid(m_pid, &status, 0);
    }
}

bool AgentProcess::Signal(int signal) {
    return m_pid > 0 && !m_reaped && kill(m_pid, signal) == 0;
}

std::optional<int> AgentProcess::WaitForExit(std::chrono::milliseconds timeout) {
    if (m_pid <= 0) {
        return std::nullopt;
    }
    WaitUntil(
        [&]() {
            if (m_reaped) {
                return true;
            }
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) != m_pid) {
                return false;
            }
            m_reaped = true;
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        },
        timeout);
    return m_exitCode;
}

Finished RunToEnd(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
    TempFolder folder;
    Finished finished;
    {
        AgentProcess agent(args, folder / "stdout", folder / "stderr");
        finished.exitCode = agent.WaitForExit(timeout);
    }
    finished.out = ReadFile(folder / "stdout");
    finished.err = ReadFile(folder / "stderr");
    return finished;
}

}  // namespace AgentTest
