#pragma once

#include <Poco/File.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

// A fresh folder under /tmp for one test, removed with its contents when the test ends.
class TestDir {
public:
    TestDir() {
        char pattern[] = "/tmp/sdk_test_XXXXXX";
        m_path = ::mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    }
    ~TestDir() {
        if (m_path != "/tmp") {
            Poco::File(m_path).remove(true);
        }
    }
    std::string Join(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The lines of `path` that contain `needle` (all lines for ""); none when the file is missing.
inline std::vector<std::string> Grep(const std::string& path, const std::string& needle = "") {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        if (line.find(needle) != std::string::npos) {
            lines.push_back(line);
        }
    }
    return lines;
}
