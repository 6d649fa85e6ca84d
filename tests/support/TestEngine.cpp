#include "support/TestEngine.h"

#include <gtest/gtest.h>

#include <memory>

namespace TestSupport {

namespace {

std::unique_ptr<Framework::Engine>& EngineSlot() {
    static std::unique_ptr<Framework::Engine> engine;
    return engine;
}

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

}  // namespace TestSupport
