#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace AgentTest {

// A fresh folder under the system's temp folder, removed with everything in it.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    const std::filesystem::path& Path() const { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// Writes `text` to `path` (creating its folder), replacing what was there.
void WriteFile(const std::filesystem::path& path, const std::string& text);
// The whole file; "" when it cannot be read.
std::string ReadFile(const std::filesystem::path& path);
// The file's lines; none when it cannot be read.
std::vector<std::string> ReadLines(const std::filesystem::path& path);

}  // namespace AgentTest
