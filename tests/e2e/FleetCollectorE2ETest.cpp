// A fleet and its collector: three agent hosts, a scanner and a collector share one test LAN (a
// bridge in a namespace of the test's, private addresses, no default route). Each agent runs the
// shipped policy in a namespace (and host name) of its own and sends ECS documents over TCP syslog
// to the collector, which runs Debian's rsyslog and PostgreSQL with the shipped collector files (only
// addresses and credentials changed). The scanner probes one watched port on each host while
// PostgreSQL restarts: every alarm is stored once, none is lost, and portscan_sweeps names the
// scanner with three hosts.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <thread>

using namespace TestSupport;
using namespace ScanLab;

namespace {

const char* const kScanner = "10.87.0.2";
const char* const kCollector = "10.87.0.100";
const char* const kHosts[] = {"10.87.0.11", "10.87.0.12", "10.87.0.13"};
const char* const kPgBin = "/usr/lib/postgresql/15/bin/";
const int kSourcePort = 42501;

class FleetCollectorE2E : public ::testing::Test {
protected:
    void SetUp() override {
        if (const std::string why = MissingPrerequisite({"ip", "nmap", "rsyslogd", "psql", "unshare"});
            !why.empty()) {
            GTEST_SKIP() << why;
        }
        if (access((std::string(kPgBin) + "pg_ctl").c_str(), X_OK) != 0) {
            GTEST_SKIP() << "PostgreSQL 15 is not installed";
        }
        const std::string prefix = "e2c" + std::to_string(getpid()) + "-";
        RemoveStaleNamespaces("e2c");
        m_lan = std::make_unique<NetNs>(prefix + "lan");
        MustRun({"ip", "-n", m_lan->Name(), "link", "add", "br0", "type", "bridge"});
        MustRun({"ip", "-n", m_lan->Name(), "link", "set", "br0", "up"});
        m_scanner = Attach(prefix + "scan", kScanner);
        m_collector = Attach(prefix + "coll", kCollector);
        for (const char* host : kHosts) {
            m_hosts.push_back(Attach(prefix + "h" + std::to_string(m_hosts.size() + 1), host));
        }
        // Everything of the collector lives in the test folder, which PostgreSQL's user may enter.
        chmod(m_dir.Path().c_str(), 0755);
        MustRun({"install", "-d", "-o", "postgres", m_dir.File("pg"), m_dir.File("pgsock")});
        MustRun({"runuser", "-u", "postgres", "--", std::string(kPgBin) + "initdb", "-D", m_dir.File("pg"),
                 "-A", "trust", "-U", "postgres"},
                "", Seconds(120));
        StartDatabase();
        Psql({"-c", "CREATE DATABASE hostagent"}, "postgres");
        Psql({"-q", "-f", SOURCE_DIR "/packaging/collector/schema.sql"});

        std::string conf = ReadFile(SOURCE_DIR "/packaging/collector/hostagent-collector.conf");
        for (const auto& [from, to] :
             std::vector<std::pair<std::string, std::string>>{{"COLLECTOR_LISTEN_ADDRESS", kCollector},
                                                              {"COLLECTOR_DB_HOST", m_dir.File("pgsock")},
                                                              {"COLLECTOR_DB_PORT", "5432"},
                                                              {"COLLECTOR_DB_NAME", "hostagent"},
                                                              {"COLLECTOR_DB_USER", "postgres"},
                                                              {"COLLECTOR_DB_PASSWORD", ""}}) {
            conf.replace(conf.find(from), from.size(), to);
        }
        WriteFile(m_dir.File("collector.conf"), conf);
        MustRun({"mkdir", "-p", m_dir.File("rsyslog")});
        WriteFile(m_dir.File("rsyslog.conf"), "global(workDirectory=\"" + m_dir.File("rsyslog") +
                                                  "\")\ninclude(file=\"" + m_dir.File("collector.conf") +
                                                  "\")\n");
        const RunResult valid = TestSupport::Run({"rsyslogd", "-N1", "-f", m_dir.File("rsyslog.conf")});
        ASSERT_EQ(valid.code, 0) << valid.output;
        // The configurations for larger fleets are accepted as shipped.
        for (const char* shipped :
             {"hostagent-relay.conf", "hostagent-elasticsearch.conf", "hostagent-kafka.conf"}) {
            WriteFile(m_dir.File("check.conf"),
                      "global(workDirectory=\"" + m_dir.File("rsyslog") +
                          "\")\ninclude(file=\"" SOURCE_DIR "/packaging/collector/" + shipped + "\")\n");
            const RunResult checked = TestSupport::Run({"rsyslogd", "-N1", "-f", m_dir.File("check.conf")});
            EXPECT_TRUE(checked.code == 0 && checked.output.find("error") == std::string::npos &&
                        checked.output.find("disabled") == std::string::npos)
                << shipped << ":\n"
                << checked.output;
        }
        m_rsyslog = std::make_unique<Child>(
            std::vector<std::string>{FindProgram("rsyslogd"), "-n", "-f", m_dir.File("rsyslog.conf"), "-i",
                                     m_dir.File("rsyslog.pid")},
            m_collector->Name(), m_dir.File("rsyslog.out"), m_dir.File("rsyslog.err"));

        // The agents, each with its own host name, files and spool.
        for (size_t i = 0; i < m_hosts.size(); ++i) {
            const std::string folder = m_dir.File("agent" + std::to_string(i + 1));
            MustRun({"mkdir", "-p", folder});
            Json::Value config;
            ASSERT_TRUE(ParseJson(AgentConfigText(PORTSCAN_MODULE_PATH), config));
            Json::Value sink;
            ParseJson(R"({"type": "syslog", "protocol": "tcp", "spool": "syslog.spool", "format": "ecs"})",
                      sink);
            sink["address"] = std::string(kCollector) + ":6514";
            config["report"]["sinks"].append(sink);
            WriteFile(folder + "/agent.json", config.toStyledString());
            WriteFile(folder + "/portscan.json", ReadFile(SHIPPED_POLICY));
            m_agents.push_back(
                std::make_unique<Child>(std::vector<std::string>{FindProgram("unshare"), "--uts", "sh", "-c",
                                                                 "hostname host" + std::to_string(i + 1) +
                                                                     " && exec " HOSTAGENT_PATH " --config " +
                                                                     folder + "/agent.json"},
                                        m_hosts[i]->Name(), folder + "/stdout", folder + "/stderr"));
            ASSERT_TRUE(WaitForLine(folder + "/log/hostagent.log", "Reload BPF rules", Seconds(20)))
                << ReadFile(folder + "/stderr");
        }
    }

