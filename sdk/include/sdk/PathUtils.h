#pragma once

#include <string>

namespace SDK {

class PathUtils {
public:
    // The last component of a '/'-separated path: "a/b/c.cpp" -> "c.cpp"; a path without '/' is
    // returned whole; a path ending in '/' gives "".
    static std::string GetFileNameFromPath(const std::string& path);
    // The same for a C string; the result points into `path` and lives as long as it does (so
    // for __FILE__ it is static, as Poco::Message requires of its file name).
    static const char* GetFileNameFromPath(const char* path);
};

}  // namespace SDK
