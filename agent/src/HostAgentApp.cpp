#include "HostAgentApp.h"

#include "AgentConfig.h"
#include "AgentRuntime.h"

#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>

#include <iostream>
#include <sstream>

namespace HostAgent {

namespace {

const char* const kConfigHelp = R"(Config file (JSON; every key optional, unknown keys are refused; relative
paths start at the config file's folder):
  "log"                {"level": "error"|"warning"|"information"|"debug",
                        "console": true|false (log to stderr), "file": log file ("" for none)}
  "connect"            ["address:port", ...]  management-server endpoints, readable by modules
  "cpu_limit_percent"  0..100, CPU share per busy thread in percent of one core (0: no limit)
  "modules"            [module library, ...]  loaded in this order (each exports CreateModule)
  "policies"           {"feature key": policy file, ...}  each file holds one JSON object
  "report"             {"sinks": [{"type": "stdout"} | {"type": "file", "path": file}, ...]}
                       where alarm events go, one JSON document per line (default: stdout)

Signals:
  SIGHUP               deliver every policy file again
  SIGINT, SIGTERM      stop: modules first, then the built-in tasks; queued alarms are written
                       before the agent exits with status 0

Files:
  policy files         looked at every second; a changed file is delivered again; a file that
                       cannot be read is logged and retried; one that is not a JSON object is
                       delivered with a warning (the module reports its errors; --check-config
                       refuses it)
  alarm files          JSON lines, appended, flushed per event; folders are created
  log file             folders are created
  config, policy and module files, and every folder above them, must not be writable by any
  user but root or the agent's own (folders with the sticky bit, like /tmp, excepted): such a
  file is refused, naming the file or folder and the chmod or chown that fixes it

Packet capture by modules needs root or CAP_NET_RAW.
)";

}  // namespace

HostAgentApp::HostAgentApp() = default;

void HostAgentApp::defineOptions(Poco::Util::OptionSet& options) {
    Framework::Engine::defineOptions(options);
    options.addOption(Poco::Util::Option("config", "c", "Run with the config FILE (JSON), in the foreground.")
                          .required(false)
                          .repeatable(false)
                          .argument("FILE"));
    options.addOption(Poco::Util::Option("check-config", "",
                                         "Validate the config and every policy file it names, print "
                                         "\"configuration OK\" and exit 0, or name the file and the problem "
                                         "and exit non-zero.")
                          .required(false)
                          .repeatable(false));
    options.addOption(
        Poco::Util::Option("help", "h", "Show this help and exit.").required(false).repeatable(false));
}

void HostAgentApp::handleOption(const std::string& name, const std::string& value) {
    Framework::Engine::handleOption(name, value);
    if (name == "help") {
        m_help = true;
        stopOptionsProcessing();
    } else if (name == "config") {
        m_configPath = value;
    } else if (name == "check-config") {
        m_checkOnly = true;
    }
}

std::string HostAgentApp::HelpText() {
    std::ostringstream text;
    Poco::Util::HelpFormatter formatter(options());
    formatter.setUnixStyle(true);
    formatter.setWidth(100);
    formatter.setCommand("hostagent");
    formatter.setUsage("--config FILE [--check-config] | --help");
    formatter.setHeader(
        "Host security agent: loads detection modules, feeds them their policies and "
        "reports their alarm events.");
    formatter.format(text);
    text << "\n" << kConfigHelp;
    return text.str();
}

int HostAgentApp::main(const std::vector<std::string>& args) {
    if (m_help) {
        std::cout << HelpText();
        return EXIT_OK;
    }
    if (!args.empty()) {
        std::cerr << "hostagent: unexpected argument \"" << args.front() << "\" (see hostagent --help)\n";
        return EXIT_USAGE;
    }
    if (m_configPath.empty()) {
        std::cerr << "hostagent: --config FILE is required (see hostagent --help)\n";
        return EXIT_USAGE;
    }
    AgentConfig config;
    std::string error;
    if (!LoadAgentConfig(m_configPath, config, error) || !CheckModuleFiles(config, error) ||
        (m_checkOnly && !CheckPolicyFiles(config, error))) {
        std::cerr << "hostagent: " << error << "\n";
        return EXIT_CONFIG;
    }
    if (m_checkOnly) {
        std::cout << "configuration OK\n";
        return EXIT_OK;
    }
    AgentRuntime runtime(*this, config);
    return runtime.Run();
}

}  // namespace HostAgent
