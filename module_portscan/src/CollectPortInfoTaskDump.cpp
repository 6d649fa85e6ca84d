// The collection task's minute dump of its port table to the debug log.

#include "CollectPortInfoTaskInternal.h"

#include "sdk/LoggerUtils.h"

namespace Engine {

using namespace CollectTask;

namespace {
// The table is one line per record, at most a hundred, once a minute: the log budget, meant for
// repeated failures, must not cut it short.
constexpr SDK::LogBudget kTableBudget = SDK::LogBudget::kExempt;
}  // namespace

void CollectPortInfoTask::PrintPortInfo() {
    if (SDK::LoggerUtils::GetInstance()->GetLevel() <= Poco::Message::PRIO_INFORMATION) {
        return;
    }
    PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget,
                          "-------------------------Print Policy Port-------------------------");
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    for (const PortInfoNode& node : ports) {
        if (!IsPortInUse(node.port, node.type)) {
            // The packet figure is alarmNum too; pkgNum is not shown.
            PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget,
                                  "  Port %5u [%u]: Got %2d packet from %zu hosts. Alarm:%d", node.port,
                                  node.type, node.alarmNum, node.remoteIps.size() + node.remoteIp6s.size(),
                                  node.alarmNum);
        } else {
            PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget,
                                  "  Port %5u: IS BEING USED.Alarm:%d", node.port, node.alarmNum);
        }
    }
    PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget,
                          "-------------------------Print Ban Port-------------------------");
    for (const auto& entry : m_banPortMap) {
        PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget, " Port:%u BAN!", entry.first);
    }
    PORTSCAN_LOG_BUDGETED(Poco::Message::PRIO_DEBUG, kTableBudget,
                          "-------------------------End of Port info-------------------------");
}

}  // namespace Engine
