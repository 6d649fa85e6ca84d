#include "FuzzSupport.h"

#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace FuzzSupport {

void QuietLogs(void (*createLoggers)()) {
    // No console and no file: the agent's logging would otherwise write to standard error.
    SDK::LogSettings settings;
    settings.level = "error";
    settings.console = false;
    std::string error;
    if (!SDK::LoggerUtils::GetInstance()->Configure(settings, error)) {
        Fail("logging: " + error);
    }
    if (createLoggers != nullptr) {
        createLoggers();
    }
    Poco::Logger::setLevel("", Poco::Message::PRIO_FATAL);
}

namespace {
std::string g_inputFile;  // the one input file of this process
}  // namespace

std::string MakeInputFile(const std::string& target, const std::string& name) {
    std::string folder = "/dev/shm/" + target + "-XXXXXX";
    if (mkdtemp(&folder[0]) == nullptr) {
        Fail("mkdtemp");
    }
    g_inputFile = folder + "/" + name;
    std::atexit([] {
        std::remove(g_inputFile.c_str());
        rmdir(g_inputFile.substr(0, g_inputFile.rfind('/')).c_str());
    });
    return g_inputFile;
}

void WriteInputFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out) {
        Fail("cannot write " + path);
    }
}

void Fail(const std::string& what) {
    std::fprintf(stderr, "WRONG RESULT: %s\n", what.c_str());
    std::fflush(stderr);
    std::abort();
}

}  // namespace FuzzSupport
