// The governor that keeps a thread under the CPU limit is measured from /proc by AgentBoundsE2E.
#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

namespace {

TEST(JsonUtilsTest, ParseJsonStrResults) {
    const std::pair<std::string, int> cases[] = {
        {" {\"a\": [1, {\"b\": null}]}\n", 0},
        {"[1,2]", -2},
        {"not json", -1},
        {R"({"a":1} tail)", -1},
        {R"({"a":1,})", -1},
        {R"({"a":/* c */1})", -1},
        {"{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}", -1},  // too deep
        {"", -3},
    };
    for (const auto& [text, result] : cases) {
        Json::Value root(123);
        EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root), result) << text.substr(0, 20);
        EXPECT_TRUE(result == 0 ? root.isObject() : root.isNull()) << text.substr(0, 20);
    }
    const char unterminated[] = {'{', '}', 'x'};  // only the counted bytes are read
    Json::Value root;
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(unterminated, 2, root), 0);
    EXPECT_EQ(SDK::JsonUtils::ParseJsonStr(nullptr, 10, root), -3);
}

}  // namespace
