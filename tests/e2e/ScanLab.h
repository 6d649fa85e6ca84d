#pragma once

// Shared by the end-to-end scan tests: the agent's configuration, its alarms and its capture filter.

#include "support/NetLab.h"

#include <json/json.h>

#include <initializer_list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace ScanLab {

// The module on "portscan.json", a debug log in "log/hostagent.log", alarms to stdout and "alarms.jsonl".
Json::Value AgentConfig();
// A feature policy with `hash` around the "port_scan_task" `task` watching `watched` (port, type).
std::string FeaturePolicyText(const std::string& hash, const std::vector<std::pair<unsigned, int>>& watched,
                              const std::string& task);

// `text` as a JSON object; a failure when it is not one.
Json::Value Parsed(const std::string& text);
// A JSON-lines file's objects; a line still being written is left for later.
std::vector<Json::Value> ReadAlarms(const std::string& path);
// The documents logged as "[PortScan] Sending alarm [...]" (they hold no ']').
std::vector<Json::Value> LoggedAlarms(const std::string& logPath);

// Checks the alarm for TCP (UDP when `udp`) `port` from `remote`:`remotePort` to `local` since `notBefore`.
void ExpectAlarm(const Json::Value& alarm, unsigned port, bool udp, const std::string& local,
                 const std::string& remote, int remotePort, long notBefore);

unsigned AlarmPort(const Json::Value& alarm);
std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms);
std::set<std::string> EventIds(const std::vector<Json::Value>& alarms);

struct BpfInsn {
    unsigned code, jt, jf, k;
};

// The ports a filter admits: the equality tests after the port load (0x48; IPv6: 0x28 at offset 56).
std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program, bool ipv6 = false);

// Whether a socket in `ns` listens on TCP `port` (is bound to UDP `port` when `udp`).
bool Listening(const std::string& ns, const std::string& port, bool udp = false);
bool Contains(const std::vector<unsigned>& list, unsigned value);
size_t Occurrences(const std::string& text, const std::string& needle);

// Why an end-to-end test cannot run here (not root, or one of `tools` missing); empty when it can.
std::string MissingPrerequisite(std::initializer_list<const char*> tools);
#define SKIP_WITHOUT(...)                                                                  \
    if (const std::string why = ScanLab::MissingPrerequisite({__VA_ARGS__}); !why.empty()) \
    GTEST_SKIP() << why

// Writes `config` and `policy` to `folder` and runs the agent on them in `ns` ("" for this one), by
// `argv` (a wrapper whose arguments end in the agent's) if it names a program.
std::unique_ptr<TestSupport::Child> StartAgentIn(const std::string& folder, const Json::Value& config,
                                                 const std::string& policy, const std::string& ns = "",
                                                 std::vector<std::string> argv = {});
// rsyslog's configuration `body` after a global section: its state kept in `dir`, no DNS.
std::string RsyslogConf(const TestSupport::TempDir& dir, const std::string& body);
// rsyslogd in the foreground in `ns` on RsyslogConf(`body`), output to `dir`/rsyslog.out.
std::unique_ptr<TestSupport::Child> StartRsyslog(const TestSupport::TempDir& dir, const std::string& body,
                                                 const std::string& ns);

// hping3 arguments: `count` probes (`mode` "-S", "--udp") to `target`:`port` from `sourcePort` (of
// `spoofed` when given: nobody answers then).
std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target, const std::string& spoofed = "");

// A monitored and a scanner namespace on a veth pair ("to-scan" and "eth0", /24), the agent in the former
// and its folder (kept when the test failed). The agent ends before the namespaces go.
struct Lab {
    Lab(const std::string& prefix, const std::string& monitoredAddr, const std::string& scannerAddr);
    ~Lab();

    std::string Log() const { return dir.File("log/hostagent.log"); }
    std::string AlarmFile() const { return dir.File("alarms.jsonl"); }
    std::string Namespace(const std::string& name) const { return base + "-" + name; }
    // The agent's capture filter (of its socket for `protocol`, "ip" or "ipv6", when given) as `ss`
    // prints it; empty when there is none.
    std::vector<BpfInsn> AgentFilter(const std::string& protocol = "") const;

    // A further namespace, Namespace(`name`), joined to the monitored one ("to-<name>" there, "eth0" in it).
    void AddNeighbour(const std::string& name, const std::string& monitoredAddr, const std::string& addr);
    // StartAgentIn the folder and the monitored namespace; the agent must load its capture filter.
    void StartAgent(const std::string& policy, const Json::Value& config = AgentConfig());
    // SIGTERM; the agent must end with code 0 within 30 s.
    void StopAgent();
    // A bounded scanner in `ns` (default: the scanner's) must exit 0.
    void Scan(const std::vector<std::string>& argv, const std::string& ns = "");
    // One nmap run as Scan, one retry at most; over IPv6 from `source6` when given.
    void Nmap(const std::vector<std::string>& options, const std::string& ports, int sourcePort,
              const std::string& target, const std::string& source6 = "", const std::string& ns = "");
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
