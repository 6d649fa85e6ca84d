// README and the man page list exactly the keys of the agent's key table, with its values and
// defaults: a key added to the table and not documented, or documented and gone, fails here.
#include "AgentKeys.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <sstream>

namespace {

using namespace HostAgent;

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

// The lines of `text` from the line `heading` up to the next line starting with `next`.
std::vector<std::string> Section(const std::string& text, const std::string& heading,
                                 const std::string& next) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    bool inside = false;
    for (std::string line; std::getline(in, line) && !(inside && line.rfind(next, 0) == 0);) {
        if (inside) {
            lines.push_back(line);
        }
        inside = inside || line == heading;
    }
    return lines;
}

TEST(KeyDocsTest, ReadmeAndManPageListExactlyTheAgentKeysWithTheirValuesAndDefaults) {
    const std::string readme = TestSupport::ReadFile(SOURCE_DIR "/README.md");
    const std::string man = TestSupport::ReadFile(SOURCE_DIR "/packaging/hostagent.8");

    std::set<std::string> expectedRows, expectedNames, rows, manNames;
    for (const AgentKey& key : AgentKeys()) {
        const std::string name = key.name, values = Values(key), def = key.defaultText;
        expectedNames.insert(name);
        expectedRows.insert("| `" + name + "` | " + values + " | " + (def.empty() ? "" : "`" + def + "`") +
                            " | " + key.help + " |");
        const std::string manValues =
            def.empty() ? values : values + (values.empty() ? "" : "; ") + "default " + def;
        const std::string entry =
            ".TP\n.B " + name + "\n" + (manValues.empty() ? "" : manValues + ": ") + key.help + "\n";
        EXPECT_NE(man.find(entry), std::string::npos) << "man page lacks:\n" << entry;
    }
    for (const std::string& line : Section(readme, "## Agent config keys", "## ")) {
        if (line.rfind("| `", 0) == 0) {
            rows.insert(line);
        }
    }
    EXPECT_EQ(rows, expectedRows) << "README's key rows differ from the key table";
    std::string previous;
    for (const std::string& line : Section(man, ".SS Config keys", ".S")) {
        if (previous == ".TP" && line.rfind(".B ", 0) == 0) {
            manNames.insert(line.substr(3));
        }
        previous = line;
    }
    EXPECT_EQ(manNames, expectedNames);
}

}  // namespace
