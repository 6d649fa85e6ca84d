#include "AgentConfig.h"

#include "AgentKeys.h"
#include "AgentTunables.h"
#include "FileSafety.h"
#include "JsonText.h"
#include "PolicyFile.h"
#include "builtin_tasks/HostPort.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <stdexcept>

namespace HostAgent {

namespace {

// Thrown inside this file only, with the problem text (key and what is wrong); turned into the
// result of ParseAgentConfig.
class ConfigProblem : public std::runtime_error {
public:
    explicit ConfigProblem(const std::string& what) : std::runtime_error(what) {}
};

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// Refuses a key of `object` (found at `where`, "" for the top) that the key table has not below
// `parent`; a sink of `sinkType` takes only the sink keys of its type.
void RejectUnknownKeys(const Json::Value& object, const std::string& where, const std::string& parent,
                       const std::string& sinkType = "") {
    const std::vector<std::string> known = ChildKeys(parent, sinkType);
    for (const std::string& key : object.getMemberNames()) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
            throw ConfigProblem("unknown key " + Quoted(where.empty() ? key : where + "." + key));
        }
    }
}

const Json::Value& Expect(const Json::Value& value, Json::ValueType type, const std::string& where,
                          const char* what) {
    bool ok = type == Json::intValue ? value.isInt() : value.type() == type;
    if (!ok) {
        throw ConfigProblem(Quoted(where) + " must be " + what);
    }
    return value;
}

std::string NonEmptyString(const Json::Value& value, const std::string& where) {
    std::string text = Expect(value, Json::stringValue, where, "a string").asString();
    if (text.empty()) {
        throw ConfigProblem(Quoted(where) + " must not be empty");
    }
    return text;
}

// The integer at `where`, in the range of `key`.
long long IntegerIn(const Json::Value& value, const std::string& where, const AgentKey& key) {
    const std::string range = KeyRangeText(key);
    if (!value.isIntegral()) {
        throw ConfigProblem(Quoted(where) + " must be " + range);
    }
    const long long number = value.asLargestInt();
    if (number < key.low || number > key.high) {
        throw ConfigProblem(Quoted(where) + " must be " + range + ", not " + std::to_string(number));
    }
    return number;
}

// The string at `where`, one of the choices of `key`; `what` names a wrong one ("unknown level").
std::string ChoiceOf(const Json::Value& value, const std::string& where, const AgentKey& key,
                     const std::string& what) {
    const std::string text = Expect(value, Json::stringValue, where, "a string").asString();
    if (!IsChoiceOf(key, text)) {
        throw ConfigProblem(Quoted(where) + ": " + what + " " + Quoted(text) + " (use " + KeyRangeText(key) +
                            ")");
    }
    return text;
}

class Resolver {
public:
    explicit Resolver(const std::string& folder) : m_folder(Poco::Path::forDirectory(folder)) {}
    std::string operator()(const std::string& path) const {
        Poco::Path resolved(m_folder);
        resolved.resolve(Poco::Path(path));
        return resolved.toString();
    }

private:
    Poco::Path m_folder;
};

void ParseLog(const Json::Value& log, const Resolver& resolve, SDK::LogSettings& settings) {
    Expect(log, Json::objectValue, "log", "an object");
    RejectUnknownKeys(log, "log", "log");
    if (log.isMember("level")) {
        settings.level = ChoiceOf(log["level"], "log.level", Key("log.level"), "unknown level");
    }
    if (log.isMember("console")) {
        settings.console =
            Expect(log["console"], Json::booleanValue, "log.console", "true or false").asBool();
    }
    if (log.isMember("file")) {
        std::string file = Expect(log["file"], Json::stringValue, "log.file", "a string").asString();
        settings.file = file.empty() ? file : resolve(file);
    }
}

void ParseConnect(const Json::Value& connect, std::vector<std::string>& endpoints) {
    Expect(connect, Json::arrayValue, "connect", "an array of \"address:port\" strings");
    for (Json::ArrayIndex i = 0; i < connect.size(); ++i) {
        std::string where = "connect[" + std::to_string(i) + "]";
        std::string endpoint = NonEmptyString(connect[i], where);
        std::string host;
        unsigned short port = 0;
        if (!Engine::ParseHostPort(endpoint, host, port)) {
            throw ConfigProblem(Quoted(where) + ": " + Quoted(endpoint) +
                                " is not of the form address:port (port 1..65535)");
        }
        endpoints.push_back(endpoint);
    }
}

void ParseModules(const Json::Value& modules, const Resolver& resolve, std::vector<std::string>& paths) {
    Expect(modules, Json::arrayValue, "modules", "an array of library paths");
    std::set<std::string> seen;
    for (Json::ArrayIndex i = 0; i < modules.size(); ++i) {
        std::string where = "modules[" + std::to_string(i) + "]";
        std::string path = resolve(NonEmptyString(modules[i], where));
        if (!seen.insert(path).second) {
            throw ConfigProblem(Quoted(where) + ": module " + path + " is listed twice");
        }
        paths.push_back(path);
    }
}