    void TearDown() override {
        for (auto& agent : m_agents) {
            agent->Signal(SIGTERM);
            agent->WaitExit(Millis(15000));
        }
        m_agents.clear();
        m_rsyslog.reset();
        TestSupport::Run({"runuser", "-u", "postgres", "--", std::string(kPgBin) + "pg_ctl", "-D",
                          m_dir.File("pg"), "-m", "fast", "stop"});
        if (HasFailure()) {
            m_dir.Keep();
            std::cerr << "collector files kept in " << m_dir.Path() << "\n";
        }
    }

    // A namespace on the LAN with `address`/24 on its "eth0".
    std::unique_ptr<NetNs> Attach(const std::string& name, const std::string& address) {
        auto ns = std::make_unique<NetNs>(name);
        const std::string port = "p" + std::to_string(m_ports++);
        MustRun({"ip", "-n", m_lan->Name(), "link", "add", port, "type", "veth", "peer", "name", "eth0",
                 "netns", ns->Name()});
        MustRun({"ip", "-n", m_lan->Name(), "link", "set", port, "master", "br0", "up"});
        MustRun({"ip", "-n", ns->Name(), "addr", "add", address + "/24", "dev", "eth0"});
        MustRun({"ip", "-n", ns->Name(), "link", "set", "eth0", "up"});
        return ns;
    }

