#include "sdk/JsonUtils.h"

#include <memory>

namespace SDK {

namespace {

// One reader configuration for every parse: strict JSON (no comments, single quotes or dropped
// values, nothing after the value) but any value as root, so a scalar or array root can be told
// apart from text that is no JSON at all. Duplicate keys are tolerated (the last one wins), as
// senders of policies do not all check for them.
std::unique_ptr<Json::CharReader> NewStrictReader() {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder.settings_["strictRoot"] = false;
    builder.settings_["rejectDupKeys"] = false;
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// The member `key` of `value`, or null when `value` is no object or has no such member.
const Json::Value* FindMember(const Json::Value& value, const std::string& key) {
    if (!value.isObject()) {
        return nullptr;
    }
    return value.find(key.data(), key.data() + key.size());
}

}  // namespace

int JsonUtils::ParseJsonStr(const char* text, unsigned long length, Json::Value& root) {
    root = Json::Value();
    if (text == nullptr || length == 0) {
        return kEmptyInput;
    }
    Json::Value parsed;
    std::string errors;
    try {
        const std::unique_ptr<Json::CharReader> reader = NewStrictReader();
        if (!reader->parse(text, text + length, &parsed, &errors)) {
            return kNotJson;
        }
    } catch (const std::exception&) {
        // JsonCpp throws on exceeding its nesting limit.
        return kNotJson;
    }
    if (!parsed.isObject()) {
        return kNotObject;
    }
    root.swap(parsed);
    return kParseOk;
}

std::string JsonUtils::GetStringValue(const Json::Value& value, const std::string& key,
                                      const std::string& defaultValue) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isString() ? member->asString() : defaultValue;
}

bool JsonUtils::GetBoolValue(const Json::Value& value, const std::string& key, bool defaultValue) {
    const Json::Value* member = FindMember(value, key);
    return member != nullptr && member->isBool() ? member->asBool() : defaultValue;
}

int JsonUtils::GetIntValue(const Json::Value& value, const std::string& key, int defaultValue) {
    const Json::Value* member = FindMember(value, key);
    if (member == nullptr) {
        return defaultValue;
    }
    // isInt() alone also accepts 5.0; only numbers written without a fraction count.
    const Json::ValueType type = member->type();
    if ((type != Json::intValue && type != Json::uintValue) || !member->isInt()) {
        return defaultValue;
    }
    return member->asInt();
}

bool JsonUtils::GetArrayValue(const Json::Value& value, const std::string& key, Json::Value& out) {
    const Json::Value* member = FindMember(value, key);
    if (member == nullptr || !member->isArray()) {
        return false;
    }
    out = *member;
    return true;
}

bool JsonUtils::GetSubobjectValue(const Json::Value& value, const std::string& key, Json::Value& out) {
    const Json::Value* member = FindMember(value, key);
    if (member == nullptr || !member->isObject()) {
        return false;
    }
    out = *member;
    return true;
}

std::string JsonUtils::JsonToString(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    // Non-ASCII text (paths, host names) stays readable instead of becoming \u escapes.
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

}  // namespace SDK
