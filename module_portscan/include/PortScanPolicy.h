#pragma once

#include "CollectPortInfoTask.h"
#include "IPUtil.h"
#include "framework/Policy.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Engine {

// The feature policy delivered under "10001": feature name, hash, enabled flag, and the
// "content" object whose "port_scan_task" becomes the child PortScanTaskPolicy.
class PortScanPolicy : public Framework::FeaturePolicy {
public:
    explicit PortScanPolicy(const std::string& name);
    ~PortScanPolicy() override;

    // Reads the feature document. False for text that is not JSON or lacks "content" or
    // "content"/"port_scan_task"; true otherwise, also when the task policy failed (then
    // IsPortScanEnable() is false).
    bool Parse(const std::string& text) override;

    // Detection is on: the content enables it and the task policy parsed.
    bool IsPortScanEnable() const { return m_portScanEnable; }

private:
    bool m_portScanEnable;
};

// The settings of "port_scan_task", and the store of record of the per-port counters: the task
// writes its updated records back with RefreshAlarmInfo().
class PortScanTaskPolicy : public Framework::TaskPolicy {
public:
    explicit PortScanTaskPolicy(const std::string& name);
    ~PortScanTaskPolicy() override;

    bool Parse(const std::string& text) override;

    const std::set<PortInfoNode>& GetPolicyPortSet() const { return m_policyPortSet; }
    const std::vector<IP_RANGE>& GetWhileIpList() const { return m_whiteIpList; }
    uint32_t GetMaxPortPkgNum() const { return m_maxPortPkgNum; }
    uint32_t GetPortMaxIpNum() const { return m_portMaxIpNum; }
    uint32_t GetMaxLogNum() const { return m_maxLogNum; }
    bool IsBindMasterIntf() const { return m_bindMasterIntf; }
    bool IsChkBeforAlarm() const { return m_chkBeforeAlarm; }
    bool IsPortScanEnable() const { return m_enable; }
    uint32_t GetMaxPktCount() const { return m_maxPktCount; }

    // Opt-in switches (the boolean extension keys of TaskPolicyKeys()), all off unless the policy
    // turns them on. True when the switch `key` is on.
    bool IsSwitchOn(const std::string& key) const;
    // Keep reading frames already queued after a wake-up of the capture socket.
    bool IsDrainSocketQueue() const { return IsSwitchOn("drain_socket_queue"); }
    // Find a port's record in the task's own set by comparing port and type, not by its ordering.
    bool IsExactPortLookup() const { return IsSwitchOn("exact_port_lookup"); }
    // The live occupancy query also asks about IPv6 sockets (which may serve IPv4 too).
    bool IsDualStackOccupancy() const { return IsSwitchOn("dual_stack_occupancy"); }
    // Send an alarm as soon as its port crosses the threshold instead of at the minute tick.
    bool IsPromptAlarms() const { return IsSwitchOn("prompt_alarms"); }
    // Capture IPv6 frames too, on a second packet socket ("ipv6").
    bool IsIpv6Enable() const { return IsSwitchOn("ipv6"); }
    // Rebuild the capture filters when the host gains or loses an address.
    bool IsFollowAddressChanges() const { return IsSwitchOn("follow_address_changes"); }
    // The capture filters admit only sources the module reports; white-listed ones count toward no limit.
    bool IsReportableSourcesOnly() const { return IsSwitchOn("reportable_sources_only"); }
    // The once-per-run alarm limit holds per port, protocol and source.
    bool IsAlarmPerSource() const { return IsSwitchOn("alarm_per_source"); }
    // One summary document per scanning source and scan.
    bool IsScanSummary() const { return IsSwitchOn("scan_summary"); }
    // Seconds without a probe that end a scan ("summary_quiet_s").
    int GetSummaryQuietSeconds() const { return m_summaryQuietS; }
    // IPv6 ranges of remote hosts whose packets never raise alarms ("white_ip6_list").
    const std::vector<IP6_RANGE>& GetWhiteIp6List() const { return m_whiteIp6List; }

    // Replaces the record with the same port and type by a copy of `node`; a pair the policy does
    // not name is not added.
    void RefreshAlarmInfo(const PortInfoNode& node);

private:
    std::set<PortInfoNode> m_policyPortSet;
    std::vector<IP_RANGE> m_whiteIpList;
    uint32_t m_maxPortPkgNum;
    uint32_t m_portMaxIpNum;
    uint32_t m_maxLogNum;
    bool m_bindMasterIntf;
    bool m_chkBeforeAlarm;
    bool m_enable;
    uint32_t m_maxPktCount;
    std::map<std::string, bool> m_switches;  // opt-in switch -> on
    int m_summaryQuietS;
    std::vector<IP6_RANGE> m_whiteIp6List;
};

}  // namespace Engine
