// README and the man page list exactly the keys of the agent's key table, with its values and
// defaults: a key added to the table and not documented, or documented and gone, fails here.
#include "AgentKeys.h"
#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>

namespace {

using namespace HostAgent;

// "1..86400", "udp, tcp", "true, false" or "" : the values a key takes, as the documents write them.
std::string Values(const AgentKey& key) {
    switch (key.kind) {
        case KeyKind::Integer:
            return std::to_string(key.low) + ".." + std::to_string(key.high);
        case KeyKind::Choice: {
            std::string text = key.choices;
            for (std::size_t bar; (bar = text.find('|')) != std::string::npos;) {
                text.replace(bar, 1, ", ");
            }
            return text;
        }
        case KeyKind::Flag:
            return "true, false";
        default:
            return "";
    }
}

std::string ReadmeRow(const AgentKey& key) {
    const std::string def = *key.defaultText ? std::string("`") + key.defaultText + "`" : "";
    return std::string("| `") + key.name + "` | " + Values(key) + " | " + def + " | " + key.help + " |";
}

std::string ManEntry(const AgentKey& key) {
    std::string values = Values(key);
    if (*key.defaultText) {
        values += (values.empty() ? "default " : "; default ") + std::string(key.defaultText);
    }
    return std::string(".TP\n.B ") + key.name + "\n" + (values.empty() ? "" : values + ": ") + key.help +
           "\n";
}

// The lines of `text` from the line `heading` up to the next line starting with `next`.
std::vector<std::string> Section(const std::string& text, const std::string& heading,
                                 const std::string& next) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    bool inside = false;
    for (std::string line; std::getline(in, line);) {
        if (inside && line.rfind(next, 0) == 0) {
            break;
        }
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

    std::set<std::string> expectedRows;
    std::set<std::string> expectedNames;
    for (const AgentKey& key : AgentKeys()) {
        expectedRows.insert(ReadmeRow(key));
        expectedNames.insert(key.name);
        EXPECT_NE(man.find(ManEntry(key)), std::string::npos) << "man page lacks:\n" << ManEntry(key);
    }
    std::set<std::string> rows;
    for (const std::string& line : Section(readme, "## Agent config keys", "## ")) {
        if (line.rfind("| `", 0) == 0) {
            rows.insert(line);
        }
    }
    EXPECT_EQ(rows, expectedRows) << "README's key rows differ from the key table";
    std::set<std::string> manNames;
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
