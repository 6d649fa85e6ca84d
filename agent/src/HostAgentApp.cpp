#include "HostAgentApp.h"

#include "AgentConfig.h"
#include "AgentKeys.h"
#include "AgentRuntime.h"
#include "AgentTunables.h"
#include "ModuleHost.h"
#include "PolicyFile.h"
#include "PolicyLint.h"
#include "StatusFile.h"

#include <Poco/Util/HelpFormatter.h>
#include <Poco/Util/Option.h>

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Path.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>

namespace HostAgent {

namespace {

const char* const kConfigHeader = R"(Config file (JSON; every key optional, unknown keys are refused; relative
paths start at the config file's folder; a module library exports CreateModule and its plug-in API
version). Keys, with their values and defaults:
)";

const char* const kConfigHelp = R"(
Alarm events go, one JSON document per line, to every sink of "report.sinks" (default: stdout);
syslog sinks send RFC 5424 messages (APP-NAME hostagent, MSGID the alarm's "event_classid", MSG the
document), over TCP octet-counted. A module task that stops by itself starts again after
"supervisor.restart_delay_s" (doubling on quick repeats, up to an hour).

Signals:
  SIGHUP               deliver every policy file again
  SIGUSR1              reopen the log and alarm files (after a rotation)
  SIGINT, SIGTERM      stop: modules first, then the built-in tasks; queued alarms are written
                       (or kept in the TCP syslog spool) before the agent exits with status 0

Files:
  policy files         followed through inotify on their folders (edits in place and by rename);
                       a changed file is delivered again within seconds; a file that
                       cannot be read is logged and retried; one that is not a JSON object, or
                       that its module would give up, is refused with one error line and the
                       last good policy stays in force (renewals and restarts deliver that one);
                       --status shows the problem
  alarm files          JSON lines, appended, written per event; folders are created; a file
                       that is moved or removed is created again; writes that fail (disk full)
                       are retried every second, the alarms kept meanwhile
  syslog spool         alarms a TCP collector has not taken yet, sent in order once it is back
  log file             folders are created; more than 40 lines a minute from one source line
                       are counted instead of written, and a summary line gives the count
  config, policy and module files, and every folder above them, must not be writable by any
  user but root or the agent's own (folders with the sticky bit, like /tmp, excepted): such a
  file is refused, naming the file or folder and the chmod or chown that fixes it

Packet capture by modules needs root or CAP_NET_RAW.
)";

// The process id in a file while the agent runs, for tools that signal it (log rotation without
// a service manager). Removed when the agent ends.
class PidFile {
public:
    explicit PidFile(const std::string& path) : m_path(path) {}
    ~PidFile() {
        if (m_written) {
            std::remove(m_path.c_str());
        }
    }
    bool Write(std::string& error) {
        if (m_path.empty()) {
            return true;
        }
        try {
            Poco::File(Poco::Path(m_path).parent()).createDirectories();
        } catch (const Poco::Exception& e) {
            error = "cannot create the folder of pid file " + m_path + ": " + e.displayText();
            return false;
        }
        std::ofstream out(m_path, std::ios::trunc);
        out << getpid() << "\n";
        out.close();
        if (!out) {
            error = "cannot write pid file " + m_path;
            return false;
        }
        m_written = true;
        return true;
    }

private:
    std::string m_path;
    bool m_written = false;
};

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
    options.addOption(Poco::Util::Option("status", "",
                                         "Print the running agent's status (of the config FILE, default " +
                                             std::string(kDefaultConfigFile) +
                                             ") and exit 0 when every task runs, 1 when one does not or "
                                             "the agent does not respond, 3 when no agent runs, 4 when "
                                             "the status file cannot be read.")
                          .required(false)
                          .repeatable(false));
    options.addOption(
        Poco::Util::Option("pid-file", "", "Write the agent's process id to FILE while it runs.")
            .required(false)
            .repeatable(false)
            .argument("FILE"));
    options.addOption(
        Poco::Util::Option("version", "", "Print the version and exit.").required(false).repeatable(false));
    options.addOption(
        Poco::Util::Option("help", "h", "Show this help and exit.").required(false).repeatable(false));
}

