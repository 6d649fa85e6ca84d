#pragma once

// Shared by the end-to-end scan tests: the agent's configuration, its alarms and its capture filter.

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

// Loads the module at `modulePath` with policy "portscan.json" under "10001", logs at debug to
// "log/hostagent.log", reports to stdout and "alarms.jsonl" (relative to the configuration's folder).
std::string AgentConfigText(const std::string& modulePath);
// A task policy (the "port_scan_task" object) in a feature policy with `hash`.
std::string FeaturePolicyText(const Json::Value& task, const std::string& hash);
// Watches `watched` (port, type), checks ports before counting, alarms at a port's first probe (nmap
// sends one to a closed port), with the four opt-in switches on.
Json::Value SwitchesOnTask(const std::vector<std::pair<unsigned, int>>& watched);

bool ParseJson(const std::string& text, Json::Value& out);
// A JSON-lines file's objects: a line still being written waits, other non-blank ones must parse.
std::vector<Json::Value> ReadAlarms(const std::string& path);
// The documents logged as "[PortScan] Sending alarm [...]" (they hold no array: the first ']' ends one).
std::vector<Json::Value> LoggedAlarms(const std::string& logPath);

// Checks every key: "Secret port scan" of a SYN to TCP `port` (a common scan of UDP `port` when
// `udp`), from `remote`:`remotePort` to `local`, raised between `notBefore` and now.
void ExpectAlarm(const Json::Value& alarm, unsigned port, bool udp, const std::string& local,
                 const std::string& remote, int remotePort, long notBefore);

unsigned AlarmPort(const Json::Value& alarm);
std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms);
std::set<std::string> EventIds(const std::vector<Json::Value>& alarms);

struct BpfInsn {
    unsigned code, jt, jf, k;
};

// The classic BPF program of process `pid`'s packet socket in `netns` as `ss -0 -b -p` prints it (of
// the socket for frame type `protocol`, "ip" or "ipv6", when given); empty when there is none.
std::vector<BpfInsn> AttachedFilter(const std::string& netns, pid_t pid, const std::string& protocol = "");
// The destination ports a filter admits: the equality tests after the port load (code 0x48; for IPv6,
// code 0x28 at the fixed offset 56).
std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program, bool ipv6 = false);

bool Contains(const std::vector<unsigned>& list, unsigned value);
size_t Occurrences(const std::string& text, const std::string& needle);

// Why an end-to-end test cannot run here (not root, or one of `tools` missing); empty when it can.
std::string MissingPrerequisite(std::initializer_list<const char*> tools);

// hping3 arguments: `count` probes (`mode` "-S", "--udp") to `target`:`port` from `sourcePort`.
std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target);

// A monitored and a scanner namespace joined by a veth pair ("to-scan" there, "eth0" here, both /24),
// a folder for the agent's files and the agent in the monitored namespace. The agent ends (by pid)
// before the namespaces go; the folder is kept when the test failed.
struct Lab {
    Lab(const std::string& prefix, const std::string& monitoredAddr, const std::string& scannerAddr);
    ~Lab();

    std::string Log() const { return dir.File("log/hostagent.log"); }
    std::string AlarmFile() const { return dir.File("alarms.jsonl"); }
    std::string Namespace(const std::string& name) const { return base + "-" + name; }

    // A further namespace joined to the monitored one ("to-<name>" there, "eth0" in it).
    const TestSupport::NetNs& AddNeighbour(const std::string& name, const std::string& monitoredAddr,
                                           const std::string& addr);
    // More addresses on the veth pair: IPv4 ones /24, IPv6 ones /64 without duplicate address detection.
    void AddAddresses(std::initializer_list<const char*> monitored,
                      std::initializer_list<const char*> scanning);
    // Writes `config` (AgentConfigText when empty) and `policy`; the agent must load its capture filter.
    void StartAgent(const std::string& policy, const std::string& config = "");
    // SIGTERM; the agent must end with code 0 within 30 s.
    void StopAgent();
    // A bounded scanner in `ns` (default: the scanner's) must exit 0: its probes went out and were
    // answered (a reset or an ICMP error counts).
    void Scan(const std::vector<std::string>& argv, const std::string& ns = "");
    // `count` SYNs claiming source `spoofed`, as Hping. Nobody answers, so only the agent's log tells.
    void SpoofedSyns(const std::string& spoofed, unsigned port, int count, const std::string& interval,
                     const std::string& target);
    // One unpaced nmap run: `options` (the scan kind first) against `target` from `sourcePort`, one
    // retry at most; over IPv6 from `source6` when given.
    void Nmap(const std::vector<std::string>& options, const std::string& ports, int sourcePort,
              const std::string& target, const std::string& source6 = "");
    bool WaitListening(unsigned port);
    // The alarm file once it holds `count` alarms (or what it holds when `limit` passes).
    std::vector<Json::Value> WaitForAlarms(size_t count,
                                           TestSupport::Seconds limit = TestSupport::Seconds(10));

    const std::string base;  // the prefix and this process' pid
    TestSupport::TempDir dir;
    TestSupport::NetNs mon, scanner;
    std::vector<std::unique_ptr<TestSupport::NetNs>> neighbours;
    std::unique_ptr<TestSupport::Child> agent;
};

}  // namespace ScanLab
