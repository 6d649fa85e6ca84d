#include "ScanLab.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <iostream>
#include <iterator>
#include <regex>
#include <sstream>
#include <tuple>

namespace ScanLab {

using namespace TestSupport;

std::string AgentConfigText(const std::string& modulePath) {
    return R"({"log": {"level": "debug", "console": true, "file": "log/hostagent.log"},
        "connect": ["127.0.0.1:443"], "cpu_limit_percent": 0, "modules": [")" +
           modulePath + R"("], "policies": {"10001": "portscan.json"},
        "report": {"sinks": [{"type": "stdout"}, {"type": "file", "path": "alarms.jsonl"}]}})";
}

std::string FeaturePolicyText(const Json::Value& task, const std::string& hash) {
    Json::Value policy;
    ParseJson(R"({"feature_name": "portscan", "enabled": true, "content": {"is_feature_enable": true}})",
              policy);
    policy["hash"] = hash;
    policy["content"]["port_scan_task"] = task;
    return policy.toStyledString();
}

Json::Value SwitchesOnTask(const std::vector<std::pair<unsigned, int>>& watched) {
    Json::Value task;
    ParseJson(R"({"check_port_before_alarm": true, "alarm_max_num": 0, "task_condition": {},
        "drain_socket_queue": true, "exact_port_lookup": true, "dual_stack_occupancy": true,
        "prompt_alarms": true})",
              task);
    for (const auto& [port, type] : watched) {
        Json::Value& entry = task["monitor_list"].append(Json::Value());
        entry["port"] = port;
        entry["type"] = type;
    }
    return task;
}

bool ParseJson(const std::string& text, Json::Value& out) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &out, nullptr) && out.isObject();
}

std::vector<Json::Value> ReadAlarms(const std::string& path) {
    const std::string text = ReadFile(path);
    std::stringstream lines(text.substr(0, text.rfind('\n') + 1));  // npos + 1 == 0: none complete
    std::vector<Json::Value> alarms;
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            EXPECT_TRUE(ParseJson(line, alarms.emplace_back())) << "not a JSON object: " << line;
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
            EXPECT_TRUE(ParseJson(log.substr(begin, end - begin), alarms.emplace_back()))
                << "unreadable alarm in the log at offset " << at;
        }
    }
    return alarms;
}

void ExpectAlarm(const Json::Value& alarm, unsigned port, bool udp, const std::string& local,
                 const std::string& remote, int remotePort, long notBefore) {
    SCOPED_TRACE("alarm for port " + std::to_string(port) + ": " + alarm.toStyledString());
    EXPECT_EQ(alarm["event_classid"].asString(), udp ? "portscan_0001" : "portscan_0002");
    EXPECT_EQ(alarm["event_name"].asString(), udp ? "Common port scan" : "Secret port scan");
    const Json::Value& net = alarm["network_info"];
    ASSERT_TRUE(net.isObject());
    EXPECT_EQ(net["protocol"].asString(), udp ? "UDP" : "TCP");
    ASSERT_TRUE(net["app_protocol"].isString());
    EXPECT_EQ(net["app_protocol"].asString(), udp ? "" : "SYN");
    EXPECT_EQ(net["remote_address"].asString(), remote);
    ASSERT_TRUE(net["remote_port"].isInt() && net["local_port"].isUInt());
    EXPECT_EQ(net["remote_port"].asInt(), remotePort);
    EXPECT_EQ(net["local_address"].asString(), local);
    EXPECT_EQ(net["local_port"].asUInt(), port);
    for (const auto& [key, value] : {std::pair{"event_category", 6000},
                                     {"event_type", 6002},
                                     {"severity", 1},
                                     {"attack_phase", 1},
                                     {"attack_tag", 1},
                                     {"confidence", 60}}) {
        ASSERT_TRUE(alarm[key].isInt()) << key;
        EXPECT_EQ(alarm[key].asInt(), value) << key;
    }
    EXPECT_EQ(alarm["detect_module"].asString(), "portscan_module");
    EXPECT_TRUE(std::regex_match(alarm["event_id"].asString(),
                                 std::regex("[0-9a-fA-F]{8}(-[0-9a-fA-F]{4}){3}-[0-9a-fA-F]{12}")));
    ASSERT_TRUE(alarm["occur_time"].isInt64() && alarm["event_count"].isInt());
    EXPECT_GE(alarm["occur_time"].asInt64(), notBefore);
    EXPECT_LE(alarm["occur_time"].asInt64(), static_cast<long>(time(nullptr)) + 5);
    EXPECT_GE(alarm["event_count"].asInt(), 1);
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
    for (const auto& alarm : alarms) {
        ids.insert(alarm["event_id"].asString());
    }
    return ids;
}

