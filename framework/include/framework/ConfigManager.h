#pragma once

#include <mutex>
#include <string>
#include <vector>

namespace Framework {

// Agent-wide configuration that modules may read.
class ConfigManager {
public:
    static ConfigManager* GetInstance();

    // The management-server endpoints of the agent, each "address:port", in config order.
    std::vector<std::string> GetConnectConfig() const;
    void SetConnectConfig(const std::vector<std::string>& endpoints);

private:
    ConfigManager() = default;
    mutable std::mutex m_mutex;
    std::vector<std::string> m_connect;
};

}  // namespace Framework
