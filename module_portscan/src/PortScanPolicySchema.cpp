#include "PortScanPolicySchema.h"

#include "IPUtil.h"
#include "SocketUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <map>
#include <set>

namespace Engine {

namespace {

Framework::PolicyKeyInfo Row(const char* name, const char* type, const std::string& defaultText,
                             const std::string& values, const char* help, bool extension = false) {
    return Framework::PolicyKeyInfo{name, type, defaultText, values, help, extension};
}

std::vector<Framework::PolicyKeyInfo> MakeKeys() {
    const std::string entries = "at most " + std::to_string(kMaxMonitorEntries) +
                                " {\"port\": N, \"type\": T}, T " + std::to_string(kProtocolTcp) + " TCP, " +
                                std::to_string(kProtocolUdp) + " UDP, " + std::to_string(kProtocolBoth) +
                                " both";
    return {
        Row("monitor_list", "array", "required", entries, "the ports to watch"),
        Row("white_ip_list", "string", "\"\"", "\"10.0.0.1, 192.168.0.0/16, 172.16.1.1-172.16.1.9\", \"all\"",
            "IPv4 scanners never reported"),
        Row("white_ip6_list", "string", "\"\"", "\"fd00:1::5, fe80::/64, fd00::1-fd00::9\", \"all\"",
            "IPv6 scanners never reported; a text that yields no range fails the policy", true),
        Row("task_condition", "object", "required", "{} or {\"start_delay_s\": N}",
            "when the task starts: at once, or after a delay"),
        Row("port_package_max_num", "integer", std::to_string(kDefaultPortPkgNum), "",
            "packets after which a port is frozen for a day"),
        Row("port_ip_max_num", "integer", std::to_string(kDefaultPortIpNum), "",
            "distinct scanning hosts after which a port is frozen"),
        Row("package_max_num", "integer", std::to_string(kDefaultPktCount), "",
            "packets a minute over all ports after which capture stops"),
        Row("alarm_max_num", "integer", std::to_string(kDefaultLogNum), "",
            "scan packets a port needs before it alarms (more than this)"),
        Row("only_master_interface", "boolean", "false", "",
            "capture only on the interface towards the connect servers"),
        Row("check_port_before_alarm", "boolean", "false", "",
            "check the port is still unused before counting a packet; without it nothing is counted"),
        Row("enable", "boolean", "true", "", "the task policy's own switch, kept but not read"),
        Row("drain_socket_queue", "boolean", "false", "",
            "read every frame queued at a wake-up of the capture socket, up to 128", true),
        Row("exact_port_lookup", "boolean", "false", "",
            "find a port's record by port and protocol, whatever their numbering", true),
        Row("dual_stack_occupancy", "boolean", "false", "",
            "a port held by an IPv6 socket counts as in use for IPv4 probes too", true),
        Row("prompt_alarms", "boolean", "false", "",
            "send a port's alarm in the loop pass that crossed the threshold", true),
        Row("ipv6", "boolean", "false", "", "capture IPv6 probes too, on a second packet socket", true),
        Row("follow_address_changes", "boolean", "false", "",
            "rebuild the capture filters when the host gains or loses an address", true),
        Row("reportable_sources_only", "boolean", "false", "",
            "capture only frames from private sources; white-listed ones count toward no limit", true),
        Row("alarm_per_source", "boolean", "false", "", "one alarm per port, protocol and scanner in a run",
            true),
        Row("scan_summary", "boolean", "false", "", "one \"Port scan summary\" document per scanner and scan",
            true),
        Row("summary_quiet_s", "integer", std::to_string(kDefaultSummaryQuietS),
            std::to_string(kMinSummaryQuietS) + ".." + std::to_string(kMaxSummaryQuietS),
            "seconds without a probe after which a scanner's summary is sent", true),
    };
}

bool Flag(const Json::Value& task, const char* key) {
    return task.isMember(key) && task[key].isBool() && task[key].asBool();
}

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// One finding per white-list piece whose mask text reads as something else than it seems.
void LintWhiteList(const std::string& list, std::vector<std::string>& out) {
    std::size_t begin = 0;
    while (begin <= list.size()) {
        std::size_t comma = list.find(',', begin);
        if (comma == std::string::npos) {
            comma = list.size();
        }
        const std::string piece = Trim(list.substr(begin, comma - begin));
        begin = comma + 1;
        for (const std::string& side :
             {piece.substr(0, piece.find('-')),
              piece.find('-') == std::string::npos ? std::string() : piece.substr(piece.find('-') + 1)}) {
            const std::size_t slash = side.find('/');
            if (slash == std::string::npos) {
                continue;
            }
            const std::string mask = side.substr(slash + 1);
            int bits = 0;
            if (mask.size() <= 2 || !parse_mask(mask.c_str(), mask.size(), bits)) {
                continue;  // a prefix length, or refused: the parser says so itself
            }
            const std::uint32_t exact = bits == 0 ? 0u : 0xFFFFFFFFu << (32 - bits);
            in_addr written{};
            if (inet_pton(AF_INET, mask.c_str(), &written) == 1 && ntohl(written.s_addr) == exact) {
                continue;  // a proper dotted mask
            }
            out.push_back(
                "\"white_ip_list\" entry \"" + piece + "\": the mask \"" + mask +
                "\" is read as a dotted mask of " + std::to_string(bits) +
                " leading one bit(s), which white-lists " +
                (bits == 0 ? std::string("every address") : "a /" + std::to_string(bits) + " block") +
                "; write a prefix length 0..32 or a dotted mask such as 255.255.255.0");
        }
    }
}

}  // namespace

const std::vector<Framework::PolicyKeyInfo>& TaskPolicyKeys() {
    static const std::vector<Framework::PolicyKeyInfo> keys = MakeKeys();
    return keys;
}

bool IsTaskPolicyKey(const std::string& key) {
    for (const Framework::PolicyKeyInfo& row : TaskPolicyKeys()) {
        if (row.name == key) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> LintTaskPolicy(const Json::Value& task, std::size_t localAddressCount,
                                        const Ipv6FilterProbe& ipv6FilterFits) {
    std::vector<std::string> out;
    for (const std::string& key : task.getMemberNames()) {
        if (!IsTaskPolicyKey(key)) {
            out.push_back("unknown key \"" + key + "\" in \"port_scan_task\" is ignored; check its spelling");
        }
    }

    const Json::Value& list = task["monitor_list"];
    std::set<std::pair<long, long>> pairs;
    std::map<long, int> entriesPerPort;
    long lowestUdp = -1;
    long highestTcp = -1;
    if (list.isArray()) {
        for (const Json::Value& entry : list) {
            if (!entry.isObject() || !entry["port"].isIntegral() || !entry["type"].isIntegral()) {
                continue;
            }
            const long port = entry["port"].asInt64();
            const long type = entry["type"].asInt64();
            pairs.insert({port, type});
            ++entriesPerPort[port];
            if (type == kProtocolUdp && (lowestUdp < 0 || port < lowestUdp)) {
                lowestUdp = port;
            }
            if (type == kProtocolTcp && port > highestTcp) {
                highestTcp = port;
            }
        }
    }
    if (pairs.empty()) {
        out.push_back(
            "\"monitor_list\" names no port: nothing is watched and the task keeps polling for a socket; "
            "list "
            "the ports to watch, or set \"enable\" false");
    }
    for (const auto& [port, count] : entriesPerPort) {
        if (count > 1) {
            out.push_back("port " + std::to_string(port) + " appears in " + std::to_string(count) +
                          " \"monitor_list\" entries: its records may be kept twice and its evidence split; "
                          "list each (port, type) once");
        }
    }
    if (lowestUdp >= 0 && lowestUdp < highestTcp && !Flag(task, "exact_port_lookup")) {
        out.push_back("UDP port " + std::to_string(lowestUdp) + " is numbered below TCP port " +
                      std::to_string(highestTcp) +
                      ": the records of such ports cannot always be found again, so probes to them may "
                      "raise no alarm; number watched UDP ports above every TCP port, or set "
                      "\"exact_port_lookup\" true");
    }
    const std::size_t ports = pairs.size();
    const std::size_t reach =
        SocketUtil::MaxFilterPorts(localAddressCount, Flag(task, "reportable_sources_only"));
    if (ports > reach) {
        out.push_back(std::to_string(ports) + " watched port(s) and " + std::to_string(localAddressCount) +
                      " local address(es) exceed the capture filter's reach: "
                      "the filter is built wrong and misses or mis-sorts packets; watch at most " +
                      std::to_string(reach) + " ports on this host");
    }
    if (Flag(task, "ipv6") && ipv6FilterFits) {
        std::vector<long> watched;
        for (const auto& pair : pairs) {
            watched.push_back(pair.first);
        }
        std::size_t addresses = 0;
        if (!ipv6FilterFits(watched, Flag(task, "reportable_sources_only"), addresses)) {
            out.push_back("the IPv6 capture filter for " + std::to_string(addresses) +
                          " local IPv6 address(es) and " + std::to_string(ports) +
                          " port(s) exceeds net.core.optmem_max: the kernel refuses it and IPv6 probes go "
                          "unseen; raise net.core.optmem_max or watch fewer ports");
        }
    }
    if (!Flag(task, "check_port_before_alarm")) {
        out.push_back(
            "\"check_port_before_alarm\" is false or missing: no packet is counted and no alarm is ever "
            "raised; "
            "set it true");
    }
    if (Flag(task, "only_master_interface")) {
        out.push_back(
            "\"only_master_interface\" true never binds the capture socket: capture still sees every "
            "interface and "
            "each socket build logs a route-table error; set it false");
    }
    if (task["white_ip_list"].isString()) {
        LintWhiteList(task["white_ip_list"].asString(), out);
    }
    return out;
}

}  // namespace Engine
