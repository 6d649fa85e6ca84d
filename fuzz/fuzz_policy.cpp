// The task policy parser on the input, and the feature policy parser on the input wrapped as the
// "port_scan_task" object of a feature document: the feature is on exactly when the task policy
// parses, and a parsed task policy holds what its document says.
#include "FuzzSupport.h"
#include "IPUtil.h"
#include "PortScanModule.h"
#include "PortScanPolicy.h"
#include "sdk/JsonUtils.h"

#include <json/json.h>

#include <algorithm>
#include <set>
#include <utility>
#include <vector>

namespace {

using SDK::JsonUtils;

// JsonCpp's reader refuses documents nested deeper than this.
constexpr int kReaderDepthLimit = 1000;

int Depth(const Json::Value& value) {
    int deepest = 0;
    if (value.isArray() || value.isObject()) {
        for (const Json::Value& member : value) {
            deepest = std::max(deepest, Depth(member));
        }
    }
    return deepest + 1;
}

// The (port, type) pairs a "monitor_list" names, as the policy reads them.
std::set<std::pair<uint32_t, uint32_t>> NamedPairs(const Json::Value& list) {
    std::set<std::pair<uint32_t, uint32_t>> pairs;
    for (const Json::Value& entry : list) {
        const auto port = static_cast<uint32_t>(JsonUtils::GetIntValue(entry, "port", 0));
        const Json::Value& type = entry.isObject() ? entry["type"] : Json::Value();
        const bool both =
            (type.type() == Json::intValue || type.type() == Json::uintValue) && type.asLargestInt() == 2;
        if (both) {
            pairs.insert({port, 0});
            pairs.insert({port, 1});
        } else {
            pairs.insert({port, static_cast<uint32_t>(JsonUtils::GetIntValue(entry, "type", 0))});
        }
    }
    return pairs;
}

void JudgeParsedTask(const Engine::PortScanTaskPolicy& task, const Json::Value& root) {
    FUZZ_CHECK(root.isObject() && root["monitor_list"].isArray(), "parsed without a monitor list");
    const Json::Value& list = root["monitor_list"];
    FUZZ_CHECK(list.size() <= 50, std::to_string(list.size()) + " entries accepted");
    FUZZ_CHECK(root["task_condition"].isObject(), "parsed without a task condition");
    const auto named = NamedPairs(list);
    const auto& records = task.GetPolicyPortSet();
    FUZZ_CHECK(records.size() <= 2 * list.size(), std::to_string(records.size()) + " records");
    std::set<std::pair<uint32_t, uint32_t>> pairs;
    for (const auto& record : records) {
        FUZZ_CHECK(record.alarmNum == 0 && record.pkgNum == 0 && record.ipNum == 0 && !record.isUsed &&
                       record.alarmInfos.empty() && record.remoteIps.empty(),
                   "a new record with counters");
        pairs.insert({record.port, record.type});
    }
    FUZZ_CHECK(pairs == named, std::to_string(pairs.size()) + " (port, type) pairs kept of " +
                                   std::to_string(named.size()) + " named");
    const std::pair<uint32_t, int> numbers[] = {
        {task.GetMaxPortPkgNum(), JsonUtils::GetIntValue(root, "port_package_max_num", 20)},
        {task.GetPortMaxIpNum(), JsonUtils::GetIntValue(root, "port_ip_max_num", 4)},
        {task.GetMaxPktCount(), JsonUtils::GetIntValue(root, "package_max_num", 1000)},
        {task.GetMaxLogNum(), JsonUtils::GetIntValue(root, "alarm_max_num", 1)}};
    for (const auto& [value, given] : numbers) {
        FUZZ_CHECK(value == static_cast<uint32_t>(given),
                   std::to_string(value) + " for " + std::to_string(given));
    }
    FUZZ_CHECK(
        task.IsBindMasterIntf() == JsonUtils::GetBoolValue(root, "only_master_interface", false) &&
            task.IsChkBeforAlarm() == JsonUtils::GetBoolValue(root, "check_port_before_alarm", false) &&
            task.IsPortScanEnable() == JsonUtils::GetBoolValue(root, "enable", true),
        "switches");
    for (const char* key : {"reportable_sources_only", "alarm_per_source", "scan_summary", "ipv6"}) {
        FUZZ_CHECK(task.IsSwitchOn(key) == JsonUtils::GetBoolValue(root, key, false), key);
    }
    const Json::Value& quiet = root["summary_quiet_s"];
    FUZZ_CHECK(task.GetSummaryQuietSeconds() == (root.isMember("summary_quiet_s") ? quiet.asInt() : 5) &&
                   task.GetSummaryQuietSeconds() >= 1 && task.GetSummaryQuietSeconds() <= 600,
               "summary_quiet_s");
    const std::string white = JsonUtils::GetStringValue(root, "white_ip_list", "");
    std::vector<Engine::IP_RANGE> ranges;
    if (!white.empty()) {
        FUZZ_CHECK(Engine::IPUtil::parse_ip_ranges(white.c_str(), ranges), "white list parsed only once");
    }
    FUZZ_CHECK(FuzzSupport::SameRanges(task.GetWhileIpList(), ranges), "white list");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs([] { Engine::PortScan::GetLoggerPtr(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text = FuzzSupport::Text(data, size);
    Engine::PortScanTaskPolicy task("port_scan_task");
    const bool taskParsed = task.Parse(text);
    Json::Value root;
    const int syntax = JsonUtils::ParseJsonStr(text.data(), text.size(), root);
    if (taskParsed) {
        FUZZ_CHECK(syntax == JsonUtils::kParseOk, "a task policy that is no JSON object parsed");
        JudgeParsedTask(task, root);
    }

    Engine::PortScanPolicy feature("portscan_info_collect");
    const std::string wrapped = R"({"feature_name":"f","content":{"port_scan_task":)" + text + "}}";
    const bool featureParsed = feature.Parse(wrapped);
    // Compared only when the input is a JSON object by itself (so it cannot close the wrapper early)
    // and shallow enough for the reader's depth limit with the wrapper's two more levels.
    // A NUL byte ends the text for the reader: behind one, the wrapper's closing braces are lost.
    if (syntax == JsonUtils::kParseOk && Depth(root) + 2 < kReaderDepthLimit &&
        text.find('\0') == std::string::npos) {
        FUZZ_CHECK(featureParsed, "a feature document around an object refused");
        FUZZ_CHECK(feature.IsPortScanEnable() == taskParsed, "feature switch differs from the task policy");
        FUZZ_CHECK(feature.GetChildren().size() == (taskParsed ? 1u : 0u), "children");
        FUZZ_CHECK(feature.GetName() == "f", "feature name " + feature.GetName());
    }
    return 0;
}
