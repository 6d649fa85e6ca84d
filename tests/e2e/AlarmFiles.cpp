#include "AlarmFiles.h"

#include "support/NetLab.h"

#include <gtest/gtest.h>

#include <memory>
#include <sstream>

namespace TestSupport {

bool ParseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    return reader->parse(text.data(), text.data() + text.size(), &out, &errors) && out.isObject();
}

std::vector<Json::Value> ReadAlarms(const std::string& path) {
    std::string text = ReadFile(path);
    const auto complete = text.rfind('\n');
    text.resize(complete == std::string::npos ? 0 : complete + 1);
    std::vector<Json::Value> alarms;
    std::stringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) {
            continue;
        }
        Json::Value alarm;
        EXPECT_TRUE(ParseJson(line, alarm)) << "not a JSON object: " << line;
        alarms.push_back(alarm);
    }
    return alarms;
}

// A logged document holds no array, so it ends at the first ']'; it may span lines.
std::vector<Json::Value> LoggedAlarmsIn(const std::string& log) {
    const std::string marker = "[PortScan] Sending alarm [";
    std::vector<Json::Value> alarms;
    for (auto at = log.find(marker); at != std::string::npos; at = log.find(marker, at + 1)) {
        auto begin = at + marker.size();
        auto end = log.find(']', begin);
        if (end == std::string::npos) {
            break;  // still being written
        }
        Json::Value alarm;
        EXPECT_TRUE(ParseJson(log.substr(begin, end - begin), alarm))
            << "unreadable alarm in the log at offset " << at;
        alarms.push_back(alarm);
    }
    return alarms;
}

std::set<std::string> EventIds(const std::vector<Json::Value>& alarms) {
    std::set<std::string> ids;
    for (const auto& alarm : alarms) {
        ids.insert(alarm["event_id"].asString());
    }
    return ids;
}

std::vector<Json::Value> LoggedAlarms(const std::string& logPath) {
    return LoggedAlarmsIn(ReadFile(logPath));
}

}  // namespace TestSupport