void HostAgentApp::handleOption(const std::string& name, const std::string& value) {
    Framework::Engine::handleOption(name, value);
    if (name == "help") {
        m_help = true;
        stopOptionsProcessing();
    } else if (name == "version") {
        m_version = true;
        stopOptionsProcessing();
    } else if (name == "pid-file") {
        m_pidFile = value;
    } else if (name == "config") {
        m_configPath = value;
    } else if (name == "check-config") {
        m_checkOnly = true;
    } else if (name == "status") {
        m_status = true;
    }
}

std::string HostAgentApp::HelpText() {
    std::ostringstream text;
    Poco::Util::HelpFormatter formatter(options());
    formatter.setUnixStyle(true);
    formatter.setWidth(100);
    formatter.setCommand("hostagent");
    formatter.setUsage(
        "--config FILE [--check-config] [--pid-file FILE] | --status [--config FILE] | --version | --help");
    formatter.setHeader(
        "Host security agent: loads detection modules, feeds them their policies and "
        "reports their alarm events.");
    formatter.format(text);
    text << "\n" << kConfigHeader << KeyHelpText() << kConfigHelp;
    return text.str();
}

int HostAgentApp::CheckOnly(const AgentConfig& config) {
    // The modules are created, not started: they judge their own policies.
    ModuleHost modules(*this);
    std::string error;
    for (const std::string& module : config.modules) {
        if (!modules.LoadForChecks(module, error)) {
            std::cerr << "hostagent: " << config.file << ": " << error << "\n";
            return EXIT_CONFIG;
        }
    }
    // Each file must be one JSON object that its module would take; the module names what else is
    // ineffective, which does not fail the check: the module runs such policies, only less well.
    std::vector<std::string> findings;
    for (const PolicySource& source : config.policies) {
        std::string text;
        std::string problem;
        if (!ReadPolicyFile(source.path, text, problem) || !CheckPolicyText(text, problem) ||
            !(problem = modules.RefusalOf(source.key, text)).empty()) {
            std::cerr << "hostagent: "
                      << PrintableText(source.path + ": " + problem + " (policy file of key \"" + source.key +
                                       "\" in " + config.file + ")")
                      << "\n";
            return EXIT_CONFIG;
        }
        for (const std::string& finding : LintPolicy(modules, source.key, source.path, text)) {
            findings.push_back(finding);
        }
    }
    for (const std::string& finding : findings) {
        std::cout << finding << "\n";
    }
    std::cout << "configuration OK\n";
    return EXIT_OK;
}

int HostAgentApp::main(const std::vector<std::string>& args) {
    if (m_help) {
        std::cout << HelpText();
        return EXIT_OK;
    }
    if (m_version) {
        std::cout << "hostagent " << HOSTAGENT_VERSION << "\n";
        return EXIT_OK;
    }
    if (!args.empty()) {
        std::cerr << "hostagent: unexpected argument \"" << args.front() << "\" (see hostagent --help)\n";
        return EXIT_USAGE;
    }
    if (m_status) {
        AgentConfig config;
        std::string error;
        if (!LoadAgentConfig(m_configPath.empty() ? kDefaultConfigFile : m_configPath, config, error)) {
            std::cerr << "hostagent: " << error << "\n";
            return kStatusNoAgent;
        }
        return PrintStatus(config.statusFile, std::cout, std::cerr);
    }
    if (m_configPath.empty()) {
        std::cerr << "hostagent: --config FILE is required (see hostagent --help)\n";
        return EXIT_USAGE;
    }
    AgentConfig config;
    std::string error;
    if (!LoadAgentConfig(m_configPath, config, error) || !CheckModuleFiles(config, error)) {
        std::cerr << "hostagent: " << error << "\n";
        return EXIT_CONFIG;
    }
    if (m_checkOnly) {
        return CheckOnly(config);
    }
    PidFile pidFile(m_pidFile);
    if (!pidFile.Write(error)) {
        std::cerr << "hostagent: " << error << "\n";
        return EXIT_CANTCREAT;
    }
    AgentRuntime runtime(*this, config);
    return runtime.Run();
}

}  // namespace HostAgent
