#include "sdk/JsonUtils.h"

#include <gtest/gtest.h>

namespace {

using SDK::JsonUtils;

int Parse(const std::string& text, Json::Value& root) {
    return JsonUtils::ParseJsonStr(text.data(), text.size(), root);
}

TEST(JsonUtilsTest, ParseResults) {
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    const std::pair<std::string, int> cases[] = {
        {R"({"a":1})", 0},
        {" \n{\"a\": [1, {\"b\": null}]}\n\t", 0},
        {"[1,2]", -2},
        {"42", -2},
        {R"("text")", -2},
        {"null", -2},
        {"not json", -1},
        {"   ", -1},
        {R"({"a":1} tail)", -1},
        {R"({"a":1}{})", -1},
        {R"({"a":1,})", -1},
        {R"({'a':1})", -1},
        {R"({"a":/* c */1})", -1},
        {R"({"a":)", -1},
        {R"({"a":NaN})", -1},
        {"{\"a\":" + deep + "}", -1},
    };
    for (const auto& [text, result] : cases) {
        Json::Value root(123);
        EXPECT_EQ(Parse(text, root), result) << text.substr(0, 40);
        EXPECT_TRUE(result == 0 ? root.isObject() : root.isNull()) << text.substr(0, 40);
    }
    // Only the counted bytes are read; the buffer need not be terminated.
    const char buffer[] = {'{', '"', 'k', '"', ':', '7', '}', 'x'};
    Json::Value root;
    EXPECT_EQ(JsonUtils::ParseJsonStr(buffer, 7, root), 0);
    EXPECT_EQ(root["k"].asInt(), 7);
    EXPECT_EQ(JsonUtils::ParseJsonStr(buffer, sizeof(buffer), root), -1);
    EXPECT_EQ(JsonUtils::ParseJsonStr(nullptr, 10, root), -3);
    EXPECT_EQ(JsonUtils::ParseJsonStr(buffer, 0, root), -3);
}

TEST(JsonUtilsTest, GettersGiveDefaultsOnMissingKeyOrOtherType) {
    Json::Value doc;
    ASSERT_EQ(Parse(R"({"s":"x","b":true,"i":5,"neg":-7,"f":5.5,"f0":5.0,"big":3000000000,
                        "arr":[1,2],"obj":{"k":1},"nul":null})",
                    doc),
              0);
    // What each getter gives for a key; "d", -1 and -9 are the defaults passed in.
    const struct {
        const char* key;
        const char* text;
        int flag;  // GetBoolValue with default false, as 0/1; -1: the default also with true
        int number;
        bool array;
        bool object;
    } cases[] = {
        {"s", "x", -1, -9, false, false},       {"b", "d", 1, -9, false, false},
        {"i", "d", -1, 5, false, false},        {"neg", "d", -1, -7, false, false},
        {"f", "d", -1, -9, false, false},       {"f0", "d", -1, -9, false, false},
        {"big", "d", -1, -9, false, false},     {"arr", "d", -1, -9, true, false},
        {"obj", "d", -1, -9, false, true},      {"nul", "d", -1, -9, false, false},
        {"missing", "d", -1, -9, false, false},
    };
    for (const auto& c : cases) {
        Json::Value out("untouched");
        EXPECT_EQ(JsonUtils::GetStringValue(doc, c.key, "d"), c.text) << c.key;
        EXPECT_EQ(JsonUtils::GetBoolValue(doc, c.key, false), c.flag == 1) << c.key;
        EXPECT_EQ(JsonUtils::GetBoolValue(doc, c.key, true), c.flag != 0) << c.key;
        EXPECT_EQ(JsonUtils::GetIntValue(doc, c.key, -9), c.number) << c.key;
        EXPECT_EQ(JsonUtils::GetArrayValue(doc, c.key, out), c.array) << c.key;
        EXPECT_EQ(out, c.array ? doc.get(c.key, Json::Value()) : Json::Value("untouched")) << c.key;
        EXPECT_EQ(JsonUtils::GetSubobjectValue(doc, c.key, out), c.object) << c.key;
    }
    for (const Json::Value& other : {Json::Value(), Json::Value(3), Json::Value(Json::arrayValue)}) {
        Json::Value out;
        EXPECT_EQ(JsonUtils::GetStringValue(other, "s", "d"), "d");
        EXPECT_EQ(JsonUtils::GetIntValue(other, "i", 9), 9);
        EXPECT_FALSE(JsonUtils::GetSubobjectValue(other, "obj", out));
    }
}

TEST(JsonUtilsTest, JsonToStringIsOneCompactLine) {
    Json::Value doc;
    doc["b"].append(1);
    doc["b"].append(2);
    doc["a"] = "x\"y\nz";
    doc["n"] = Json::Value::Int64(1700000000123);
    doc["u"] = "caf\xc3\xa9";
    const std::string text = JsonUtils::JsonToString(doc);
    EXPECT_EQ(text, "{\"a\":\"x\\\"y\\nz\",\"b\":[1,2],\"n\":1700000000123,\"u\":\"caf\xc3\xa9\"}");
    Json::Value back;
    ASSERT_EQ(Parse(text, back), 0);
    EXPECT_EQ(back, doc);
}

}  // namespace
