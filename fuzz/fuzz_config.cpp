// The agent's config reader, on each input written to a file: reading the file gives what parsing
// the text gives, and an accepted config holds only what the reader promises.
#include "AgentConfig.h"
#include "FuzzSupport.h"
#include "JsonText.h"

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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs();
    g_file = FuzzSupport::MakeInputFile("fuzz_config", "agent.json");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text = FuzzSupport::Text(data, size);
    FuzzSupport::WriteInputFile(g_file, text);
    JudgeConfig(text);
    return 0;
}