void ParsePolicies(const Json::Value& policies, const Resolver& resolve, std::vector<PolicySource>& sources) {
    Expect(policies, Json::objectValue, "policies", "an object of feature key to policy file");
    for (const std::string& key : policies.getMemberNames()) {
        if (key.empty()) {
            throw ConfigProblem("\"policies\": a feature key must not be empty");
        }
        sources.push_back(PolicySource{key, resolve(NonEmptyString(policies[key], "policies." + key))});
    }
}

// {"type": "syslog"} alone is the local syslog socket; with "address" a collector over "protocol"
// "udp" (the default) or "tcp"; only TCP has a spool.
Engine::ReportSink ParseSyslogSink(const Json::Value& sink, const std::string& where,
                                   const Resolver& resolve) {
    RejectUnknownKeys(sink, where, "report.sinks[]", "syslog");
    Engine::ReportSink parsed;
    parsed.kind = Engine::ReportSink::Kind::Syslog;
    if (!sink.isMember("address")) {
        for (const char* key : {"protocol", "spool", "spool_max_bytes"}) {
            if (sink.isMember(key)) {
                throw ConfigProblem(Quoted(where + "." + key) + " needs \"address\" (a remote collector)");
            }
        }
        parsed.transport = Engine::ReportSink::Transport::Local;
        parsed.path =
            sink.isMember("path") ? resolve(NonEmptyString(sink["path"], where + ".path")) : kSyslogSocket;
        return parsed;
    }
    if (sink.isMember("path")) {
        throw ConfigProblem(Quoted(where + ".path") + " names the local syslog socket; not with \"address\"");
    }
    parsed.address = NonEmptyString(sink["address"], where + ".address");
    std::string host;
    unsigned short port = 0;
    if (!Engine::ParseHostPort(parsed.address, host, port)) {
        throw ConfigProblem(Quoted(where + ".address") + ": " + Quoted(parsed.address) +
                            " is not of the form host:port (port 1..65535)");
    }
    const AgentKey& protocolKey = Key("report.sinks[].protocol");
    const std::string protocol = sink.isMember("protocol") ? ChoiceOf(sink["protocol"], where + ".protocol",
                                                                      protocolKey, "unknown protocol")
                                                           : protocolKey.defaultText;
    parsed.transport =
        protocol == "tcp" ? Engine::ReportSink::Transport::Tcp : Engine::ReportSink::Transport::Udp;
    for (const char* key : {"spool", "spool_max_bytes"}) {
        if (sink.isMember(key) && parsed.transport != Engine::ReportSink::Transport::Tcp) {
            throw ConfigProblem(Quoted(where + "." + key) + " needs \"protocol\": \"tcp\"");
        }
    }
    if (sink.isMember("spool")) {
        parsed.spool = resolve(NonEmptyString(sink["spool"], where + ".spool"));
    }
    if (sink.isMember("spool_max_bytes")) {
        parsed.spoolMaxBytes = static_cast<std::size_t>(IntegerIn(
            sink["spool_max_bytes"], where + ".spool_max_bytes", Key("report.sinks[].spool_max_bytes")));
    }
    return parsed;
}

void ParseReport(const Json::Value& report, const Resolver& resolve, std::vector<Engine::ReportSink>& sinks) {
    Expect(report, Json::objectValue, "report", "an object");
    RejectUnknownKeys(report, "report", "report");
    if (!report.isMember("sinks")) {
        throw ConfigProblem("\"report.sinks\" is missing");
    }
    const Json::Value& list = Expect(report["sinks"], Json::arrayValue, "report.sinks", "an array");
    if (list.empty()) {
        throw ConfigProblem("\"report.sinks\" must name at least one sink, or alarms would be lost");
    }
    std::set<std::string> seen;
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        std::string where = "report.sinks[" + std::to_string(i) + "]";
        const Json::Value& sink = Expect(list[i], Json::objectValue, where, "an object");
        const AgentKey& typeKey = Key("report.sinks[].type");
        if (!sink.isMember("type")) {
            throw ConfigProblem(Quoted(where + ".type") + " is missing (" + KeyRangeText(typeKey) + ")");
        }
        const std::string type = ChoiceOf(sink["type"], where + ".type", typeKey, "unknown sink type");
        Engine::ReportSink parsed;
        if (type == "stdout") {
            RejectUnknownKeys(sink, where, "report.sinks[]", type);
            parsed.kind = Engine::ReportSink::Kind::Stdout;
        } else if (type == "file") {
            RejectUnknownKeys(sink, where, "report.sinks[]", type);
            if (!sink.isMember("path")) {
                throw ConfigProblem(Quoted(where + ".path") + " is missing");
            }
            parsed.kind = Engine::ReportSink::Kind::File;
            parsed.path = resolve(NonEmptyString(sink["path"], where + ".path"));
        } else {
            parsed = ParseSyslogSink(sink, where, resolve);
        }
        if (sink.isMember("format")) {
            parsed.format = ChoiceOf(sink["format"], where + ".format", Key("report.sinks[].format"),
                                     "unknown format") == "ecs"
                                ? Engine::ReportSink::Format::Ecs
                                : Engine::ReportSink::Format::Native;
        }
        std::string identity = parsed.kind == Engine::ReportSink::Kind::Stdout ? "stdout"
                               : parsed.address.empty()                        ? parsed.path
                                                                               : parsed.address;
        if (!seen.insert(identity).second) {
            throw ConfigProblem(Quoted(where) + ": sink " + identity + " is listed twice");
        }
        sinks.push_back(parsed);
    }
}

