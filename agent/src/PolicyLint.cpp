#include "PolicyLint.h"

#include "JsonText.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <cstring>
#include <initializer_list>
#include <map>
#include <set>

namespace HostAgent {

namespace {

// The capture filter's jump offsets are one byte wide: ports + 2 * addresses + 10 must stay
// within this, or the filter is built wrong.
constexpr int kFilterOffsetLimit = 255;

const char* const kKnownTaskKeys[] = {
    "monitor_list",         "white_ip_list",         "check_port_before_alarm",
    "port_package_max_num", "port_ip_max_num",       "alarm_max_num",
    "package_max_num",      "only_master_interface", "enable",
    "task_condition",       "drain_socket_queue",    "exact_port_lookup",
    "dual_stack_occupancy", "prompt_alarms",         "ipv6",
    "white_ip6_list",
};

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

// The prefix length the module reads from a mask text of three or more characters (a dotted mask:
// its leading one bits), or -1 when it refuses the text.
int DottedMaskBits(const std::string& mask) {
    in_addr value{};
    if (inet_aton(mask.c_str(), &value) == 0) {
        return mask == "255.255.255.255" ? 32 : -1;
    }
    const std::uint32_t bits = ntohl(value.s_addr);
    int count = 0;
    while (count < 32 && (bits & (0x80000000u >> count)) != 0) {
        ++count;
    }
    return count;
}

bool IsDottedQuad(const std::string& text) {
    in_addr value{};
    return inet_pton(AF_INET, text.c_str(), &value) == 1;
}

// One finding per white-list piece whose mask text reads as something else than it seems.
void LintWhiteList(const std::string& file, const std::string& list, std::vector<std::string>& out) {
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
            if (mask.size() <= 2) {
                continue;  // a prefix length, read as such
            }
            const int bits = DottedMaskBits(mask);
            if (bits < 0) {
                continue;  // refused: the module skips the piece with an error line of its own
            }
            const std::uint32_t exact = bits == 0 ? 0u : 0xFFFFFFFFu << (32 - bits);
            if (IsDottedQuad(mask) && ntohl(inet_addr(mask.c_str())) == exact) {
                continue;  // a proper dotted mask
            }
            out.push_back(
                "warning: " + file + ": \"white_ip_list\" entry \"" + piece + "\": the mask \"" + mask +
                "\" is read as a dotted mask of " + std::to_string(bits) +
                " leading one bit(s), which white-lists " +
                (bits == 0 ? std::string("every address") : "a /" + std::to_string(bits) + " block") +
                "; write a prefix length 0..32 or a dotted mask such as 255.255.255.0");
        }
    }
}

}  // namespace

std::vector<std::string> LintPolicy(const std::string& file, const std::string& text, int localAddressCount) {
    std::vector<std::string> out;
    Json::Value root;
    std::string error;
    if (!ParseJsonText(text, false, root, error) || !root.isObject() || !root["content"].isObject() ||
        !root["content"]["port_scan_task"].isObject()) {
        return out;
    }
    const Json::Value& task = root["content"]["port_scan_task"];
    const std::string where = "warning: " + file + ": ";

    for (const std::string& key : task.getMemberNames()) {
        bool known = false;
        for (const char* name : kKnownTaskKeys) {
            known = known || key == name;
        }
        if (!known) {
            out.push_back(where + "unknown key \"" + key +
                          "\" in \"port_scan_task\" is ignored; check its spelling");
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
            if (type == 1 && (lowestUdp < 0 || port < lowestUdp)) {
                lowestUdp = port;
            }
            if (type == 0 && port > highestTcp) {
                highestTcp = port;
            }
        }
    }
    if (pairs.empty()) {
        out.push_back(where +
                      "\"monitor_list\" names no port: nothing is watched and the task keeps polling for a "
                      "socket; list the ports to watch, or set \"enable\" false");
    }
    for (const auto& [port, count] : entriesPerPort) {
        if (count > 1) {
            out.push_back(where + "port " + std::to_string(port) + " appears in " + std::to_string(count) +
                          " \"monitor_list\" entries: its records may be kept twice and its evidence split; "
                          "list each (port, type) once");
        }
    }
    if (lowestUdp >= 0 && lowestUdp < highestTcp && !Flag(task, "exact_port_lookup")) {
        out.push_back(where + "UDP port " + std::to_string(lowestUdp) + " is numbered below TCP port " +
                      std::to_string(highestTcp) +
                      ": the records of such ports cannot always be found again, so probes to them may "
                      "raise no alarm; number watched UDP ports above every TCP port, or set "
                      "\"exact_port_lookup\" true");
    }
    const int ports = static_cast<int>(pairs.size());
    if (ports + 2 * localAddressCount + 10 > kFilterOffsetLimit) {
        out.push_back(
            where + std::to_string(ports) + " watched port(s) and " + std::to_string(localAddressCount) +
            " local address(es) exceed the capture filter's reach (ports + 2 x addresses + 10 <= " +
            std::to_string(kFilterOffsetLimit) +
            "): the filter is built wrong and misses or "
            "mis-sorts packets; watch at most " +
            std::to_string(kFilterOffsetLimit - 10 - 2 * localAddressCount) + " ports on this host");
    }
    if (!Flag(task, "check_port_before_alarm")) {
        out.push_back(where +
                      "\"check_port_before_alarm\" is false or missing: no packet is counted and no alarm is "
                      "ever raised; set it true");
    }
    if (Flag(task, "only_master_interface")) {
        out.push_back(
            where +
            "\"only_master_interface\" true never binds the capture socket: capture still sees every "
            "interface and each socket build logs a route-table error; set it false");
    }
    if (task["white_ip_list"].isString()) {
        LintWhiteList(file, task["white_ip_list"].asString(), out);
    }
    return out;
}

int CountLocalIpv4Addresses() {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return 0;
    }
    int count = 0;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
            continue;
        }
        const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
        if ((ntohl(address->sin_addr.s_addr) >> 24) != 127) {
            ++count;
        }
    }
    freeifaddrs(list);
    return count;
}

}  // namespace HostAgent
