#include "StatusFile.h"

#include "JsonText.h"

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <iterator>
#include <ostream>

namespace HostAgent {

namespace {

// A pid that runs a process called "hostagent" (a reused pid of another program does not count).
bool AgentAlive(pid_t pid) {
    if (pid <= 0 || (kill(pid, 0) != 0 && errno != EPERM)) {
        return false;
    }
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return !comm || name == "hostagent";
}

}  // namespace

std::string UtcText(std::chrono::system_clock::time_point when) {
    if (when.time_since_epoch().count() == 0) {
        return "";
    }
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    std::tm parts{};
    gmtime_r(&seconds, &parts);
    char text[32] = {};
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

bool WriteStatusFile(const std::string& path, const Json::Value& status, std::string& error) {
    const std::string temporary = path + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        out << Json::writeString(builder, status) << "\n";
        out.flush();
        if (!out) {
            error = "cannot write " + temporary + ": " + std::strerror(errno);
            std::remove(temporary.c_str());
            return false;
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot rename " + temporary + " to " + path + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

int PrintStatus(const std::string& path, std::ostream& out, std::ostream& err) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        err << "hostagent: no agent is running (no status file " << path << ")\n";
        return kStatusNoAgent;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Json::Value status;
    std::string error;
    if (!ParseJsonText(text, false, status, error) || !status.isObject()) {
        err << "hostagent: status file " << path << " is unreadable (" << error << ")\n";
        return kStatusNoAgent;
    }
    const pid_t pid = static_cast<pid_t>(status["pid"].asInt());
    if (!AgentAlive(pid)) {
        err << "hostagent: no agent is running (status file " << path << " names pid " << pid
            << ", which is gone)\n";
        return kStatusNoAgent;
    }
    out << "hostagent " << status["version"].asString() << ", pid " << pid << ", started "
        << status["started"].asString() << ", status of " << status["updated"].asString() << "\n";
    bool allRunning = true;
    out << "Tasks:\n";
    for (const Json::Value& task : status["tasks"]) {
        const std::string state = task["state"].asString();
        allRunning = allRunning && state == "running";
        out << "  " << std::left << std::setw(22) << task["name"].asString() << std::setw(11) << state
            << " restarts " << task["restarts"].asInt() << ", started " << task["last_start"].asString();
        if (!task["last_stop"].asString().empty()) {
            out << ", stopped " << task["last_stop"].asString() << " (" << task["stop_reason"].asString()
                << ")";
        }
        out << "\n";
    }
    out << "Policies:\n";
    for (const Json::Value& policy : status["policies"]) {
        const std::string delivered = policy["delivered"].asString();
        out << "  key " << policy["key"].asString() << ": " << policy["file"].asString() << ", delivered "
            << (delivered.empty() ? "never" : delivered) << ", " << policy["warnings"].asInt()
            << " warning(s)\n";
        if (!policy["problem"].asString().empty()) {
            out << "    problem: " << policy["problem"].asString()
                << (delivered.empty() ? "\n" : " (the policy delivered before stays in force)\n");
        }
    }
    out << "Alarms reported:";
    const Json::Value& alarms = status["alarms_reported"];
    for (const std::string& sink : alarms.getMemberNames()) {
        out << " " << sink << " " << alarms[sink].asUInt64() << ";";
    }
    out << "\n";
    return allRunning ? kStatusAllRunning : kStatusTaskDown;
}

}  // namespace HostAgent
