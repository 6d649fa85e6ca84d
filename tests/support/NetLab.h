#pragma once

// Throw-away folders, network namespaces and child processes, undone when they go out of scope.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

using Seconds = std::chrono::seconds;
using Millis = std::chrono::milliseconds;

// Full path of `program` from PATH, then /usr/sbin and /sbin (root's tools); empty when not found.
std::string FindProgram(const std::string& program);

// A fresh folder under /tmp, removed with its content unless Keep() was called.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string File(const std::string& name) const { return m_path + "/" + name; }
    void Keep() { m_keep = true; }

private:
    std::string m_path;
    bool m_keep = false;
};

// A named network namespace with its loopback up; deleted with every interface in it.
class NetNs {
public:
    explicit NetNs(std::string name);
    ~NetNs();
    NetNs(const NetNs&) = delete;
    NetNs& operator=(const NetNs&) = delete;

    const std::string& Name() const { return m_name; }

private:
    std::string m_name;
};

// Deletes namespaces named `prefix` + pid + anything whose pid is gone: left by a killed run.
void RemoveStaleNamespaces(const std::string& prefix);

// A veth pair between two namespaces, each end up with its address ("a.b.c.d/len", or none); no routes.
void AddVethPair(const NetNs& a, const std::string& aIf, const std::string& aAddr, const NetNs& b,
                 const std::string& bIf, const std::string& bAddr);

// A child process, in `netns` when not empty, stdout and stderr appended to files. Ended on
// destruction (SIGTERM, SIGKILL after 5 s) and reaped; the kernel kills it if the starting thread ends.
class Child {
public:
    Child(const std::vector<std::string>& argv, const std::string& netns, const std::string& outPath,
          const std::string& errPath);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const { return m_pid; }
    bool Running();
    void Signal(int sig);
    // Exit code (128 + signal when killed), or nothing while it still runs after `timeout`.
    std::optional<int> WaitExit(Millis timeout);

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

struct RunResult {
    int code = -1;       // as WaitExit's, -1 when the time limit ended it
    std::string output;  // stdout followed by stderr
};

// Runs a program to completion in `netns` (empty: this one), killed after `limit`.
RunResult Run(const std::vector<std::string>& argv, const std::string& netns = "",
              Seconds limit = Seconds(60));
// As Run, but throws std::runtime_error with the output unless the exit code is 0.
std::string MustRun(const std::vector<std::string>& argv, const std::string& netns = "",
                    Seconds limit = Seconds(60));

std::string ReadFile(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);
// Written beside and renamed, so a reader never sees half a file.
void WriteFile(const std::string& path, const std::string& text);

// Polls every 100 ms until `ready()`; false when `timeout` passes first.
bool WaitUntil(const std::function<bool()>& ready, Millis timeout);
// Whether `path` comes to hold `needle` within `timeout`.
bool WaitForLine(const std::string& path, const std::string& needle, Millis timeout);

}  // namespace TestSupport
