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

// Loads the module at PORTSCAN_MODULE_PATH with policy "portscan.json" under "10001", logs at debug to
// "log/hostagent.log", reports to stdout and "alarms.jsonl" (relative to the configuration's folder).
Json::Value AgentConfig();
// A task policy (the "port_scan_task" object) in a feature policy with `hash`.
std::string FeaturePolicyText(const std::string& hash, const Json::Value& task);
// The task `json` watching `watched` (port, type).
Json::Value WatchingTask(const std::vector<std::pair<unsigned, int>>& watched, const std::string& json);

// `text` as a JSON object; a failure when it is not one.
Json::Value Parsed(const std::string& text);
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

// Whether a socket in `ns` listens on TCP `port` (is bound to UDP `port` when `udp`).
bool Listening(const std::string& ns, const std::string& port, bool udp = false);
bool Contains(const std::vector<unsigned>& list, unsigned value);
size_t Occurrences(const std::string& text, const std::string& needle);

// Why an end-to-end test cannot run here (not root, or one of `tools` missing); empty when it can.
// SKIP_WITHOUT skips the test with that reason.
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

// hping3 arguments: `count` probes (`mode` "-S", "--udp") to `target`:`port` from `sourcePort`.
std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target);

// A monitored and a scanner namespace on a veth pair ("to-scan" there, "eth0" here, /24), the agent in the
// former, its folder (kept when the test failed). The agent ends (by pid) before the namespaces go.
struct Lab {
    Lab(const std::string& prefix, const std::string& monitoredAddr, const std::string& scannerAddr);
    ~Lab();

    std::string Log() const { return dir.File("log/hostagent.log"); }
    std::string AlarmFile() const { return dir.File("alarms.jsonl"); }
    std::string Namespace(const std::string& name) const { return base + "-" + name; }
    std::vector<BpfInsn> AgentFilter(const std::string& protocol = "") const {
        return AttachedFilter(mon.Name(), agent->Pid(), protocol);
    }

    // A further namespace joined to the monitored one ("to-<name>" there, "eth0" in it).
    const TestSupport::NetNs& AddNeighbour(const std::string& name, const std::string& monitoredAddr,
                                           const std::string& addr);
    // StartAgentIn the folder and the monitored namespace; the agent must load its capture filter.
    void StartAgent(const std::string& policy, const Json::Value& config = AgentConfig());
    // SIGTERM; the agent must end with code 0 within 30 s.
    void StopAgent();
    // A bounded scanner in `ns` (default: the scanner's) must exit 0: its probes were answered.
    void Scan(const std::vector<std::string>& argv, const std::string& ns = "");
    // `count` SYNs claiming source `spoofed`, as Hping. Nobody answers, so only the agent's log tells.
    void SpoofedSyns(const std::string& spoofed, unsigned port, int count, const std::string& interval,
                     const std::string& target);
    // One unpaced nmap run as Scan: `options` (the scan kind first) against `target` from
    // `sourcePort`, one retry at most; over IPv6 from `source6` when given.
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
