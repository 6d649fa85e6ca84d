#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>

namespace ScanLab {

using namespace TestSupport;

Json::Value AgentConfig() {
    return Parsed(R"({"log": {"level": "debug", "console": true, "file": "log/hostagent.log"},
        "connect": ["127.0.0.1:443"], "cpu_limit_percent": 0, "modules": [")" PORTSCAN_MODULE_PATH R"("],
        "policies": {"10001": "portscan.json"},
        "report": {"sinks": [{"type": "stdout"}, {"type": "file", "path": "alarms.jsonl"}]}})");
}

std::string FeaturePolicyText(const std::string& hash, const std::vector<std::pair<unsigned, int>>& watched,
                              const std::string& task) {
    Json::Value policy =
        Parsed(R"({"feature_name": "portscan", "enabled": true, "content": {"is_feature_enable": true}})");
    policy["hash"] = hash;
    policy["content"]["port_scan_task"] = Parsed(task);
    Json::Value& list = policy["content"]["port_scan_task"]["monitor_list"] = Json::arrayValue;
    for (const auto& [port, type] : watched) {
        Json::Value& entry = list.append(Json::objectValue);
        entry["port"] = port;
        entry["type"] = type;
    }
    return policy.toStyledString();
}

Json::Value Parsed(const std::string& text) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr) && value.isObject())
        << "not a JSON object: " << text;
    return value;
}

std::vector<Json::Value> ReadAlarms(const std::string& path) {
    const std::string text = ReadFile(path);
    std::stringstream lines(text.substr(0, text.rfind('\n') + 1));  // npos + 1 == 0: none complete
    std::vector<Json::Value> alarms;
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            alarms.push_back(Parsed(line));
        }
    }
    return alarms;
}

std::vector<Json::Value> LoggedAlarms(const std::string& logPath) {
    const std::string marker = "[PortScan] Sending alarm [", log = ReadFile(logPath);
    std::vector<Json::Value> alarms;
    for (auto at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
        const auto begin = at + marker.size(), end = log.find(']', begin);
        if (end != std::string::npos) {  // else still being written
            alarms.push_back(Parsed(log.substr(begin, end - begin)));
        }
    }
    return alarms;
}

void ExpectAlarm(const Json::Value& alarm, unsigned port, bool udp, const std::string& local,
                 const std::string& remote, int remotePort, long notBefore) {
    SCOPED_TRACE("alarm for port " + std::to_string(port));
    EXPECT_TRUE(std::regex_match(alarm["event_id"].asString(),
                                 std::regex("[0-9a-fA-F]{8}(-[0-9a-fA-F]{4}){3}-[0-9a-fA-F]{12}")));
    ASSERT_TRUE(alarm["occur_time"].isInt64());
    EXPECT_GE(alarm["occur_time"].asInt64(), notBefore);
    EXPECT_LE(alarm["occur_time"].asInt64(), static_cast<long>(time(nullptr)) + 5);
    // Every other key exactly, numbers as numbers (as parsed: int).
    Json::Value expected = Parsed(R"({"event_category": 6000, "event_type": 6002, "severity": 1,
        "attack_phase": 1, "attack_tag": 1, "confidence": 60, "detect_module": "portscan_module"})");
    for (const char* key : {"event_id", "occur_time", "event_count"}) {
        expected[key] = alarm[key];
    }
    expected["event_classid"] = udp ? "portscan_0001" : "portscan_0002";
    expected["event_name"] = udp ? "Common port scan" : "Secret port scan";
    Json::Value& net = expected["network_info"];
    net["protocol"] = udp ? "UDP" : "TCP";
    net["app_protocol"] = udp ? "" : "SYN";
    net["local_address"] = local;
    net["local_port"] = static_cast<int>(port);
    net["remote_address"] = remote;
    net["remote_port"] = remotePort;
    EXPECT_EQ(alarm, expected);
}

unsigned AlarmPort(const Json::Value& alarm) {
    return alarm["network_info"]["local_port"].asUInt();
}

