// The agent's policy-file reader, on each input written to a file: it returns the file's bytes
// and calls them a policy exactly when they are one JSON object, naming the problem in one line
// otherwise.
#include "FuzzSupport.h"
#include "PolicyFile.h"
#include "sdk/JsonUtils.h"

namespace {

std::string g_file;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs();
    g_file = FuzzSupport::MakeInputFile("fuzz_policy_file", "policy.json");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::string text = FuzzSupport::Text(data, size);
    FuzzSupport::WriteInputFile(g_file, text);
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
    return 0;
}
