#include "PortScanPolicy.h"

#include "PortScanModule.h"
#include "PortScanPolicySchema.h"
#include "sdk/JsonUtils.h"

#include <json/json.h>

#include <deque>
#include <memory>
#include <mutex>
#include <utility>

namespace Engine {

namespace {

const char* const kTaskPolicyName = "port_scan_task";

// A task policy that failed to parse is given up without being destroyed at once: nothing may use
// it, and it may be half filled. It is parked here rather than dropped on the floor; only the
// newest few are kept, so a policy that keeps failing does not grow the process without end.
// Nothing holds a parked policy, so the oldest one is freed when the list is full.
class AbandonedTaskPolicies {
public:
    static void Keep(std::unique_ptr<PortScanTaskPolicy> policy) {
        static AbandonedTaskPolicies store;
        std::unique_ptr<PortScanTaskPolicy> oldest;  // freed outside the lock
        std::lock_guard<std::mutex> lock(store.m_mutex);
        if (store.m_policies.size() >= kMaxAbandonedTaskPolicies) {
            oldest = std::move(store.m_policies.front());
            store.m_policies.pop_front();
        }
        store.m_policies.push_back(std::move(policy));
    }

private:
    // A few failed deliveries in a row are kept; beyond that each costs memory for nothing.
    static constexpr std::size_t kMaxAbandonedTaskPolicies = 8;

    std::mutex m_mutex;
    std::deque<std::unique_ptr<PortScanTaskPolicy>> m_policies;
};

// True when the entry's "type" is the JSON integer 2 (a real 2.0 or the text "2" is not).
bool IsBothProtocols(const Json::Value& entry) {
    if (!entry.isObject()) {
        return false;
    }
    const Json::Value& type = entry["type"];
    return (type.type() == Json::intValue || type.type() == Json::uintValue) &&
           type.asLargestInt() == kProtocolBoth;
}

}  // namespace

PortScanPolicy::PortScanPolicy(const std::string& name)
    : Framework::FeaturePolicy(name), m_portScanEnable(false) {}

PortScanPolicy::~PortScanPolicy() = default;

bool PortScanPolicy::Parse(const std::string& text) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) != 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "Parse Json Error");
        return false;
    }

    SetName(SDK::JsonUtils::GetStringValue(root, "feature_name", ""));
    SetHash(SDK::JsonUtils::GetStringValue(root, "hash", ""));
    SetEnabled(SDK::JsonUtils::GetBoolValue(root, "enabled", true));

    Json::Value content;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "content", content)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Do action (%s) fail!",
                     std::string("Get policy content"));
        return false;
    }
    // Looked up before the switch is read: a document that turns the feature off still needs it.
    Json::Value taskDocument;
    if (!SDK::JsonUtils::GetSubobjectValue(content, "port_scan_task", taskDocument)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Do action (%s) fail!",
                     std::string("Get port_scan_task"));
        return false;
    }
    if (!SDK::JsonUtils::GetBoolValue(content, "is_feature_enable", true)) {
        return true;
    }

    std::unique_ptr<PortScanTaskPolicy> taskPolicy(new PortScanTaskPolicy(kTaskPolicyName));
    m_portScanEnable = taskPolicy->Parse(SDK::JsonUtils::JsonToString(taskDocument));
    if (m_portScanEnable) {
        Add(taskPolicy.release());
    } else {
        AbandonedTaskPolicies::Keep(std::move(taskPolicy));
    }
    // A failed task policy only turns the feature off; the feature document itself was fine.
    return true;
}

PortScanTaskPolicy::PortScanTaskPolicy(const std::string& name)
    : Framework::TaskPolicy(name),
      m_maxPortPkgNum(0),
      m_portMaxIpNum(0),
      m_maxLogNum(0),
      m_bindMasterIntf(false),
      m_chkBeforeAlarm(false),
      m_enable(false),
      m_maxPktCount(0),
      m_summaryQuietS(kDefaultSummaryQuietS) {}

PortScanTaskPolicy::~PortScanTaskPolicy() = default;

