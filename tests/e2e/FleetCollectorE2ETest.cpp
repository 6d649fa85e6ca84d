// Three agents (shipped policy, own namespace and host name) send ECS over TCP syslog to a collector with
// Debian's rsyslog, PostgreSQL and the shipped collector files, on a test bridge. A sweep of the three while
// PostgreSQL restarts: each alarm stored once, none lost, portscan_sweeps names the scanner with three hosts.

#include "ScanLab.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>
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
        SKIP_WITHOUT("ip", "nmap", "rsyslogd", "psql", "unshare", "/usr/lib/postgresql/15/bin/pg_ctl");
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
        Psql("CREATE DATABASE hostagent", "postgres");
        Psql("\\i " SOURCE_DIR "/packaging/collector/schema.sql");

        std::string conf = ReadFile(SOURCE_DIR "/packaging/collector/hostagent-collector.conf");
        const std::string values[] = {
            "COLLECTOR_LISTEN_ADDRESS", kCollector, "COLLECTOR_DB_HOST",     m_dir.File("pgsock"),
            "COLLECTOR_DB_PORT",        "5432",     "COLLECTOR_DB_NAME",     "hostagent",
            "COLLECTOR_DB_USER",        "postgres", "COLLECTOR_DB_PASSWORD", ""};
        for (size_t i = 0; i < std::size(values); i += 2) {
            conf.replace(conf.find(values[i]), values[i].size(), values[i + 1]);
        }
        WriteFile(m_dir.File("collector.conf"), conf);
        // The collector's configuration and those for larger fleets are accepted as shipped.
        const std::string shipped = SOURCE_DIR "/packaging/collector/hostagent-";
        for (const std::string& included : {m_dir.File("collector.conf"), shipped + "relay.conf",
                                            shipped + "elasticsearch.conf", shipped + "kafka.conf"}) {
            WriteFile(m_dir.File("check.conf"), RsyslogConf(m_dir, "include(file=\"" + included + "\")\n"));
            const RunResult checked = TestSupport::Run({"rsyslogd", "-N1", "-f", m_dir.File("check.conf")});
            EXPECT_TRUE(checked.code == 0 && !std::regex_search(checked.output, std::regex("error|disabled")))
                << included << ":\n"
                << checked.output;
        }
        m_rsyslog = StartRsyslog(m_dir, "include(file=\"" + m_dir.File("collector.conf") + "\")\n",
                                 m_collector->Name());

        // The agents, each with its own host name, files and spool.
        Json::Value config = AgentConfig();
        Json::Value& sink = config["report"]["sinks"].append(
            Parsed(R"({"type": "syslog", "protocol": "tcp", "spool": "syslog.spool", "format": "ecs"})"));
        sink["address"] = std::string(kCollector) + ":6514";
        for (size_t i = 0; i < m_hosts.size(); ++i) {
            const std::string folder = Folder(i);
            MustRun({"mkdir", "-p", folder});
            m_agents.push_back(
                StartAgentIn(folder, config, ReadFile(SHIPPED_POLICY), m_hosts[i]->Name(),
                             {FindProgram("unshare"), "--uts", "sh", "-c",
                              "hostname host" + std::to_string(i + 1) + " && exec \"$0\" \"$@\""}));
            ASSERT_TRUE(WaitForLine(folder + "/log/hostagent.log", "Reload BPF rules", Seconds(20)))
                << ReadFile(folder + "/agent.err");
        }
    }

    void TearDown() override {
        m_agents.clear();
        m_rsyslog.reset();
        TestSupport::Run(PgCtl({"-m", "fast", "stop"}));
        if (HasFailure()) {
            m_dir.Keep();
            std::cerr << "collector files kept in " << m_dir.Path() << "\n";
        }
    }

    // A namespace on the LAN with `address`/24 on its "eth0".
    std::unique_ptr<NetNs> Attach(const std::string& name, const std::string& address) {
        auto ns = std::make_unique<NetNs>(name);
        const std::string port = "p" + std::to_string(m_ports++);
        AddVethPair(*m_lan, port, "", *ns, "eth0", address + "/24");
        MustRun({"ip", "-n", m_lan->Name(), "link", "set", port, "master", "br0"});
        return ns;
    }

    std::string Folder(size_t host) const { return m_dir.File("agent" + std::to_string(host + 1)); }
    std::vector<std::string> PgCtl(std::vector<std::string> args) {
        args.insert(args.begin(), {"runuser", "-u", "postgres", "--", std::string(kPgBin) + "pg_ctl", "-D",
                                   m_dir.File("pg")});
        return args;
    }
    void StartDatabase() {
        MustRun(PgCtl({"-l", m_dir.File("pg/postgres.log"), "-o",
                       "-k " + m_dir.File("pgsock") + " -c listen_addresses=''", "-w", "start"}),
                "", Seconds(60));
    }
    std::string Psql(const std::string& sql, const std::string& db = "hostagent") {
        return MustRun({"psql", "-h", m_dir.File("pgsock"), "-U", "postgres", "-d", db, "-At", "-c", sql});
    }

    // The event ids of every alarm the agents wrote to their own files.
    std::set<std::string> SentIds() {
        std::set<std::string> ids;
        for (size_t i = 0; i < m_hosts.size(); ++i) {
            ids.merge(EventIds(ReadAlarms(Folder(i) + "/alarms.jsonl")));
        }
        return ids;
    }
    void Scan(size_t host) {
        MustRun({"nmap", "-sS", "-Pn", "-n", "-p", "3389", "-g", std::to_string(kSourcePort), "--max-retries",
                 "1", kHosts[host]},
                m_scanner->Name());
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
    // In the middle of the sweep: the collector's queue holds what comes meanwhile.
    MustRun(PgCtl({"-m", "fast", "-w", "stop"}), "", Seconds(60));
    Scan(1);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    StartDatabase();
    Scan(2);
    // Each host: the SYN's alarm and, once the scanner is quiet, its scan summary.
    ASSERT_TRUE(WaitUntil([&] { return SentIds().size() >= 6; }, Seconds(30))) << SentIds().size();
    // Stored once each: the rows in bytewise order are the ids sent.
    std::string sent;
    for (const std::string& id : SentIds()) {
        sent += id + "\n";
    }
    const std::string stored = "SELECT event_id FROM hostagent_alarms ORDER BY event_id COLLATE \"C\"";
    EXPECT_TRUE(WaitUntil([&] { return Psql(stored) == sent; }, Seconds(30)))
        << "stored:\n"
        << Psql(stored) << "sent:\n"
        << sent << ReadFile(m_dir.File("rsyslog.out"));
    EXPECT_EQ(Psql("SELECT source || ' ' || hosts || ' ' || ports FROM portscan_sweeps"),
              std::string(kScanner) + " 3 1\n");
    EXPECT_EQ(Psql("SELECT count(*) FROM portscan_sources WHERE source = '" + std::string(kScanner) + "'"),
              "3\n");
}

}  // namespace
