#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    // Splits `text` at every character of `separators`. Empty pieces are kept, so "a,,b" gives
    // "a", "", "b" and "" gives one empty piece.
    static std::vector<std::string> Split(const std::string& text, const std::string& separators);
};

}  // namespace SDK
