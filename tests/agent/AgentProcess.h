#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace AgentTest {

// The hostagent binary run as a child process, its stdout and stderr going to files. The child is
// killed (by its pid) and reaped when the object goes away while it still runs.
class AgentProcess {
public:
    AgentProcess(const std::vector<std::string>& args, const std::filesystem::path& stdoutFile,
                 const std::filesystem::path& stderrFile);
    ~AgentProcess();

    AgentProcess(const AgentProcess&) = delete;
    AgentProcess& operator=(const AgentProcess&) = delete;

    bool Started() const { return m_pid > 0; }
    bool Signal(int signal);
    // The exit status (or 128 + signal number when a signal ended it), or none when the child is
    // still running after `timeout`.
    std::optional<int> WaitForExit(std::chrono::milliseconds timeout);

private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    std::optional<int> m_exitCode;
};

// Runs hostagent with `args` to its end (killed after `timeout`).
struct Finished {
    std::optional<int> exitCode;  // none when it had to be killed
    std::string out;
    std::string err;
};
Finished RunToEnd(const std::vector<std::string>& args, std::chrono::milliseconds timeout);

// Calls `done` every 20 ms until it returns true or `timeout` passes; returns its last answer.
template <typename Predicate>
bool WaitUntil(Predicate done, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return done();
        }
        struct timespec pause = {0, 20 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

}  // namespace AgentTest