std::multiset<unsigned> AlarmPorts(const std::vector<Json::Value>& alarms) {
    std::multiset<unsigned> ports;
    std::transform(alarms.begin(), alarms.end(), std::inserter(ports, ports.end()), AlarmPort);
    return ports;
}

std::set<std::string> EventIds(const std::vector<Json::Value>& alarms) {
    std::set<std::string> ids;
    std::transform(alarms.begin(), alarms.end(), std::inserter(ids, ids.end()),
                   [](const Json::Value& alarm) { return alarm["event_id"].asString(); });
    return ids;
}

std::vector<unsigned> FilterPorts(const std::vector<BpfInsn>& program, bool ipv6) {
    const auto load = std::find_if(program.begin(), program.end(), [&](const BpfInsn& insn) {
        return ipv6 ? insn.code == 0x28 && insn.k == 56 : insn.code == 0x48;
    });
    std::vector<unsigned> ports;
    for (auto it = load == program.end() ? load : load + 1; it != program.end() && it->code == 0x15; ++it) {
        ports.push_back(it->k);
    }
    return ports;
}

bool Listening(const std::string& ns, const std::string& port, bool udp) {
    return Run({"ss", udp ? "-lunH" : "-ltnH", "sport = :" + port}, ns)
               .output.find(udp ? "UNCONN" : "LISTEN") != std::string::npos;
}

bool Contains(const std::vector<unsigned>& list, unsigned value) {
    return std::find(list.begin(), list.end(), value) != list.end();
}

size_t Occurrences(const std::string& text, const std::string& needle) {
    size_t count = 0;
    for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
        ++count;
    }
    return count;
}

std::string MissingPrerequisite(std::initializer_list<const char*> tools) {
    if (geteuid() != 0) {
        return "needs root: it builds network namespaces and runs raw-socket scanners";
    }
    for (const char* tool : tools) {
        if (FindProgram(tool).empty()) {
            return std::string(tool) + " is missing (scripts/install-deps.sh installs it)";
        }
    }
    return "";
}

std::unique_ptr<Child> StartAgentIn(const std::string& folder, const Json::Value& config,
                                    const std::string& policy, const std::string& ns,
                                    std::vector<std::string> argv) {
    WriteFile(folder + "/agent.json", config.toStyledString());
    WriteFile(folder + "/portscan.json", policy);
    argv.insert(argv.end(), {HOSTAGENT_PATH, "--config", folder + "/agent.json"});
    return std::make_unique<Child>(argv, ns, folder + "/agent.out", folder + "/agent.err");
}

std::string RsyslogConf(const TempDir& dir, const std::string& body) {
    return "global(workDirectory=\"" + dir.Path() + "\" net.enableDNS=\"off\")\n" + body;
}

std::unique_ptr<Child> StartRsyslog(const TempDir& dir, const std::string& body, const std::string& ns) {
    WriteFile(dir.File("rsyslog.conf"), RsyslogConf(dir, body));
    return std::make_unique<Child>(
        std::vector<std::string>{FindProgram("rsyslogd"), "-n", "-f", dir.File("rsyslog.conf"), "-i",
                                 dir.File("rsyslog.pid")},
        ns, dir.File("rsyslog.out"), dir.File("rsyslog.out"));
}

std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target, const std::string& spoofed) {
    std::vector<std::string> argv({"hping3", "-q", mode, "-c", std::to_string(count), "-i", interval, "-p",
                                   std::to_string(port), "-s", std::to_string(sourcePort), "-k", target});
    if (!spoofed.empty()) {
        argv.insert(argv.end() - 1, {"-a", spoofed});
    }
    return argv;
}

// Namespaces a killed run left behind go before this run makes its own.
Lab::Lab(const std::string& prefix, const std::string& monitoredAddr, const std::string& scannerAddr)
    : base((RemoveStaleNamespaces(prefix), prefix + std::to_string(getpid()))),
      mon(Namespace("mon")),
      scanner(Namespace("scan")) {
    AddVethPair(mon, "to-scan", monitoredAddr + "/24", scanner, "eth0", scannerAddr + "/24");
}

