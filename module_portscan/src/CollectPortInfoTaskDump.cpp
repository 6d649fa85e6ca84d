// The collection task's minute dump of its port table to the debug log.

#include "CollectPortInfoTaskInternal.h"

#include "sdk/LoggerUtils.h"

namespace Engine {

using namespace CollectTask;

void CollectPortInfoTask::PrintPortInfo() {
    if (SDK::LoggerUtils::GetInstance()->GetLevel() <= Poco::Message::PRIO_INFORMATION) {
        return;
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------Print Policy Port-------------------------");
    const std::set<PortInfoNode> ports = CopyPortSet(GetPolicy());
    for (const PortInfoNode& node : ports) {
        if (!IsPortInUse(node.port, node.type)) {
            // The packet figure is alarmNum too; pkgNum is not shown.
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                         "  Port %5u [%u]: Got %2d packet from %zu hosts. Alarm:%d", node.port, node.type,
                         node.alarmNum, node.remoteIps.size() + node.remoteIp6s.size(), node.alarmNum);
        } else {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "  Port %5u: IS BEING USED.Alarm:%d", node.port,
                         node.alarmNum);
        }
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------Print Ban Port-------------------------");
    for (const auto& entry : m_banPortMap) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, " Port:%u BAN!", entry.first);
    }
    PORTSCAN_LOG(Poco::Message::PRIO_DEBUG,
                 "-------------------------End of Port info-------------------------");
}

}  // namespace Engine
