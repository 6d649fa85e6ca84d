#include "EcsDocument.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace Engine {

namespace {

// The schema version the documents follow.
constexpr const char* kEcsVersion = "9.4.0";

// event.severity on the 21 / 47 / 73 / 99 scale a SIEM grades alerts by. A common probe (any TCP or
// UDP packet to an unused port) is low: one misdirected client makes one. A bare SYN is medium: a
// scanner that avoids completing connections means to stay unseen. A summary of a scan over ten
// ports or more is high: that is a sweep of the host, not a stray packet.
constexpr int kSeverityCommonProbe = 21;
constexpr int kSeverityHalfOpenProbe = 47;
constexpr int kSeveritySmallScan = 47;
constexpr int kSeverityWideScan = 73;
constexpr unsigned kWideScanPorts = 10;

// "2026-11-23T12:11:22.421Z" for epoch milliseconds.
std::string IsoMillis(long long ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32] = {};
    const std::size_t length = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
    char millis[8] = {};
    std::snprintf(millis, sizeof(millis), ".%03dZ", static_cast<int>(ms % 1000));
    return std::string(text, length) + millis;
}

Json::Value Array(std::initializer_list<const char*> values) {
    Json::Value array(Json::arrayValue);
    for (const char* value : values) {
        array.append(value);
    }
    return array;
}

std::string NetworkType(const std::string& address) {
    return address.find(':') != std::string::npos ? "ipv6" : "ipv4";
}

std::string Lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

}  // namespace

EcsHost ReadEcsHost(const std::string& agentVersion) {
    EcsHost host;
    host.agentVersion = agentVersion;
    char name[256] = {};
    if (gethostname(name, sizeof(name) - 1) == 0) {
        host.name = name;
        host.hostname = name;
    }
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) == 0) {
        for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
            if (entry->ifa_addr == nullptr) {
                continue;
            }
            char text[INET6_ADDRSTRLEN] = {};
            if (entry->ifa_addr->sa_family == AF_INET) {
                const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
                if ((ntohl(address->sin_addr.s_addr) >> 24) != 127 &&
                    inet_ntop(AF_INET, &address->sin_addr, text, sizeof(text)) != nullptr) {
                    host.ips.push_back(text);
                }
            } else if (entry->ifa_addr->sa_family == AF_INET6) {
                const auto* address = reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr);
                if (!IN6_IS_ADDR_LOOPBACK(&address->sin6_addr) &&
                    inet_ntop(AF_INET6, &address->sin6_addr, text, sizeof(text)) != nullptr) {
                    host.ips.push_back(text);
                }
            }
        }
        freeifaddrs(list);
    }
    return host;
}

bool ToEcsDocument(const Json::Value& native, const EcsHost& host, Json::Value& ecs) {
    if (!native.isObject() || !native["event_classid"].isString() || !native["network_info"].isObject()) {
        return false;
    }
    const std::string classId = native["event_classid"].asString();
    const bool summary = classId == "portscan_0003";
    if (classId != "portscan_0001" && classId != "portscan_0002" && !summary) {
        return false;
    }
    const Json::Value& network = native["network_info"];
    const std::string source = network["remote_address"].asString();
    const std::string destination = network["local_address"].asString();
    const Json::Value& scan = native["scan_summary"];

    Json::Value doc(Json::objectValue);
    const long long lastMs =
        summary ? scan["last_probe_ms"].asInt64() : native["occur_time"].asInt64() * 1000;
    doc["@timestamp"] = IsoMillis(lastMs);
    doc["ecs"]["version"] = kEcsVersion;
    doc["message"] = "";  // filled below

    Json::Value& event = doc["event"];
    event["kind"] = "alert";
    event["category"] = Array({"network", "intrusion_detection"});
    event["type"] = Array({"info"});
    event["action"] = summary ? "port-scan-summary" : "port-scan-probe";
    event["module"] = "hostagent";
    event["dataset"] = "hostagent.portscan";
    event["id"] = native["event_id"].asString();
    event["created"] = IsoMillis(lastMs);

    doc["source"]["ip"] = source;
    doc["destination"]["ip"] = destination;
    Json::Value& portscan = doc["hostagent"]["portscan"];
    portscan["confidence"] = native["confidence"];
    portscan["probe_count"] = native["event_count"];
    std::string message;
    if (summary) {
        const unsigned ports = scan["port_count"].asUInt();
        event["severity"] = ports >= kWideScanPorts ? kSeverityWideScan : kSeveritySmallScan;
        event["start"] = IsoMillis(scan["first_probe_ms"].asInt64());
        event["end"] = IsoMillis(lastMs);
        const std::string protocols = network["protocol"].asString();
        if (protocols == "TCP" || protocols == "UDP") {
            doc["network"]["transport"] = Lower(protocols);
        }
        portscan["ports"] = scan["ports"];
        portscan["port_count"] = scan["port_count"];
        portscan["probe_kinds"] = scan["probe_kinds"];
        portscan["protocols"] = scan["protocols"];
        message = "Port scan from " + source + ": " + std::to_string(ports) + " port(s) of " + destination +
                  " (" + protocols + "), " + std::to_string(scan["probe_count"].asUInt64()) + " probe(s)";
    } else {
        const std::string protocol = network["protocol"].asString();
        const std::string flags = network["app_protocol"].asString();
        event["severity"] = classId == "portscan_0002" ? kSeverityHalfOpenProbe : kSeverityCommonProbe;
        doc["source"]["port"] = network["remote_port"];
        doc["destination"]["port"] = network["local_port"];
        doc["network"]["transport"] = Lower(protocol);
        portscan["flags"] = flags;
        message = "Port scan from " + source + ": " + (flags.empty() ? protocol : flags) + " probe to " +
                  protocol + " " + std::to_string(network["local_port"].asUInt());
    }
    doc["message"] = message;
    doc["network"]["type"] = NetworkType(source);
    doc["network"]["direction"] = "ingress";
    doc["related"]["ip"] = Array({});
    doc["related"]["ip"].append(source);
    doc["related"]["ip"].append(destination);

    doc["host"]["name"] = host.name;
    doc["host"]["hostname"] = host.hostname;
    doc["host"]["ip"] = Json::Value(Json::arrayValue);
    for (const std::string& ip : host.ips) {
        doc["host"]["ip"].append(ip);
    }
    doc["agent"]["type"] = "hostagent";
    doc["agent"]["version"] = host.agentVersion;
    doc["rule"]["id"] = classId;
    doc["rule"]["name"] = native["event_name"].asString();
    Json::Value& threat = doc["threat"];
    threat["framework"] = "MITRE ATT&CK";
    threat["technique"]["id"] = Array({"T1046"});
    threat["technique"]["name"] = Array({"Network Service Discovery"});
    threat["technique"]["reference"] = Array({"https://attack.mitre.org/techniques/T1046/"});
    threat["tactic"]["id"] = Array({"TA0007"});
    threat["tactic"]["name"] = Array({"Discovery"});
    threat["tactic"]["reference"] = Array({"https://attack.mitre.org/tactics/TA0007/"});
    ecs = doc;
    return true;
}

}  // namespace Engine
