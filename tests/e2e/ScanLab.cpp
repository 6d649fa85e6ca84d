#include "ScanLab.h"

#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <regex>
#include <sstream>

namespace ScanLab {

using TestSupport::ReadFile;
using TestSupport::Run;
using TestSupport::Seconds;

std::string AgentConfigText(const std::string& modulePath) {
    Json::Value config;
    config["log"]["level"] = "debug";
    config["log"]["console"] = true;
    config["log"]["file"] = "log/hostagent.log";
    config["connect"].append("127.0.0.1:443");
    config["cpu_limit_percent"] = 0;
    config["modules"].append(modulePath);
    config["policies"]["10001"] = "portscan.json";
    Json::Value stdoutSink;
    stdoutSink["type"] = "stdout";
    Json::Value fileSink;
    fileSink["type"] = "file";
    fileSink["path"] = "alarms.jsonl";
    config["report"]["sinks"].append(stdoutSink);
    config["report"]["sinks"].append(fileSink);
    return config.toStyledString();
}

std::string FeaturePolicyText(const Json::Value& task, const std::string& hash) {
    Json::Value policy;
    policy["feature_name"] = "portscan";
    policy["hash"] = hash;
    policy["enabled"] = true;
    policy["content"]["is_feature_enable"] = true;
    policy["content"]["port_scan_task"] = task;
    return policy.toStyledString();
}

bool ParseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors) && out.isObject();
}

std::vector<Json::Value> ReadAlarms(const std::string& path) {
    std::string text = ReadFile(path);
    const auto complete = text.rfind('\n');
    text.resize(complete == std::string::npos ? 0 : complete + 1);
    std::vector<Json::Value> alarms;
    std::stringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        Json::Value alarm;
        EXPECT_TRUE(ParseJson(line, alarm)) << "not a JSON object: " << line;
        alarms.push_back(alarm);
    }
    return alarms;
}

std::vector<Json::Value> LoggedAlarms(const std::string& logPath) {
    const std::string marker = "[PortScan] Sending alarm [";
    std::string log = ReadFile(logPath);
    std::vector<Json::Value> alarms;
    for (auto at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
        auto begin = at + marker.size();
        auto end = log.find(']', begin);
        if (end == std::string::npos) {
            break;  // still being written
        }
        Json::Value alarm;
        EXPECT_TRUE(ParseJson(log.substr(begin, end - begin), alarm))
            << "unreadable alarm in the log at offset " << at;
        alarms.push_back(alarm);
    }
    return alarms;
}

unsigned AlarmPort(const Json::Value& alarm) {
    return alarm["network_info"]["local_port"].asUInt();
}

std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms) {
    std::multiset<unsigned> ports;
    for (const auto& alarm : alarms) {
        ports.insert(AlarmPort(alarm));
    }
    return ports;
}

std::vector<BpfInsn> AttachedFilter(const std::string& netns, pid_t pid) {
    std::string out = Run({"ss", "-0", "-b", "-p"}, netns, Seconds(20)).output;
    // A socket's record starts on an unindented line; the filter follows on indented ones.
    std::vector<std::string> records;
    std::stringstream stream(out);
    for (std::string line; std::getline(stream, line);) {
        if (records.empty() || (!line.empty() && !isspace(static_cast<unsigned char>(line[0])))) {
            records.emplace_back();
        }
        records.back() += line + "\n";
    }
    static const std::regex kInsn("0x([0-9a-fA-F]+) ([0-9]+) ([0-9]+) ([0-9]+),");
    for (const auto& record : records) {
        if (record.find("pid=" + std::to_string(pid) + ",") == std::string::npos ||
            record.find("bpf filter") == std::string::npos) {
            continue;
        }
        std::vector<BpfInsn> program;
        for (std::sregex_iterator it(record.begin(), record.end(), kInsn), end; it != end; ++it) {
            program.push_back({static_cast<unsigned>(std::stoul((*it)[1], nullptr, 16)),
                               static_cast<unsigned>(std::stoul((*it)[2])),
                               static_cast<unsigned>(std::stoul((*it)[3])),
                               static_cast<unsigned>(std::stoul((*it)[4]))});
        }
        return program;
    }
    return {};
}

std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program) {
    std::vector<unsigned> ports;
    size_t i = 0;
    while (i < program.size() && program[i].code != 0x48) {
        ++i;
    }
    for (++i; i < program.size() && program[i].code == 0x15; ++i) {
        ports.push_back(program[i].k);
    }
    return ports;
}

bool Contains(const std::vector<unsigned>& list, unsigned value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace ScanLab