void ParseSupervisor(const Json::Value& supervisor, AgentConfig& config) {
    Expect(supervisor, Json::objectValue, "supervisor", "an object");
    RejectUnknownKeys(supervisor, "supervisor", "supervisor");
    for (const char* name : {"supervisor.restart_delay_s", "supervisor.renew_after_s"}) {
        const std::string key = std::string(name).substr(std::string("supervisor.").size());
        if (supervisor.isMember(key)) {
            const long long value = IntegerIn(supervisor[key], name, Key(name));
            if (key == "restart_delay_s") {
                config.restartDelaySeconds = static_cast<int>(value);
            } else {
                config.renewAfterSeconds = static_cast<long>(value);
            }
        }
    }
}

}  // namespace

// An error is one line of plain text: control characters that come from the config's own strings
// (a key or path may hold a line break) are written as \xNN, so they cannot start a line of their own.
std::string PrintableText(const std::string& text) {
    static const char* const kHex = "0123456789abcdef";
    std::string printable;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            printable += "\\x";
            printable += kHex[c >> 4];
            printable += kHex[c & 0x0f];
        } else {
            printable += static_cast<char>(c);
        }
    }
    return printable;
}

bool ParseAgentConfig(const std::string& path, const std::string& text, AgentConfig& config,
                      std::string& error) {
    AgentConfig parsed;
    Poco::Path file(path);
    file.makeAbsolute();
    parsed.file = file.toString();
    parsed.folder = file.parent().toString();
    try {
        Json::Value root;
        std::string syntax;
        if (!ParseJsonText(text, true, root, syntax)) {
            throw ConfigProblem("not valid JSON: " + syntax);
        }
        if (!root.isObject()) {
            throw ConfigProblem("the config must be a JSON object");
        }
        RejectUnknownKeys(root, "", "");
        Resolver resolve(parsed.folder);
        if (root.isMember("log")) {
            ParseLog(root["log"], resolve, parsed.log);
        }
        if (root.isMember("connect")) {
            ParseConnect(root["connect"], parsed.connect);
        }
        if (root.isMember("cpu_limit_percent")) {
            parsed.cpuLimitPercent = static_cast<int>(
                IntegerIn(root["cpu_limit_percent"], "cpu_limit_percent", Key("cpu_limit_percent")));
        }
        if (root.isMember("modules")) {
            ParseModules(root["modules"], resolve, parsed.modules);
        }
        if (root.isMember("policies")) {
            ParsePolicies(root["policies"], resolve, parsed.policies);
        }
        if (root.isMember("report")) {
            ParseReport(root["report"], resolve, parsed.sinks);
        } else {
            parsed.sinks.push_back(Engine::ReportSink{});
        }
        if (root.isMember("supervisor")) {
            ParseSupervisor(root["supervisor"], parsed);
        }
        if (root.isMember("metrics_file")) {
            parsed.metricsFile = resolve(NonEmptyString(root["metrics_file"], "metrics_file"));
        }
        if (root.isMember("status_file")) {
            parsed.statusFile = resolve(NonEmptyString(root["status_file"], "status_file"));
        } else {
            Poco::Path beside(parsed.log.file.empty() ? parsed.file : parsed.log.file);
            beside.setFileName(kStatusFileName);
            parsed.statusFile = beside.toString();
        }
    } catch (const ConfigProblem& problem) {
        error = PrintableText(parsed.file + ": " + problem.what());
        return false;
    }
    config = parsed;
    return true;
}

bool LoadAgentConfig(const std::string& path, AgentConfig& config, std::string& error) {
    std::string problem;
    if (!CheckFileSafety(path, problem)) {
        error = PrintableText(path + ": " + problem);
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = PrintableText(path + ": cannot read the config file: " + std::strerror(errno));
        return false;
    }
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return ParseAgentConfig(path, text, config, error);
}

bool CheckModuleFiles(const AgentConfig& config, std::string& error) {
    for (const std::string& module : config.modules) {
        try {
            Poco::File file(module);
            if (!file.exists()) {
                error = PrintableText(config.file + ": module file " + module + " does not exist");
                return false;
            }
            if (!file.isFile()) {
                error = PrintableText(config.file + ": module file " + module + " is not a regular file");
                return false;
            }
            std::string problem;
            if (!CheckFileSafety(module, problem)) {
                error = PrintableText(module + ": " + problem + " (module named in " + config.file + ")");
                return false;
            }
        } catch (const Poco::Exception& e) {
            error = PrintableText(config.file + ": module file " + module + ": " + e.displayText());
            return false;
        }
    }
    return true;
}

}  // namespace HostAgent
