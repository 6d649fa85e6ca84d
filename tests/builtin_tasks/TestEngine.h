#pragma once

#include "framework/Engine.h"

#include <filesystem>
#include <string>

namespace BuiltinTasksTest {

// The one Engine of the test process (tasks register through it), made on first use.
Framework::Engine& TestEngine();

// A fresh folder under the system's temp folder, removed with everything in it.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    const std::filesystem::path& Path() const { return m_path; }

private:
    std::filesystem::path m_path;
};

}  // namespace BuiltinTasksTest
