// The collection task's view of scanners as sources: which sources it reports at all
// ("reportable_sources_only"), an alarm per source ("alarm_per_source") and a summary per source
// and scan ("scan_summary").

#include "CollectPortInfoTaskInternal.h"

#include "IPUtil.h"
#include "framework/Message.h"
#include "sdk/CryptoCodeUtils.h"
#include "sdk/JsonUtils.h"
#include "sdk/LoggerUtils.h"

#include <arpa/inet.h>

#include <chrono>
#include <vector>

namespace Engine {

using namespace CollectTask;

// A sweep from a whole /22 at once still fits; a summary holds at most kMaxSummaryPorts ports, so
// the table stays within a few MiB.
const std::size_t CollectPortInfoTask::kMaxSummarySources = 1024;
// As many as a policy can watch twice over (TCP and UDP): a summary never leaves out a watched port.
const std::size_t CollectPortInfoTask::kMaxSummaryPorts = 100;

namespace {

long long NowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string RemoteText(const PacketNode& pkt) {
    return pkt.isIpv6 ? IPUtil::Ip6Text(pkt.remoteAddress6) : std::string(inet_ntoa(pkt.remoteAddress));
}

Json::Value Strings(const std::set<std::string>& values) {
    Json::Value list(Json::arrayValue);
    for (const std::string& value : values) {
        list.append(value);
    }
    return list;
}

}  // namespace

Json::Value BuildScanSummaryDocument(const std::string& remote, const ScanSummary& summary,
                                     std::size_t maxListedPorts) {
    Json::Value document;
    document["attack_phase"] = 1;
    document["attack_tag"] = 1;
    document["confidence"] = 60;
    document["detect_module"] = kModuleName;
    document["event_category"] = 6000;
    document["event_classid"] = "portscan_0003";
    document["event_count"] = static_cast<Json::UInt64>(summary.probes);
    document["event_name"] = "Port scan summary";
    document["event_type"] = 6003;
    document["severity"] = 1;
    document["occur_time"] = static_cast<Json::Int64>(summary.lastMs / 1000);

    std::string protocols;
    for (const std::string& protocol : summary.protocols) {
        protocols += (protocols.empty() ? "" : ",") + protocol;
    }
    Json::Value network(Json::objectValue);
    network["local_address"] = summary.localAddress;
    network["remote_address"] = remote;
    network["protocol"] = protocols;
    document["network_info"] = network;

    Json::Value scan(Json::objectValue);
    scan["first_probe_ms"] = static_cast<Json::Int64>(summary.firstMs);
    scan["last_probe_ms"] = static_cast<Json::Int64>(summary.lastMs);
    Json::Value ports(Json::arrayValue);
    for (unsigned port : summary.ports) {
        if (ports.size() == maxListedPorts) {
            break;
        }
        ports.append(port);
    }
    scan["ports"] = ports;
    scan["port_count"] = static_cast<Json::UInt64>(summary.ports.size());
    scan["probe_count"] = static_cast<Json::UInt64>(summary.probes);
    scan["probe_kinds"] = Strings(summary.kinds);
    scan["protocols"] = Strings(summary.protocols);
    document["scan_summary"] = scan;
    return document;
}

bool CollectPortInfoTask::IsReportableSource(const PacketNode& pkt) {
    PortScanTaskPolicy* policy = GetPolicy();
    if (policy == nullptr) {
        return false;
    }
    if (pkt.isIpv6) {
        return IPUtil::IsIntraIp6List(pkt.remoteAddress6) &&
               !IPUtil::IsWhiteIp6List(IPUtil::Ip6Text(pkt.remoteAddress6).c_str(),
                                       policy->GetWhiteIp6List());
    }
    return IPUtil::IsIntraIpList(pkt.remoteAddress) &&
           !IPUtil::IsWhiteIpList(inet_ntoa(pkt.remoteAddress), policy->GetWhileIpList());
}

void CollectPortInfoTask::SendPerSourceAlarms() {
    std::map<unsigned short, std::string> peers;
    BuildPortRemoteIpMap(peers);
    for (const PortInfoNode& node : m_portSet) {
        PortScanTaskPolicy* policy = GetPolicy();
        if (policy == nullptr) {
            return;
        }
        // The port's entries by source, in the order the sources came.
        std::vector<std::string> sources;
        std::map<std::string, PortInfoNode> bySource;
        for (const AlarmInfo& info : node.alarmInfos) {
            auto found = bySource.find(info.remoteAddress);
            if (found == bySource.end()) {
                sources.push_back(info.remoteAddress);
                found = bySource.emplace(info.remoteAddress, PortInfoNode(node.port, node.type)).first;
            }
            found->second.alarmInfos.push_back(info);
        }
        const auto peer = peers.find(static_cast<unsigned short>(node.port));
        for (const std::string& source : sources) {
            const PortInfoNode& entries = bySource.at(source);
            const auto key = std::make_tuple(node.port, node.type, source);
            // The peer a local program talks to through this port is no scanner.
            if (m_alarmedSources.count(key) != 0 || entries.alarmInfos.size() <= policy->GetMaxLogNum() ||
                (peer != peers.end() && peer->second == source)) {
                continue;
            }
            m_alarmedSources.insert(key);
            Json::Value alarm;
            int eventCount = 0;
            const int alarmType = BuildSinglePortAlarmInfo(entries, alarm, eventCount, {});
            SendAlarmDocument(alarm, alarmType, static_cast<Json::UInt64>(entries.alarmInfos.size()));
        }
    }
}

void CollectPortInfoTask::RecordSummaryProbe(const PacketNode& pkt) {
    const std::string remote = RemoteText(pkt);
    auto found = m_scanSummaries.find(remote);
    const long long now = NowMs();
    if (found == m_scanSummaries.end()) {
        if (m_scanSummaries.size() >= kMaxSummarySources) {
            ++m_summariesDropped;
            return;
        }
        found = m_scanSummaries.emplace(remote, ScanSummary()).first;
        found->second.localAddress =
            pkt.isIpv6 ? IPUtil::Ip6Text(pkt.localAddress6) : std::string(inet_ntoa(pkt.localAddress));
        found->second.firstMs = now;
    }
    ScanSummary& summary = found->second;
    const bool udp = pkt.type == kUdpType;
    summary.ports.insert(pkt.localPort);
    summary.protocols.insert(udp ? "UDP" : "TCP");
    summary.kinds.insert(udp ? "UDP" : (pkt.flag.empty() ? "NONE" : pkt.flag));
    ++summary.probes;
    summary.lastMs = now;
}

void CollectPortInfoTask::SendScanSummaries(bool all) {
    const auto* policy = dynamic_cast<const PortScanTaskPolicy*>(GetTaskPolicy());
    if (policy == nullptr || !policy->IsScanSummary()) {
        m_scanSummaries.clear();  // turned off: nothing more to say
        m_summariesDropped = 0;
        return;
    }
    const long long now = NowMs();
    const long long quietMs = 1000LL * policy->GetSummaryQuietSeconds();
    for (auto it = m_scanSummaries.begin(); it != m_scanSummaries.end();) {
        if (!all && now - it->second.lastMs < quietMs) {
            ++it;
            continue;
        }
        Json::Value document = BuildScanSummaryDocument(it->first, it->second, kMaxSummaryPorts);
        document["event_id"] = SDK::CryptoCodeUtils::GenerateUUID();
        const std::string text = SDK::JsonUtils::JsonToString(document);
        PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_INFORMATION, SDK::LogBudget::kPerText,
                              "[PortScan] Sending scan summary [%s]", text);
        SendDirectMsg(kReportTaskName, new Framework::DataMessage(kAlarmMessageType, text));
        it = m_scanSummaries.erase(it);
    }
    if (all && m_summariesDropped > 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_WARNING,
                     "[PortScan] %z scanning source(s) got no summary: more than %z scanned at once",
                     m_summariesDropped, kMaxSummarySources);
        m_summariesDropped = 0;
    }
}

}  // namespace Engine
