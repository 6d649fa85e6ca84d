// The agent's config reader and its policy-file reader, on each input written to a file: reading
// the file gives what parsing the text gives; an accepted config holds only what the reader
// promises; the policy reader returns the file's bytes and calls them a policy exactly when they
// are one JSON object.
#include "AgentConfig.h"
#include "FuzzSupport.h"
#include "JsonText.h"
#include "PolicyFile.h"
#include "sdk/JsonUtils.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>

namespace {

std::string g_file;

bool StrictObject(const std::string& text) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &root, nullptr) && root.isObject();
    } catch (const std::exception&) {
        return false;  // nested past the reader's limit
    }
}

void JudgeConfig(const std::string& text) {
    HostAgent::AgentConfig parsed, loaded;
    std::string parseError, loadError;
    const bool parsedOk = HostAgent::ParseAgentConfig(g_file, text, parsed, parseError);
    const bool loadedOk = HostAgent::LoadAgentConfig(g_file, loaded, loadError);
    FUZZ_CHECK(parsedOk == loadedOk && parseError == loadError, parseError + " | " + loadError);
    if (!parsedOk) {
        FUZZ_CHECK(parseError.rfind(g_file + ": ", 0) == 0 && parseError.size() > g_file.size() + 2 &&
                       parseError.find('\n') == std::string::npos,
                   "error line \"" + parseError + "\"");
        return;
    }
    FUZZ_CHECK(StrictObject(text), "accepted a config that is no strict JSON object");
    FUZZ_CHECK(parsed.cpuLimitPercent >= 0 && parsed.cpuLimitPercent <= 100,
               std::to_string(parsed.cpuLimitPercent));
    FUZZ_CHECK(!parsed.sinks.empty(), "no sink");
    std::set<std::string> modules;
    for (const std::string& module : parsed.modules) {
        FUZZ_CHECK(!module.empty() && module[0] == '/' && modules.insert(module).second, module);
    }
    for (const HostAgent::PolicySource& source : parsed.policies) {
        FUZZ_CHECK(!source.key.empty() && !source.path.empty() && source.path[0] == '/', source.path);
    }
}

void JudgePolicyFile(const std::string& text) {
    std::string read, problem;
    FUZZ_CHECK(HostAgent::ReadPolicyFile(g_file, read, problem), problem);
    FUZZ_CHECK(read == text, "the file's bytes changed on the way in");
    Json::Value root;
    const bool object =
        SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root) == SDK::JsonUtils::kParseOk;
    const bool policy = HostAgent::CheckPolicyText(read, problem);
    FUZZ_CHECK(policy == object, problem);
    if (!policy) {
        FUZZ_CHECK(!problem.empty() && problem.find('\n') == std::string::npos, problem);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs();
    // Private (0700) inside a sticky folder, a safe place; in memory, as a file is written per input.
    char folder[] = "/dev/shm/fuzz_config-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
        FuzzSupport::Fail("mkdtemp");
    }
    g_file = std::string(folder) + "/agent.json";
    std::atexit([] {
        std::remove(g_file.c_str());
        rmdir(g_file.substr(0, g_file.rfind('/')).c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text = FuzzSupport::Text(data, size);
    {
        std::ofstream out(g_file, std::ios::binary | std::ios::trunc);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        if (!out) {
            FuzzSupport::Fail("cannot write " + g_file);
        }
    }
    JudgeConfig(text);
    JudgePolicyFile(text);
    return 0;
}
