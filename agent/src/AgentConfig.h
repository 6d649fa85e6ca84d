#pragma once

#include "builtin_tasks/DataCommReportTask.h"
#include "sdk/LoggerUtils.h"

#include <string>
#include <vector>

namespace HostAgent {

// One policy file and the feature key it is delivered under.
struct PolicySource {
    std::string key;   // feature key, e.g. "10001"
    std::string path;  // absolute path of the policy file
};

// The agent's config file, validated, with every path made absolute.
//
// Format (a JSON object; every key optional, any other key rejected):
//   "log":               { "level": "error"|"warning"|"information"|"debug",
//                          "console": bool, "file": path ("" for none) }
//   "connect":           [ "address:port", ... ]   management-server endpoints
//   "cpu_limit_percent": integer 0..100 (0 = no limit)
//   "modules":           [ path of a module library, ... ]   loaded in this order
//   "policies":          { feature key: path of a policy file, ... }
//   "report":            { "sinks": [ { "type": "stdout" } | { "type": "file", "path": path }
//                                       | { "type": "syslog" [, "path": local socket] }
//                                       | { "type": "syslog", "address": "host:port",
//                                           "protocol": "udp"|"tcp", "spool": path (tcp),
//                                           "spool_max_bytes": integer (tcp) }, ... ] }
//   "supervisor":        { "restart_delay_s": 1..86400 (60), "renew_after_s": 0..31536000 (86400, 0 off) }
//   "status_file":       path of the status file (default: hostagent.status.json beside the log
//                        file, or beside the config file when there is no log file)
// Relative paths start at the config file's folder. Without "report", alarms go to stdout.
struct AgentConfig {
    std::string file;    // the config file, absolute
    std::string folder;  // its folder, where relative paths start
    SDK::LogSettings log;
    std::vector<std::string> connect;
    int cpuLimitPercent = 0;
    std::vector<std::string> modules;
    std::vector<PolicySource> policies;  // in key order
    std::vector<Engine::ReportSink> sinks;
    int restartDelaySeconds = 60;    // cool-down before a task that stopped by itself starts again
    long renewAfterSeconds = 86400;  // module tasks start afresh this often; 0: never
    std::string statusFile;
    std::string metricsFile;  // "" when no metrics are written
};

// Every problem message has the form "<file>: <problem>", naming the offending key.

// `text` as one line of plain text: control characters (a key or path may hold a line break) are
// written as \xNN, so they cannot start a line of their own.
std::string PrintableText(const std::string& text);

// Reads and validates the config file `path` (the checks of ParseAgentConfig).
bool LoadAgentConfig(const std::string& path, AgentConfig& config, std::string& error);

// Validates `text` as the content of the config file `path` (which names the file in messages and
// anchors relative paths). Checks syntax, duplicate and unknown keys, types and value ranges; does
// not look at the files the config names.
bool ParseAgentConfig(const std::string& path, const std::string& text, AgentConfig& config,
                      std::string& error);

// True when every module library exists as a regular file.
bool CheckModuleFiles(const AgentConfig& config, std::string& error);

}  // namespace HostAgent
