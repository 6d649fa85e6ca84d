#pragma once

// Helpers shared by the end-to-end scan tests: the agent's configuration, the alarms it wrote to
// its sinks and its log, and the capture filter the kernel holds for its packet socket.

#include <json/json.h>
#include <sys/types.h>

#include <set>
#include <string>
#include <vector>

namespace ScanLab {

// An agent configuration that loads the module at `modulePath` with the policy file
// "portscan.json" under "10001", logs at debug level to "log/hostagent.log" and reports alarms to
// standard output and "alarms.jsonl" (paths relative to the configuration's folder).
std::string AgentConfigText(const std::string& modulePath);

// A task policy document (the "port_scan_task" object) inside a feature policy with `hash`.
std::string FeaturePolicyText(const Json::Value& task, const std::string& hash);

bool ParseJson(const std::string& text, Json::Value& out);

// Alarm documents of a JSON-lines file: blank lines are ignored, every other complete line must
// parse (a last line still being written is left for the next read).
std::vector<Json::Value> ReadAlarms(const std::string& path);

// The documents the agent logged as "[PortScan] Sending alarm [...]". The document holds no array,
// so it ends at the first ']'; it may span lines.
std::vector<Json::Value> LoggedAlarms(const std::string& logPath);

unsigned AlarmPort(const Json::Value& alarm);
std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms);

struct BpfInsn {
    unsigned code, jt, jf, k;
};

// The classic BPF program the kernel holds for the packet socket of process `pid` in `netns`, as
// `ss -0 -b -p` prints it; empty when there is none.
std::vector<BpfInsn> AttachedFilter(const std::string& netns, pid_t pid);

// The destination ports a filter admits: the equality tests after the port load (code 0x48).
std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program);

bool Contains(const std::vector<unsigned>& list, unsigned value);

}  // namespace ScanLab
