#include "TestEngine.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace BuiltinTasksTest {

namespace {

std::unique_ptr<Framework::Engine>& EngineSlot() {
    static std::unique_ptr<Framework::Engine> engine;
    return engine;
}

// Destroys the Engine after the last test, while the test's libraries are still loaded.
class EngineEnvironment : public ::testing::Environment {
public:
    void TearDown() override { EngineSlot().reset(); }
};

const ::testing::Environment* const kEnvironment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

}  // namespace

Framework::Engine& TestEngine() {
    if (!EngineSlot()) {
        EngineSlot().reset(new Framework::Engine);
    }
    return *EngineSlot();
}

TempFolder::TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "builtin_tasks_test.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace BuiltinTasksTest
