#pragma once

#include "framework/Engine.h"

#include <Poco/Util/OptionSet.h>

#include <string>
#include <vector>

namespace HostAgent {

// The hostagent process: command line, config check, then the agent runtime on this Engine.
class HostAgentApp : public Framework::Engine {
public:
    HostAgentApp();

    // The full --help text: options, config keys, signals, files.
    std::string HelpText();

protected:
    void defineOptions(Poco::Util::OptionSet& options) override;
    void handleOption(const std::string& name, const std::string& value) override;
    int main(const std::vector<std::string>& args) override;

private:
    // --check-config: the modules judge their policy files; the exit code.
    int CheckOnly(const struct AgentConfig& config);

    bool m_help = false;
    bool m_checkOnly = false;
    bool m_version = false;
    std::string m_pidFile;
    bool m_status = false;
    std::string m_configPath;
};

}  // namespace HostAgent
