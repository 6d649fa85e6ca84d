#include "JsonText.h"

#include <exception>
#include <memory>

namespace HostAgent {

namespace {

// JsonCpp lists errors as "* Line 1, Column 2\n  message\n"; one line reads better in a log.
std::string OneLine(const std::string& errors) {
    std::string line;
    for (char c : errors) {
        if (c == '\n' || c == ' ') {
            if (!line.empty() && line.back() != ' ') {
                line += ' ';
            }
        } else if (c != '*' || !line.empty()) {
            line += c;
        }
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    return line;
}

}  // namespace

bool ParseJsonText(const std::string& text, bool strict, Json::Value& root, std::string& error) {
    Json::CharReaderBuilder builder;
    if (strict) {
        Json::CharReaderBuilder::strictMode(&builder.settings_);
    }
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
            return true;
        }
    } catch (const std::exception& e) {
        // JsonCpp throws instead of reporting when the nesting passes its stack limit (1000).
        error = std::string("nested too deeply (") + e.what() + ")";
        return false;
    }
    error = OneLine(errors);
    if (error.empty()) {
        error = "not valid JSON";
    }
    return false;
}

}  // namespace HostAgent
