#pragma once

// Plumbing for tests that drive real programs inside throw-away network namespaces. Every object
// undoes what it created when it goes out of scope, also when an assertion ends the test early.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace TestSupport {

using Seconds = std::chrono::seconds;
using Millis = std::chrono::milliseconds;

// Full path of `program`, looked up on PATH and then in /usr/sbin and /sbin (root's tools live
// there and a test runner's PATH may lack them); empty when not found.
std::string FindProgram(const std::string& program);

// A fresh folder under /tmp, removed with its content on destruction unless Keep() was called.
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

// A named network namespace with its loopback up; deleted (with every interface in it) on
// destruction.
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

// Deletes namespaces named `prefix` + pid + anything whose pid no longer runs: left over by a run
// that was killed before its destructors ran.
void RemoveStaleNamespaces(const std::string& prefix);

// A veth pair whose ends live in two namespaces, each end up and carrying one address ("a.b.c.d/len").
// No route is added beyond the connected subnets. Deleting either namespace removes the pair.
void AddVethPair(const NetNs& a, const std::string& aIf, const std::string& aAddr, const NetNs& b,
                 const std::string& bIf, const std::string& bAddr);

// A child process, optionally entered into a namespace before exec, with stdout and stderr sent
// to files. The destructor ends it (SIGTERM, then SIGKILL after 5 s) if it still runs, and reaps it;
// the kernel kills it (SIGKILL) should the thread that started it end first.
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
    // Exit code (128 + signal number when killed by a signal), or nothing when it is still running
    // after `timeout`.
    std::optional<int> WaitExit(Millis timeout);

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

struct RunResult {
    int code = -1;       // exit code, 128 + signal when killed, -1 when the time limit ended it
    std::string output;  // stdout followed by stderr
};

// Runs a program to completion in `netns` (empty: this namespace), killed after `limit`.
RunResult Run(const std::vector<std::string>& argv, const std::string& netns = "",
              Seconds limit = Seconds(60));
// As Run, but throws std::runtime_error carrying the output unless the exit code is 0.
std::string MustRun(const std::vector<std::string>& argv, const std::string& netns = "",
                    Seconds limit = Seconds(60));

std::string ReadFile(const std::string& path);
std::vector<std::string> ReadLines(const std::string& path);
void WriteFile(const std::string& path, const std::string& text);

// Polls every 100 ms until `ready()` is true; false when `timeout` passes first.
bool WaitUntil(const std::function<bool()>& ready, Millis timeout);
// Waits until a line of `path` contains `needle`; returns that line, or nothing on time-out.
std::optional<std::string> WaitForLine(const std::string& path, const std::string& needle, Millis timeout);

}  // namespace TestSupport
