#pragma once

#include <json/json.h>

#include <string>
#include <vector>

namespace Engine {

// What an ECS document says of the host that raised it.
struct EcsHost {
    std::string name;              // host.name
    std::string hostname;          // host.hostname
    std::vector<std::string> ips;  // host.ip: the host's addresses, loopback aside
    std::string agentVersion;      // agent.version
};

// This host as EcsHost, read once (gethostname, getifaddrs).
EcsHost ReadEcsHost(const std::string& agentVersion);

// The Elastic Common Schema document of a port-scan alarm ("portscan_0001", "portscan_0002") or
// scan summary ("portscan_0003") in the module's own form. False, `ecs` untouched, for any other
// document: it is written as it came.
bool ToEcsDocument(const Json::Value& native, const EcsHost& host, Json::Value& ecs);

}  // namespace Engine
