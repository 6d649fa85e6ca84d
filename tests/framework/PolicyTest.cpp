#include <gtest/gtest.h>

#include "TestSupport.h"

namespace FwTest {
namespace {

class PlainTaskPolicy : public Framework::TaskPolicy {
public:
    using TaskPolicy::TaskPolicy;
    bool Parse(const std::string&) override { return true; }
};

struct ConditionCase {
    const char* text;
    bool accepted;
    int delay;  // the condition afterwards: the new one, or the previous (5) when rejected
};

TEST(TaskPolicyTest, ParseConditionTable) {
    const ConditionCase cases[] = {
        {"{}", true, 0},
        {"{\"start_delay_s\":0}", true, 0},
        {"{\"start_delay_s\":3600}", true, 3600},
        {"{\"start_delay_s\":12}", true, 12},
        {"{\"start_delay_s\":-1}", false, 5},
        {"{\"start_delay_s\":3601}", false, 5},
        {"{\"start_delay_s\":1.5}", false, 5},
        {"{\"start_delay_s\":2.0}", false, 5},
        {"{\"start_delay_s\":\"10\"}", false, 5},
        {"{\"start_delay_s\":true}", false, 5},
        {"{\"start_delay_s\":null}", false, 5},
        {"{\"start_delay_s\":99999999999}", false, 5},
        {"{\"start_delay\":1}", false, 5},
        {"{\"start_delay_s\":1,\"extra\":2}", false, 5},
        {"[]", false, 5},
        {"3", false, 5},
        {"", false, 5},
        {"{\"start_delay_s\":", false, 5},
    };
    for (const ConditionCase& c : cases) {
        SCOPED_TRACE(c.text);
        PlainTaskPolicy policy("t");
        ASSERT_TRUE(policy.ParseCondition("{\"start_delay_s\":5}"));
        TheLog()->Clear();
        EXPECT_EQ(policy.ParseCondition(c.text), c.accepted);
        EXPECT_EQ(policy.GetCondition().startDelaySeconds, c.delay);
        const auto errors = TheLog()->Lines(Poco::Message::PRIO_ERROR);
        ASSERT_EQ(errors.size(), c.accepted ? 0u : 1u);
        if (!c.accepted) {
            EXPECT_NE(errors[0].find("task_condition"), std::string::npos) << errors[0];
        }
    }
}

TEST(PolicyTest, CompositeOwnsChildrenAndFindsByName) {
    PolicyCounts counts;
    {
        CountedFeaturePolicy composite(&counts);
        composite.Add(new CountedTaskPolicy("a", &counts, 1));
        composite.Add(nullptr);
        auto* second = new CountedTaskPolicy("b", &counts, 1);
        composite.Add(second);
        composite.Add(new CountedTaskPolicy("b", &counts, 2));
        EXPECT_EQ(composite.GetChildren().size(), 3u);
        EXPECT_EQ(composite.FindChild("b"), second);
        EXPECT_EQ(composite.FindChild("zzz"), nullptr);
    }
    EXPECT_EQ(counts.freed.load(), 4);  // three children, then the parent
}

}  // namespace
}  // namespace FwTest