bool PortScanTaskPolicy::Parse(const std::string& text) {
    Json::Value root;
    // Only text that is not JSON at all is refused here; any other oddity shows up as missing keys.
    if (SDK::JsonUtils::ParseJsonStr(text.c_str(), text.size(), root) == SDK::JsonUtils::kNotJson) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] policy format err!");
        return false;
    }

    Json::Value monitorList;
    if (!SDK::JsonUtils::GetArrayValue(root, "monitor_list", monitorList)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "Parse json %s err", std::string("monitor_list"));
        return false;
    }
    if (monitorList.size() > kMaxMonitorEntries) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "Ports' num exceed the maximum");
        return false;
    }
    // Port and type are stored as given, without a range check; a repeated pair is dropped by the set.
    for (const Json::Value& entry : monitorList) {
        const uint32_t port = static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(entry, "port", 0));
        if (IsBothProtocols(entry)) {
            m_policyPortSet.insert(PortInfoNode(port, kProtocolTcp));
            m_policyPortSet.insert(PortInfoNode(port, kProtocolUdp));
        } else {
            const uint32_t type = static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(entry, "type", 0));
            m_policyPortSet.insert(PortInfoNode(port, type));
        }
    }

    const std::string whiteList = SDK::JsonUtils::GetStringValue(root, "white_ip_list", "");
    if (!whiteList.empty() && !IPUtil::parse_ip_ranges(whiteList.c_str(), m_whiteIpList)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[!] Parse policy failed in parse_ip_ranges.");
        return false;
    }
    // Refused as the IPv4 list is, whether or not "ipv6" is on: a bad list is a bad policy.
    const std::string whiteList6 = SDK::JsonUtils::GetStringValue(root, "white_ip6_list", "");
    if (!whiteList6.empty() && !IPUtil::parse_ip6_ranges(whiteList6.c_str(), m_whiteIp6List)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[!] Parse policy failed in parse_ip6_ranges.");
        return false;
    }

    Json::Value condition;
    if (!SDK::JsonUtils::GetSubobjectValue(root, "task_condition", condition)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "Parse task_condition failed.");
        return false;
    }

    m_maxPortPkgNum =
        static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(root, "port_package_max_num", kDefaultPortPkgNum));
    m_portMaxIpNum =
        static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(root, "port_ip_max_num", kDefaultPortIpNum));
    m_maxPktCount =
        static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(root, "package_max_num", kDefaultPktCount));
    m_maxLogNum = static_cast<uint32_t>(SDK::JsonUtils::GetIntValue(root, "alarm_max_num", kDefaultLogNum));
    m_bindMasterIntf = SDK::JsonUtils::GetBoolValue(root, "only_master_interface", false);
    m_chkBeforeAlarm = SDK::JsonUtils::GetBoolValue(root, "check_port_before_alarm", false);
    m_enable = SDK::JsonUtils::GetBoolValue(root, "enable", true);
    // Opt-in switches: absent means off, and then the task behaves exactly as without them.
    for (const Framework::PolicyKeyInfo& key : TaskPolicyKeys()) {
        if (key.extension && key.type == "boolean") {
            m_switches[key.name] = SDK::JsonUtils::GetBoolValue(root, key.name.c_str(), false);
        }
    }
    if (root.isMember("summary_quiet_s")) {
        const Json::Value& quiet = root["summary_quiet_s"];
        if (!quiet.isIntegral() || quiet.asLargestInt() < kMinSummaryQuietS ||
            quiet.asLargestInt() > kMaxSummaryQuietS) {
            PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] summary_quiet_s must be %d..%d",
                         kMinSummaryQuietS, kMaxSummaryQuietS);
            return false;
        }
        m_summaryQuietS = quiet.asInt();
    }

    // A condition the runtime refuses fails the whole task policy.
    return ParseCondition(SDK::JsonUtils::JsonToString(condition));
}

bool PortScanTaskPolicy::IsSwitchOn(const std::string& key) const {
    const auto found = m_switches.find(key);
    return found != m_switches.end() && found->second;
}

void PortScanTaskPolicy::RefreshAlarmInfo(const PortInfoNode& node) {
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] refresh alarm info, port = [%u]", node.port);

    // A linear walk: the records' ordering is not a strict weak ordering, so the set's own search
    // can miss a record that is there.
    for (auto it = m_policyPortSet.begin(); it != m_policyPortSet.end(); ++it) {
        if (it->port == node.port && it->type == node.type) {
            m_policyPortSet.erase(it);
            // Inserted as a copy, which starts its auxValue at 0.
            m_policyPortSet.insert(node);
            return;
        }
    }
}

}  // namespace Engine
