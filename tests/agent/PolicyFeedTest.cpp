#include "PolicyFeed.h"

#include "TestFiles.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace AgentTest {
namespace {

struct Delivery {
    std::string key;
    std::string name;
    std::string text;
    bool operator==(const Delivery& other) const {
        return key == other.key && name == other.name && text == other.text;
    }
};

std::ostream& operator<<(std::ostream& out, const Delivery& d) {
    return out << "{" << d.key << ", " << d.name << ", " << d.text << "}";
}

// A feed over two policy files whose deliveries are recorded; key "99" is served by nobody.
class PolicyFeedTest : public ::testing::Test {
protected:
    PolicyFeedTest()
        : m_feed({{"1", (m_folder / "one.json").string()},
                  {"2", (m_folder / "two.json").string()},
                  {"99", (m_folder / "orphan.json").string()}},
                 [this](const std::string& key, const std::string& name, const std::string& text) {
                     m_deliveries.push_back({key, name, text});
                     return key != "99";
                 }) {}

    std::vector<Delivery> Take() {
        std::vector<Delivery> taken;
        taken.swap(m_deliveries);
        return taken;
    }

    TempFolder m_folder;
    std::vector<Delivery> m_deliveries;
    HostAgent::PolicyFeed m_feed;
};

TEST_F(PolicyFeedTest, DeliversNewAndChangedFilesOnly) {
    WriteFile(m_folder / "one.json", R"({"v":1})");
    WriteFile(m_folder / "two.json", R"({"w":1})");
    EXPECT_EQ(m_feed.Poll(), 2u);
    EXPECT_EQ(Take(),
              (std::vector<Delivery>{{"1", "one.json", R"({"v":1})"}, {"2", "two.json", R"({"w":1})"}}));

    EXPECT_EQ(m_feed.Poll(), 0u);
    EXPECT_TRUE(Take().empty());

    // Same size, new content: still a change.
    WriteFile(m_folder / "two.json", R"({"w":2})");
    EXPECT_EQ(m_feed.Poll(), 1u);
    EXPECT_EQ(Take(), (std::vector<Delivery>{{"2", "two.json", R"({"w":2})"}}));

    // Rewritten with the same content: nothing to deliver.
    WriteFile(m_folder / "one.json", R"({"v":1})");
    EXPECT_EQ(m_feed.Poll(), 0u);
}

TEST_F(PolicyFeedTest, DeliverAllSendsEveryGoodFileAgain) {
    WriteFile(m_folder / "one.json", R"({"v":1})");
    WriteFile(m_folder / "two.json", "[]");
    m_feed.Poll();
    Take();
    EXPECT_EQ(m_feed.DeliverAll(), 1u);
    EXPECT_EQ(Take(), (std::vector<Delivery>{{"1", "one.json", R"({"v":1})"}}));
    EXPECT_EQ(m_feed.DeliverAll(), 1u);
    EXPECT_EQ(Take().size(), 1u);
}

TEST_F(PolicyFeedTest, RetriesMissingFilesAndHoldsBackMalformedOnes) {
    WriteFile(m_folder / "two.json", "{\"w\": ");  // not JSON
    EXPECT_EQ(m_feed.Poll(), 0u);
    EXPECT_TRUE(Take().empty());
    EXPECT_EQ(m_feed.Poll(), 0u);

    WriteFile(m_folder / "one.json", R"({"v":1})");  // appears later
    EXPECT_EQ(m_feed.Poll(), 1u);
    EXPECT_EQ(Take(), (std::vector<Delivery>{{"1", "one.json", R"({"v":1})"}}));

    WriteFile(m_folder / "two.json", R"({"w":3})");  // repaired
    EXPECT_EQ(m_feed.Poll(), 1u);
    EXPECT_EQ(Take(), (std::vector<Delivery>{{"2", "two.json", R"({"w":3})"}}));

    // Removed: the last delivery stays in force; restored with new content: delivered.
    std::filesystem::remove(m_folder / "one.json");
    EXPECT_EQ(m_feed.Poll(), 0u);
    WriteFile(m_folder / "one.json", R"({"v":2})");
    EXPECT_EQ(m_feed.Poll(), 1u);
    EXPECT_EQ(Take(), (std::vector<Delivery>{{"1", "one.json", R"({"v":2})"}}));
}

TEST_F(PolicyFeedTest, AKeyNobodyServesIsNotRetriedUntilItChanges) {
    WriteFile(m_folder / "orphan.json", R"({"o":1})");
    EXPECT_EQ(m_feed.Poll(), 0u);
    EXPECT_EQ(Take().size(), 1u);  // offered once
    EXPECT_EQ(m_feed.Poll(), 0u);
    EXPECT_TRUE(Take().empty());
    WriteFile(m_folder / "orphan.json", R"({"o":2})");
    m_feed.Poll();
    EXPECT_EQ(Take().size(), 1u);
}

TEST_F(PolicyFeedTest, DeliversNothingOnceStopped) {
    WriteFile(m_folder / "one.json", R"({"v":1})");
    m_feed.Stop();
    EXPECT_EQ(m_feed.Poll(), 0u);
    EXPECT_EQ(m_feed.DeliverAll(), 0u);
    EXPECT_TRUE(Take().empty());
}

}  // namespace
}  // namespace AgentTest
