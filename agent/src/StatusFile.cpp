#include "StatusFile.h"

#include "AgentTunables.h"
#include "JsonText.h"

#include <signal.h>
#include <sys/stat.h>
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
    // Readable by the group of its folder (the package's monitoring group), whatever the umask.
    struct stat folder {};
    const std::string::size_type slash = path.rfind('/');
    const std::string parent = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    if (stat(parent.c_str(), &folder) == 0 && getegid() != folder.st_gid) {
        (void)!chown(temporary.c_str(), static_cast<uid_t>(-1), folder.st_gid);
    }
    chmod(temporary.c_str(), 0640);
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        error = "cannot rename " + temporary + " to " + path + ": " + std::strerror(errno);
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

int PrintStatus(const std::string& path, std::ostream& out, std::ostream& err,
                std::chrono::system_clock::time_point now) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        if (errno == ENOENT) {
            err << "hostagent: no agent is running (no status file " << path << ")\n";
            return kStatusNoAgent;
        }
        err << "hostagent: cannot read status file " << path << ": " << std::strerror(errno)
            << " (members of its folder's group may read it)\n";
        return kStatusUnreadable;
    }
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Json::Value status;
    std::string error;
    if (!ParseJsonText(text, false, status, error) || !status.isObject()) {
        err << "hostagent: status file " << path << " is unreadable (" << error << ")\n";
        return kStatusUnreadable;
    }
    const pid_t pid = static_cast<pid_t>(status["pid"].asInt());
    if (!AgentAlive(pid)) {
        err << "hostagent: no agent is running (status file " << path << " names pid " << pid
            << ", which is gone)\n";
        return kStatusNoAgent;
    }
    out << "hostagent " << status["version"].asString() << ", pid " << pid << ", started "
        << status["started"].asString() << ", status of " << status["updated"].asString() << "\n";
    // A live agent rewrites the file at least every interval: twice that without a word is a hang.
    bool allRunning = true;
    std::tm updated{};
    const std::string updatedText = status["updated"].asString();
    const char* end = strptime(updatedText.c_str(), "%Y-%m-%dT%H:%M:%SZ", &updated);
    const auto age = now - std::chrono::system_clock::from_time_t(timegm(&updated));
    if (end == nullptr || *end != '\0' || age > 2 * std::chrono::milliseconds(kStatusIntervalMs)) {
        out << "NOT RESPONDING: the status was last written " << updatedText << ", more than "
            << 2 * kStatusIntervalMs / 1000 << " s ago\n";
        allRunning = false;
    }
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
