#pragma once

#include <json/json.h>

#include <string>

namespace SDK {

// Thin, non-throwing access to JsonCpp values. Lookups on a value that is not an object, a missing
// key or a value of another type give the default (or false).
class JsonUtils {
public:
    enum ParseResult { kParseOk = 0, kNotJson = -1, kNotObject = -2, kEmptyInput = -3 };

    // Parses `length` bytes of `text` into `root`. 0 on success; -1 when the text is not JSON;
    // -2 when it is JSON but its root is not an object; -3 for a null or empty input. On any
    // failure `root` is left null.
    static int ParseJsonStr(const char* text, unsigned long length, Json::Value& root);

    static std::string GetStringValue(const Json::Value& value, const std::string& key,
                                      const std::string& defaultValue);
    static bool GetBoolValue(const Json::Value& value, const std::string& key, bool defaultValue);
    // Integers only (a JSON number with a fraction, a string or a bool gives the default); values
    // outside the int range give the default.
    static int GetIntValue(const Json::Value& value, const std::string& key, int defaultValue);
    // True and `out` set when `key` holds an array.
    static bool GetArrayValue(const Json::Value& value, const std::string& key, Json::Value& out);
    // True and `out` set when `key` holds an object.
    static bool GetSubobjectValue(const Json::Value& value, const std::string& key, Json::Value& out);

    // Compact one-line JSON text, no trailing newline.
    static std::string JsonToString(const Json::Value& value);
};

}  // namespace SDK
