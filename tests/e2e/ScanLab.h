#pragma once

// Helpers shared by the end-to-end scan tests: the agent's configuration, the alarms it wrote to
// its sinks and its log, and the capture filter the kernel holds for its packet socket.

#include "support/NetLab.h"

#include <json/json.h>
#include <sys/types.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ScanLab {

// An agent configuration that loads the module at `modulePath` with the policy file
// "portscan.json" under "10001", logs at debug level to "log/hostagent.log" and reports alarms to
// standard output and "alarms.jsonl" (paths relative to the configuration's folder).
std::string AgentConfigText(const std::string& modulePath);

// A task policy document (the "port_scan_task" object) inside a feature policy with `hash`.
std::string FeaturePolicyText(const Json::Value& task, const std::string& hash);

// A task policy watching `watched` (port, type), checking ports before counting, alarming at the
// first probe of a port (nmap sends one to a closed port), with the four opt-in switches on.
Json::Value SwitchesOnTask(const std::vector<std::pair<unsigned, int>>& watched);

bool ParseJson(const std::string& text, Json::Value& out);

// Alarm documents of a JSON-lines file: blank lines are ignored, every other complete line must
// parse (a last line still being written is left for the next read).
std::vector<Json::Value> ReadAlarms(const std::string& path);

// The documents the agent logged as "[PortScan] Sending alarm [...]". The document holds no array,
// so it ends at the first ']'; it may span lines.
std::vector<Json::Value> LoggedAlarms(const std::string& logPath);

// Checks every key of an alarm document: "Secret port scan" of a SYN to TCP `port` (a common scan
// of UDP `port` when `udp`), from `remote`:`remotePort` to `local`, raised between `notBefore` and now.
void ExpectAlarm(const Json::Value& alarm, unsigned port, bool udp, const std::string& local,
                 const std::string& remote, int remotePort, long notBefore);

unsigned AlarmPort(const Json::Value& alarm);
std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms);

// The "event_id" of each alarm.
std::set<std::string> EventIds(const std::vector<Json::Value>& alarms);

struct BpfInsn {
    unsigned code, jt, jf, k;
};

// The classic BPF program the kernel holds for the packet socket of process `pid` in `netns`, as
// `ss -0 -b -p` prints it; empty when there is none. With `protocol` ("ip", "ipv6"), only the socket
// for that frame type counts.
std::vector<BpfInsn> AttachedFilter(const std::string& netns, pid_t pid, const std::string& protocol = "");

// The destination ports a filter admits: the equality tests after the port load (code 0x48).
std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program);
// The same for the IPv6 filter, whose port load reads the fixed offset 56 (code 0x28).
std::vector<unsigned> FilterPorts6(const std::vector<BpfInsn>& program);

bool Contains(const std::vector<unsigned>& list, unsigned value);
size_t Occurrences(const std::string& text, const std::string& needle);

// Why an end-to-end test cannot run here (not root, or one of `tools` missing); empty when it can.
std::string MissingPrerequisite(std::initializer_list<const char*> tools);

// hping3 arguments for `count` probes (`mode`: "-S", "--udp") to `target`:`port` from a fixed
// source port, `interval` apart.
std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target);

// A monitored namespace and a scanner namespace joined by a veth pair ("to-scan" there, "eth0" here,
// both /24), a folder for the agent's files and the agent in the monitored namespace. The agent ends
// (by pid) before the namespaces go; the folder is kept when the test failed.
struct Lab {
    Lab(const std::string& prefix, const std::string& monitoredAddr, const std::string& scannerAddr);
    ~Lab();

    std::string Log() const { return dir.File("log/hostagent.log"); }
    std::string AlarmFile() const { return dir.File("alarms.jsonl"); }
    std::string Namespace(const std::string& name) const { return prefix + tag + "-" + name; }

    // A further namespace joined to the monitored one ("to-<name>" there, "eth0" in it).
    const TestSupport::NetNs& AddNeighbour(const std::string& name, const std::string& monitoredAddr,
                                           const std::string& addr);
    // More addresses on the veth pair: IPv6 ones ("fd00::1") as /64 without duplicate address
    // detection, so they are usable at once; IPv4 ones as /24.
    void AddAddresses(std::initializer_list<const char*> monitored,
                      std::initializer_list<const char*> scanning);
    // Writes `config` (AgentConfigText when empty) and the policy `policy`, starts the agent and
    // waits until its capture filter is loaded.
    void StartAgent(const std::string& policy, const std::string& config = "");
    // SIGTERM; the agent must end with code 0 within 30 s.
    void StopAgent();
    // Runs a bounded scanner in `ns` (the scanner namespace when empty); it exits 0 only when its
    // probes went out and were answered (a reset or an ICMP error counts).
    void Scan(const std::vector<std::string>& argv, const std::string& ns = "");
    // `count` hping3 SYNs from the scanner namespace to `target`:`port`, `interval` apart, claiming the
    // source `spoofed`. Nobody answers it, so hping3's exit code says nothing (the agent's log does).
    void SpoofedSyns(const std::string& spoofed, unsigned port, int count, const std::string& interval,
                     const std::string& target);
    // One unpaced nmap run from the scanner namespace: `options` (the scan kind first) against
    // `target` from `sourcePort`, one retry at most; over IPv6 from `source6` when given.
    void Nmap(const std::vector<std::string>& options, const std::string& ports, int sourcePort,
              const std::string& target, const std::string& source6 = "");
    // Waits until a TCP socket of the monitored namespace listens on `port`.
    bool WaitListening(unsigned port);
    // The alarm file once it holds `count` alarms (what it holds when `limit` passes first).
    std::vector<Json::Value> WaitForAlarms(size_t count,
                                           TestSupport::Seconds limit = TestSupport::Seconds(10));

    const std::string prefix, tag;
    TestSupport::TempDir dir;
    TestSupport::NetNs mon, scanner;
    std::vector<std::unique_ptr<TestSupport::NetNs>> neighbours;
    std::unique_ptr<TestSupport::Child> agent;
};

}  // namespace ScanLab