std::vector<BpfInsn> AttachedFilter(const std::string& netns, pid_t pid, const std::string& protocol) {
    // A socket's record starts on an unindented line; its filter follows on indented ones.
    std::vector<std::string> records;
    std::stringstream out(Run({"ss", "-0", "-b", "-p"}, netns, Seconds(20)).output);
    for (std::string line; std::getline(out, line);) {
        if (records.empty() || (!line.empty() && !isspace(static_cast<unsigned char>(line[0])))) {
            records.emplace_back();
        }
        records.back() += line + "\n";
    }
    static const std::regex kInsn("0x([0-9a-fA-F]+) ([0-9]+) ([0-9]+) ([0-9]+),");
    for (const auto& record : records) {
        if (record.find("pid=" + std::to_string(pid) + ",") == std::string::npos ||
            record.find("bpf filter") == std::string::npos ||
            (!protocol.empty() && !std::regex_search(record, std::regex("\\s" + protocol + ":")))) {
            continue;
        }
        std::vector<BpfInsn> program;
        for (std::sregex_iterator it(record.begin(), record.end(), kInsn), end; it != end; ++it) {
            const auto field = [&](int i, int base) { return unsigned(std::stoul((*it)[i], nullptr, base)); };
            program.push_back({field(1, 16), field(2, 10), field(3, 10), field(4, 10)});
        }
        return program;
    }
    return {};
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

std::vector<std::string> Hping(const std::string& mode, unsigned port, int count, const std::string& interval,
                               int sourcePort, const std::string& target) {
    return std::vector<std::string>({"hping3", "-q", mode, "-c", std::to_string(count), "-i", interval, "-p",
                                     std::to_string(port), "-s", std::to_string(sourcePort), "-k", target});
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

const NetNs& Lab::AddNeighbour(const std::string& name, const std::string& monitoredAddr,
                               const std::string& addr) {
    neighbours.push_back(std::make_unique<NetNs>(Namespace(name)));
    AddVethPair(mon, "to-" + name, monitoredAddr + "/24", *neighbours.back(), "eth0", addr + "/24");
    return *neighbours.back();
}

void Lab::AddAddresses(std::initializer_list<const char*> monitored,
                       std::initializer_list<const char*> scanning) {
    for (const auto& [ns, device, addresses] :
         {std::tuple{&mon, "to-scan", monitored}, std::tuple{&scanner, "eth0", scanning}}) {
        for (const std::string address : addresses) {
            const bool v6 = address.find(':') != std::string::npos;
            std::vector<std::string> argv = {
                "ip", "-n", ns->Name(), "addr", "add", address + (v6 ? "/64" : "/24"), "dev", device};
            if (v6) {
                argv.push_back("nodad");
            }
            MustRun(argv);
        }
    }
}

void Lab::StartAgent(const std::string& policy, const std::string& config) {
    WriteFile(dir.File("agent.json"), config.empty() ? AgentConfigText(PORTSCAN_MODULE_PATH) : config);
    WriteFile(dir.File("portscan.json"), policy);
    agent =
        std::make_unique<Child>(std::vector<std::string>{HOSTAGENT_PATH, "--config", dir.File("agent.json")},
                                mon.Name(), dir.File("agent.out"), dir.File("agent.err"));
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

void Lab::SpoofedSyns(const std::string& spoofed, unsigned port, int count, const std::string& interval,
                      const std::string& target) {
    Run({"hping3", "-q", "-S", "-a", spoofed, "-c", std::to_string(count), "-i", interval, "-p",
         std::to_string(port), target},
        scanner.Name(), Seconds(30));
}

void Lab::Nmap(const std::vector<std::string>& options, const std::string& ports, int sourcePort,
               const std::string& target, const std::string& source6) {
    std::vector<std::string> argv = {"nmap"};
    argv.insert(argv.end(), options.begin(), options.end());
    if (!source6.empty()) {
        argv.insert(argv.end(), {"-6", "-S", source6, "-e", "eth0"});
    }
    argv.insert(argv.end(), {"-Pn", "-n", "-p", ports, "-g", std::to_string(sourcePort), "--max-retries", "1",
                             "--host-timeout", "30s", target});
    Scan(argv);
}

bool Lab::WaitListening(unsigned port) {
    const std::vector<std::string> ss = {"ss", "-ltnH", "sport = :" + std::to_string(port)};
    return WaitUntil([&] { return Run(ss, mon.Name()).output.find("LISTEN") != std::string::npos; },
                     Seconds(10));
}

std::vector<Json::Value> Lab::WaitForAlarms(size_t count, Seconds limit) {
    std::vector<Json::Value> alarms;
    EXPECT_TRUE(WaitUntil([&] { return (alarms = ReadAlarms(AlarmFile())).size() >= count; }, limit))
        << "alarms so far: " << alarms.size() << "\nlog tail:\n"
        << Run({"tail", "-n", "40", Log()}).output;
    return alarms;
}

}  // namespace ScanLab