    void StartDatabase() {
        MustRun({"runuser", "-u", "postgres", "--", std::string(kPgBin) + "pg_ctl", "-D", m_dir.File("pg"),
                 "-l", m_dir.File("pg/postgres.log"), "-o",
                 "-k " + m_dir.File("pgsock") + " -c listen_addresses=''", "-w", "start"},
                "", Seconds(60));
    }
    void StopDatabase() {
        MustRun({"runuser", "-u", "postgres", "--", std::string(kPgBin) + "pg_ctl", "-D", m_dir.File("pg"),
                 "-m", "fast", "-w", "stop"},
                "", Seconds(60));
    }
    std::string Psql(const std::vector<std::string>& args, const std::string& db = "hostagent") {
        std::vector<std::string> argv = {"psql", "-h", m_dir.File("pgsock"), "-U", "postgres", "-d",
                                         db,     "-At"};
        argv.insert(argv.end(), args.begin(), args.end());
        return MustRun(argv);
    }

    // The event ids of every alarm the agents wrote to their own files.
    std::set<std::string> SentIds() {
        std::set<std::string> ids;
        for (size_t i = 0; i < m_hosts.size(); ++i) {
            for (const Json::Value& alarm :
                 ReadAlarms(m_dir.File("agent" + std::to_string(i + 1) + "/alarms.jsonl"))) {
                ids.insert(alarm["event_id"].asString());
            }
        }
        return ids;
    }
    std::set<std::string> StoredIds() {
        std::set<std::string> ids;
        std::istringstream rows(Psql({"-c", "SELECT event_id FROM hostagent_alarms"}));
        for (std::string id; std::getline(rows, id);) {
            ids.insert(id);
        }
        return ids;
    }
    void Scan(size_t host) {
        const RunResult scanned =
            TestSupport::Run({"nmap", "-sS", "-Pn", "-n", "-p", "3389", "-g", std::to_string(kSourcePort),
                              "--max-retries", "1", kHosts[host]},
                             m_scanner->Name(), Seconds(60));
        EXPECT_EQ(scanned.code, 0) << scanned.output;
    }

    TempDir m_dir;
    std::unique_ptr<NetNs> m_lan, m_scanner, m_collector;
    std::vector<std::unique_ptr<NetNs>> m_hosts;
    int m_ports = 0;
    std::unique_ptr<Child> m_rsyslog;
    std::vector<std::unique_ptr<Child>> m_agents;
};

TEST_F(FleetCollectorE2E, ASweepOverThreeHostsIsSeenCentrallyAcrossADatabaseRestart) {
    Scan(0);
    StopDatabase();  // in the middle of the sweep: the collector's queue holds what comes meanwhile
    Scan(1);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    StartDatabase();
    Scan(2);
    // Each host: the SYN's alarm and, once the scanner is quiet, its scan summary.
    ASSERT_TRUE(WaitUntil([&] { return SentIds().size() >= 6; }, Seconds(30))) << SentIds().size();
    std::set<std::string> sent = SentIds();
    EXPECT_TRUE(WaitUntil([&] { return StoredIds() == sent; }, Seconds(30)))
        << "stored " << StoredIds().size() << " of " << sent.size() << "\n"
        << ReadFile(m_dir.File("rsyslog.err"));
    EXPECT_EQ(Psql({"-c", "SELECT count(*) FROM hostagent_alarms"}), std::to_string(sent.size()) + "\n");
    EXPECT_EQ(Psql({"-c", "SELECT source || ' ' || hosts || ' ' || ports FROM portscan_sweeps"}),
              std::string(kScanner) + " 3 1\n");
    EXPECT_EQ(
        Psql({"-c", "SELECT count(*) FROM portscan_sources WHERE source = '" + std::string(kScanner) + "'"}),
        "3\n");
}

}  // namespace
