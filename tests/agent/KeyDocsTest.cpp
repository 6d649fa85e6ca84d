// README and the man page list exactly the keys of the agent's and the task policy's key tables, with
// their values and defaults: a key added to a table and not documented, or documented and gone, fails here.
#include "AgentKeys.h"
#include "PortScanPolicySchema.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>

namespace {

using namespace HostAgent;

// The key rows ("| `...") of README's table whose header line is `header`.
std::set<std::string> ReadmeRows(const std::string& header) {
    const std::string readme = TestSupport::ReadFile(SOURCE_DIR "/README.md");
    std::istringstream table(readme.substr(std::min(readme.find(header), readme.size())));
    std::set<std::string> rows;
    for (std::string line; std::getline(table, line) && line.rfind('|', 0) == 0;) {
        if (line.rfind("| `", 0) == 0) {
            rows.insert(line);
        }
    }
    return rows;
}

// "1..86400", "udp, tcp", "true, false" or "" : the values a key takes, as the documents write them.
std::string Values(const AgentKey& key) {
    switch (key.kind) {
        case KeyKind::Integer:
            return std::to_string(key.low) + ".." + std::to_string(key.high);
        case KeyKind::Choice:
            return std::regex_replace(key.choices, std::regex("\\|"), ", ");
        case KeyKind::Flag:
            return "true, false";
        default:
            return "";
    }
}

TEST(KeyDocsTest, ReadmeAndManPageListExactlyTheKeysOfTheAgentAndTaskPolicyTables) {
    const std::string man = TestSupport::ReadFile(SOURCE_DIR "/packaging/hostagent.8");
    const std::size_t begin = man.find(".SS Config keys\n");
    ASSERT_NE(begin, std::string::npos);
    const std::string section = man.substr(begin, man.find("\n.S", begin + 1) + 1 - begin);
    std::set<std::string> agentRows;
    for (const AgentKey& key : AgentKeys()) {
        const std::string name = key.name, values = Values(key), def = key.defaultText;
        agentRows.insert("| `" + name + "` | " + values + " | " + (def.empty() ? "" : "`" + def + "`") +
                         " | " + key.help + " |");
        const std::string manValues =
            def.empty() ? values : values + (values.empty() ? "" : "; ") + "default " + def;
        const std::string entry =
            ".TP\n.B " + name + "\n" + (manValues.empty() ? "" : manValues + ": ") + key.help + "\n";
        EXPECT_NE(section.find(entry), std::string::npos) << "man page lacks:\n" << entry;
    }
    EXPECT_EQ(ReadmeRows("| key | values | default | meaning |"), agentRows);
    // Each key's entry is there (above), so as many entries as keys leaves room for no other.
    const std::regex entryStart("\\.TP\n\\.B ");
    EXPECT_EQ(std::distance(std::sregex_iterator(section.begin(), section.end(), entryStart),
                            std::sregex_iterator()),
              static_cast<long>(AgentKeys().size()))
        << section;

    std::set<std::string> policyRows;
    for (const Framework::PolicyKeyInfo& key : Engine::TaskPolicyKeys()) {
        policyRows.insert("| `" + key.name + "` | " + key.type + " | " + key.values + " | `" +
                          key.defaultText + "` | " + key.help + (key.extension ? " (opt-in)" : "") + " |");
    }
    EXPECT_EQ(ReadmeRows("| key | type | values | default | meaning |"), policyRows);
}

}  // namespace
