#include "PolicyFile.h"

#include "AgentTunables.h"
#include "FileSafety.h"
#include "JsonText.h"
#include "sdk/JsonUtils.h"

#include <sys/stat.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

namespace HostAgent {

bool ReadPolicyFile(const std::string& path, std::string& text, std::string& error) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    if (!S_ISREG(info.st_mode)) {
        error = "not a regular file";
        return false;
    }
    if (static_cast<std::size_t>(info.st_size) > kMaxPolicyFileBytes) {
        error = "larger than " + std::to_string(kMaxPolicyFileBytes) + " bytes";
        return false;
    }
    if (!CheckFileSafety(path, error)) {
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = std::strerror(errno);
        return false;
    }
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        error = "read error";
        return false;
    }
    return true;
}

bool CheckPolicyText(const std::string& text, std::string& error) {
    Json::Value root;
    switch (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root)) {
        case SDK::JsonUtils::kParseOk:
            return true;
        case SDK::JsonUtils::kNotObject:
            error = "not a JSON object";
            return false;
        case SDK::JsonUtils::kEmptyInput:
            error = "empty file, a JSON object was expected";
            return false;
        default: {
            std::string detail;
            if (ParseJsonText(text, false, root, detail) || detail.empty()) {
                error = "not valid JSON";
            } else {
                error = "not valid JSON (" + detail + ")";
            }
            return false;
        }
    }
}

}  // namespace HostAgent
