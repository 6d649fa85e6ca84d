#include "sdk/PathUtils.h"
#include "sdk/StrUtils.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using Pieces = std::vector<std::string>;

TEST(StrUtilsTest, SplitKeepsEmptyPieces) {
    const std::tuple<std::string, std::string, Pieces> cases[] = {
        {"a,b,c", ",", {"a", "b", "c"}},
        {"a,,b", ",", {"a", "", "b"}},
        {"", ",", {""}},
        {",a,", ",", {"", "a", ""}},
        {"a;b,c", ",;", {"a", "b", "c"}},
        {"a,b", "", {"a,b"}},
        {" 10.0.0.1 , ::1", ",", {" 10.0.0.1 ", " ::1"}},
    };
    for (const auto& [text, separators, pieces] : cases) {
        EXPECT_EQ(SDK::StrUtils::Split(text, separators), pieces) << text << " at " << separators;
    }
}

TEST(PathUtilsTest, BothOverloadsGiveTheLastComponent) {
    const std::pair<const char*, const char*> cases[] = {
        {"a/b/c.cpp", "c.cpp"}, {"c.cpp", "c.cpp"}, {"/abs/x.h", "x.h"}, {"a/b/", ""}, {"/", ""}, {"", ""}};
    for (const auto& [path, name] : cases) {
        EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath(std::string(path)), name) << path;
        // The C-string result points into the argument (static for __FILE__), never a copy.
        EXPECT_EQ(SDK::PathUtils::GetFileNameFromPath(path), path + std::strlen(path) - std::strlen(name))
            << path;
    }
}

}  // namespace
