#pragma once

// Reading what the agent wrote: alarm files, alarms logged as sent.

#include <json/json.h>

#include <set>
#include <string>
#include <vector>

namespace TestSupport {

// True when `text` is one JSON object, parsed into `out`.
bool ParseJson(const std::string& text, Json::Value& out);

// Alarm documents of a JSON-lines file: blank lines are ignored, every other complete line must
// parse (a last line still being written is left for the next read).
std::vector<Json::Value> ReadAlarms(const std::string& path);

// The documents the agent logged as "[PortScan] Sending alarm [...]" in the log `text`.
std::vector<Json::Value> LoggedAlarmsIn(const std::string& text);
// The same, read from the log file `logPath`.
std::vector<Json::Value> LoggedAlarms(const std::string& logPath);

std::set<std::string> EventIds(const std::vector<Json::Value>& alarms);

}  // namespace TestSupport
