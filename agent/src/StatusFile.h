#pragma once

#include <json/json.h>

#include <chrono>
#include <iosfwd>
#include <string>

namespace HostAgent {

// The agent's status file: one JSON object, replaced atomically (written beside, then renamed).
//
//   "pid", "version", "started", "updated"        the agent process; times as UTC text
//   "tasks":    [ { "name", "module", "state": "running"|"stopped"|"restarting", "restarts",
//                   "last_start", "last_stop", "stop_reason" } ]
//   "policies": [ { "key", "file", "delivered", "warnings", "problem" } ]  ("problem": why the file
//                 as it stands is not delivered; "" when it is)
//   "alarms_reported": { sink: count }

// UTC time as "2026-11-22T15:04:05Z"; "" for the clock's epoch (never happened).
std::string UtcText(std::chrono::system_clock::time_point when);

// Writes `status` to `path` through a temporary file and rename(). False, with `error`, when it fails.
bool WriteStatusFile(const std::string& path, const Json::Value& status, std::string& error);

// Exit codes of `hostagent --status`.
enum StatusExit { kStatusAllRunning = 0, kStatusTaskDown = 1, kStatusNoAgent = 3, kStatusUnreadable = 4 };

// Reads the status file at `path`, prints it for a person to `out` (problems to `err`) and returns
// the exit code: no file or a pid that no longer runs an agent gives kStatusNoAgent; a file that
// cannot be read or parsed kStatusUnreadable; a task that does not run, or a file not rewritten for
// twice its interval before `now` (a hung agent), kStatusTaskDown.
int PrintStatus(const std::string& path, std::ostream& out, std::ostream& err,
                std::chrono::system_clock::time_point now = std::chrono::system_clock::now());

}  // namespace HostAgent
