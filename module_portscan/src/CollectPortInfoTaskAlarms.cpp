// The collection task's alarm reporting: alarm documents sent to the report task.

#include "CollectPortInfoTaskInternal.h"

#include "framework/Message.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"
#include "sdk/TimeUtils.h"

#include <algorithm>

namespace Engine {

using namespace CollectTask;

bool CollectPortInfoTask::BuildPortRemoteIpMap(std::map<unsigned short, std::string>& map) {
    Framework::NetProcCache* netProcTask = FindNetProcTask();
    if (netProcTask == nullptr) {
        LOG_ACTION_FAILED("GetNetProcPtr");
        return false;
    }
    NetCacheMap cache;
    netProcTask->GetNetCacheMap(cache);
    for (const auto& entry : cache) {
        if (!entry.second) {
            continue;
        }
        // emplace keeps the first entry for a port.
        map.emplace(static_cast<unsigned short>(entry.second->localPort), entry.second->remoteAddress);
    }
    return true;
}

bool CollectPortInfoTask::CrossedAlarmThreshold(const PortInfoNode& record) const {
    const auto* policy = dynamic_cast<const PortScanTaskPolicy*>(GetTaskPolicy());
    if (policy != nullptr && policy->IsAlarmPerSource() && !record.alarmInfos.empty()) {
        // The newest entry's source has just crossed when it holds one entry more than required.
        const std::string& source = record.alarmInfos.back().remoteAddress;
        const auto entries =
            std::count_if(record.alarmInfos.begin(), record.alarmInfos.end(),
                          [&](const AlarmInfo& info) { return info.remoteAddress == source; });
        return static_cast<uint32_t>(entries) == policy->GetMaxLogNum() + 1;
    }
    return policy != nullptr && static_cast<uint32_t>(record.alarmNum) > policy->GetMaxLogNum() &&
           m_logLimitPortMap.find(record.port) == m_logLimitPortMap.end();
}

void CollectPortInfoTask::SendPortAlarm() {
    if (IsExtensionOn(&PortScanTaskPolicy::IsAlarmPerSource)) {
        SendPerSourceAlarms();
        return;
    }
    // Shared by every port of this call: the document is never cleared and the count runs on.
    Json::Value alarm;
    int eventCount = 0;
    std::map<unsigned short, std::string> peers;
    BuildPortRemoteIpMap(peers);

    for (const PortInfoNode& node : m_portSet) {
        if (node.alarmInfos.empty()) {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port :[%d] no alarmed, ignore",
                         static_cast<int>(node.port));
            continue;
        }
        if (m_logLimitPortMap.find(node.port) != m_logLimitPortMap.end()) {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] Port :[%d] already alarmed, ignore",
                         static_cast<int>(node.port));
            continue;
        }
        PortScanTaskPolicy* policy = GetPolicy();
        if (policy == nullptr || static_cast<uint32_t>(node.alarmNum) <= policy->GetMaxLogNum()) {
            continue;
        }
        m_logLimitPortMap[node.port] = SDK::TimeUtils::GetCurrentTimestampS();

        const int alarmType = BuildSinglePortAlarmInfo(node, alarm, eventCount, peers);
        if (eventCount < 1) {
            continue;
        }
        SendAlarmDocument(alarm, alarmType, eventCount);
    }
}

void CollectPortInfoTask::SendAlarmDocument(Json::Value& alarm, int alarmType,
                                            const Json::Value& eventCount) {
    const bool common = alarmType == kCommonScanType;
    alarm["event_count"] = eventCount;
    alarm["event_classid"] = common ? "portscan_0001" : "portscan_0002";
    alarm["event_name"] = common ? "Common port scan" : "Secret port scan";

    const std::string text = SDK::JsonUtils::JsonToString(alarm);
    // One per port and run, each text distinct: counted per text, so none is held back.
    PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_INFORMATION, SDK::LogBudget::kPerText,
                          "[PortScan] Sending alarm [%s]", text);
    SendDirectMsg(kReportTaskName, new Framework::DataMessage(kAlarmMessageType, text));
}

int CollectPortInfoTask::BuildSinglePortAlarmInfo(const PortInfoNode& node, Json::Value& alarm,
                                                  int& eventCount,
                                                  const std::map<unsigned short, std::string>& peers) {
    const auto peer = peers.find(static_cast<unsigned short>(node.port));
    for (const AlarmInfo& info : node.alarmInfos) {
        // Traffic from the peer a local program talks to through this port is no scan.
        if (peer != peers.end() && peer->second == info.remoteAddress) {
            continue;
        }
        alarm["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
        alarm["occur_time"] = static_cast<Json::Int64>(SDK::TimeUtils::GetCurrentTimestampS());
        alarm["event_category"] = 6000;
        alarm["event_type"] = 6002;
        alarm["severity"] = 1;
        alarm["attack_phase"] = 1;
        alarm["attack_tag"] = 1;
        alarm["confidence"] = 60;
        alarm["detect_module"] = kModuleName;

        Json::Value network(Json::objectValue);
        network["local_address"] = info.localAddress;
        network["local_port"] = static_cast<Json::UInt>(node.port);
        network["remote_address"] = info.remoteAddress;
        network["remote_port"] = static_cast<Json::Int>(info.remotePort);
        network["protocol"] = info.protocol;
        network["app_protocol"] = info.flag;  // the TCP flag text, under this key on purpose
        alarm["network_info"] = network;

        ++eventCount;
        return info.alarmType;
    }
    // Nothing written: the caller may resend an earlier port's document; call it half-open.
    return 0;
}

}  // namespace Engine
