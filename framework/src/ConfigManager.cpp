#include "framework/ConfigManager.h"

namespace Framework {

ConfigManager* ConfigManager::GetInstance() {
    static ConfigManager instance;
    return &instance;
}

std::vector<std::string> ConfigManager::GetConnectConfig() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connect;
}

void ConfigManager::SetConnectConfig(const std::vector<std::string>& endpoints) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connect = endpoints;
}

}  // namespace Framework
