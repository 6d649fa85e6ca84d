#include "sdk/PathUtils.h"

#include <cstring>

namespace SDK {

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

const char* PathUtils::GetFileNameFromPath(const char* path) {
    if (path == nullptr) {
        return "";
    }
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

}  // namespace SDK