Lab::~Lab() {
    agent.reset();
    if (::testing::Test::HasFailure()) {
        dir.Keep();
        std::cerr << "agent files kept in " << dir.Path() << "\n";
    }
}

void Lab::AddNeighbour(const std::string& name, const std::string& monitoredAddr, const std::string& addr) {
    neighbours.push_back(std::make_unique<NetNs>(Namespace(name)));
    AddVethPair(mon, "to-" + name, monitoredAddr + "/24", *neighbours.back(), "eth0", addr + "/24");
}

void Lab::StartAgent(const std::string& policy, const Json::Value& config) {
    agent = StartAgentIn(dir.Path(), config, policy, mon.Name());
    ASSERT_TRUE(WaitForLine(Log(), "Reload BPF rules", Seconds(30)))
        << "no capture filter loaded; agent stderr:\n"
        << ReadFile(dir.File("agent.err"));
}

void Lab::StopAgent() {
    agent->Signal(SIGTERM);
    EXPECT_EQ(agent->WaitExit(Seconds(30)).value_or(-1), 0) << "no exit 0 within 30 s of SIGTERM";
    agent.reset();
}

void Lab::Scan(const std::vector<std::string>& argv, const std::string& ns) {
    const RunResult result = Run(argv, ns.empty() ? scanner.Name() : ns, Seconds(60));
    EXPECT_EQ(0, result.code) << argv[0] << " failed:\n" << result.output;
}

void Lab::Nmap(const std::vector<std::string>& options, const std::string& ports, int sourcePort,
               const std::string& target, const std::string& source6, const std::string& ns) {
    std::vector<std::string> argv = {"nmap"};
    argv.insert(argv.end(), options.begin(), options.end());
    if (!source6.empty()) {
        argv.insert(argv.end(), {"-6", "-S", source6, "-e", "eth0"});
    }
    argv.insert(argv.end(), {"-Pn", "-n", "-p", ports, "-g", std::to_string(sourcePort), "--max-retries", "1",
                             "--host-timeout", "30s", target});
    Scan(argv, ns);
}

std::vector<BpfInsn> Lab::AgentFilter(const std::string& protocol) const {
    // A socket's record starts on an unindented line; its filter follows on indented ones.
    const std::string out = Run({"ss", "-0", "-b", "-p"}, mon.Name(), Seconds(20)).output;
    static const std::regex kRecordStart("\n(?=\\S)"), kInsn("0x([0-9a-fA-F]+) ([0-9]+) ([0-9]+) ([0-9]+),");
    for (std::sregex_token_iterator at(out.begin(), out.end(), kRecordStart, -1), last; at != last; ++at) {
        const std::string record = *at;
        if (record.find("pid=" + std::to_string(agent->Pid()) + ",") == std::string::npos ||
            record.find("bpf filter") == std::string::npos ||
            (!protocol.empty() && !std::regex_search(record, std::regex("\\s" + protocol + ":")))) {
            continue;
        }
        std::vector<BpfInsn> program;
        for (std::sregex_iterator it(record.begin(), record.end(), kInsn), end; it != end; ++it) {
            const auto field = [&](int i, int radix) {
                return unsigned(std::stoul((*it)[i], nullptr, radix));
            };
            program.push_back({field(1, 16), field(2, 10), field(3, 10), field(4, 10)});
        }
        return program;
    }
    return {};
}

bool Lab::WaitListening(unsigned port) {
    return WaitUntil([&] { return Listening(mon.Name(), std::to_string(port)); }, Seconds(10));
}

std::vector<Json::Value> Lab::WaitForAlarms(size_t count, Seconds limit) {
    std::vector<Json::Value> alarms;
    EXPECT_TRUE(WaitUntil([&] { return (alarms = ReadAlarms(AlarmFile())).size() >= count; }, limit))
        << "alarms so far: " << alarms.size() << "\nlog tail:\n"
        << Run({"tail", "-n", "40", Log()}).output;
    return alarms;
}

}  // namespace ScanLab
