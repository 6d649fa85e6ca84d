#include "AgentKeys.h"

#include "AgentTunables.h"
#include "builtin_tasks/DataCommReportTask.h"

#include <sstream>
#include <stdexcept>

namespace HostAgent {

namespace {

constexpr const char* kNoChoices = "";
constexpr const char* kAnySink = "";

std::vector<AgentKey> MakeKeys() {
    static const std::string spoolDefault = std::to_string(Engine::ReportSink::kDefaultSpoolMaxBytes);
    return {
        {"log", KeyKind::Object, "", 0, 0, kNoChoices, kAnySink, "where and how much the agent logs"},
        {"log.level", KeyKind::Choice, "information", 0, 0, "error|warning|information|debug", kAnySink,
         "the least priority written"},
        {"log.console", KeyKind::Flag, "true", 0, 0, kNoChoices, kAnySink, "also log to standard error"},
        {"log.file", KeyKind::Path, "\"\"", 0, 0, kNoChoices, kAnySink, "log file (\"\" for none)"},
        {"connect", KeyKind::List, "[]", 0, 0, kNoChoices, kAnySink,
         "[\"address:port\", ...]: management-server endpoints, readable by modules"},
        {"cpu_limit_percent", KeyKind::Integer, "0", 0, 100, kNoChoices, kAnySink,
         "CPU share per busy thread in percent of one core (0: no limit)"},
        {"modules", KeyKind::List, "[]", 0, 0, kNoChoices, kAnySink,
         "[library, ...]: module libraries, loaded in this order"},
        {"policies", KeyKind::Object, "{}", 0, 0, kNoChoices, kAnySink,
         "{\"feature key\": policy file, ...}: each file holds one JSON object"},
        {"report", KeyKind::Object, "", 0, 0, kNoChoices, kAnySink, "where alarm events go"},
        {"report.sinks", KeyKind::List, "[{\"type\": \"stdout\"}]", 0, 0, kNoChoices, kAnySink,
         "[sink, ...]: every alarm goes to each sink"},
        {"report.sinks[].type", KeyKind::Choice, "", 0, 0, "stdout|file|syslog", kAnySink,
         "JSON lines on standard output or in a file, or syslog messages"},
        {"report.sinks[].path", KeyKind::Path, kSyslogSocket, 0, 0, kNoChoices, "file|syslog",
         "the alarm file (required), or the local syslog socket"},
        {"report.sinks[].address", KeyKind::Text, "", 0, 0, kNoChoices, "syslog",
         "\"host:port\" of a remote syslog collector"},
        {"report.sinks[].protocol", KeyKind::Choice, "udp", 0, 0, "udp|tcp", "syslog",
         "transport to the collector"},
        {"report.sinks[].spool", KeyKind::Path, "", 0, 0, kNoChoices, "syslog",
         "tcp: file that keeps alarms the collector has not taken, across restarts"},
        {"report.sinks[].spool_max_bytes", KeyKind::Integer, spoolDefault.c_str(), kMinSpoolBytes,
         kMaxSpoolBytes, kNoChoices, "syslog", "tcp: bound of the spool; the oldest alarms go first"},
        {"report.sinks[].format", KeyKind::Choice, "native", 0, 0, "native|ecs", kAnySink,
         "each alarm as the module's document, or as an Elastic Common Schema one"},
        {"supervisor", KeyKind::Object, "", 0, 0, kNoChoices, kAnySink,
         "restarts and renewals of module tasks"},
        {"supervisor.restart_delay_s", KeyKind::Integer, "60", 1, 86400, kNoChoices, kAnySink,
         "a task that stopped by itself starts again after this (doubling on quick repeats)"},
        {"supervisor.renew_after_s", KeyKind::Integer, "86400", 0, 365L * 86400, kNoChoices, kAnySink,
         "each module task starts afresh this often (0: never)"},
        {"metrics_file", KeyKind::Path, "\"\" (none)", 0, 0, kNoChoices, kAnySink,
         "Prometheus text file, rewritten every 15 s (a node exporter's textfile collector reads it)"},
        {"status_file", KeyKind::Path, "hostagent.status.json beside the log file", 0, 0, kNoChoices,
         kAnySink, "status of the running agent, beside the log file unless named; read it with --status"},
    };
}

bool HasChoice(const std::string& list, const std::string& value) {
    return ("|" + list + "|").find("|" + value + "|") != std::string::npos;
}

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace

const std::vector<AgentKey>& AgentKeys() {
    static const std::vector<AgentKey> keys = MakeKeys();
    return keys;
}

const AgentKey& Key(const std::string& name) {
    for (const AgentKey& key : AgentKeys()) {
        if (name == key.name) {
            return key;
        }
    }
    throw std::logic_error("no config key " + name);
}

std::vector<std::string> ChildKeys(const std::string& parent, const std::string& sinkType) {
    const std::string prefix = parent.empty() ? "" : parent + ".";
    std::vector<std::string> children;
    for (const AgentKey& key : AgentKeys()) {
        const std::string name = key.name;
        if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size()) {
            continue;
        }
        const std::string rest = name.substr(prefix.size());
        if (rest.find('.') != std::string::npos) {
            continue;
        }
        if (!sinkType.empty() && *key.sinkTypes != '\0' && !HasChoice(key.sinkTypes, sinkType)) {
            continue;
        }
        children.push_back(rest);
    }
    return children;
}

std::string KeyRangeText(const AgentKey& key) {
    switch (key.kind) {
        case KeyKind::Integer:
            return "an integer " + std::to_string(key.low) + ".." + std::to_string(key.high);
        case KeyKind::Choice: {
            std::string text;
            std::string choices = key.choices;
            std::size_t start = 0;
            std::vector<std::string> items;
            for (std::size_t bar; (bar = choices.find('|', start)) != std::string::npos; start = bar + 1) {
                items.push_back(choices.substr(start, bar - start));
            }
            items.push_back(choices.substr(start));
            for (std::size_t i = 0; i < items.size(); ++i) {
                text += (i == 0 ? "" : i + 1 == items.size() ? " or " : ", ") + Quoted(items[i]);
            }
            return text;
        }
        case KeyKind::Flag:
            return "true or false";
        case KeyKind::Object:
            return "an object";
        case KeyKind::List:
            return "an array";
        case KeyKind::Text:
        case KeyKind::Path:
            return "a string";
    }
    return "";
}

bool IsChoiceOf(const AgentKey& key, const std::string& value) {
    return key.kind == KeyKind::Choice && HasChoice(key.choices, value);
}

std::string KeyHelpText() {
    std::ostringstream text;
    for (const AgentKey& key : AgentKeys()) {
        std::string head = Quoted(key.name);
        std::string values;
        if (key.kind == KeyKind::Integer || key.kind == KeyKind::Choice || key.kind == KeyKind::Flag) {
            values = key.kind == KeyKind::Integer ? std::to_string(key.low) + ".." + std::to_string(key.high)
                     : key.kind == KeyKind::Flag  ? "true|false"
                                                  : key.choices;
        }
        if (*key.defaultText != '\0') {
            values += (values.empty() ? "default " : ", default ") + std::string(key.defaultText);
        }
        if (*key.sinkTypes != '\0') {
            values += (values.empty() ? "" : "; ") + std::string("type ") + key.sinkTypes;
        }
        text << "  " << head;
        if (!values.empty()) {
            text << "  " << values;
        }
        text << "\n      " << key.help << "\n";
    }
    return text.str();
}

}  // namespace HostAgent
