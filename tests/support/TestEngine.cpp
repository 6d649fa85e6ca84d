#include "support/TestEngine.h"

#include <gtest/gtest.h>

#include <memory>

namespace TestSupport {
namespace {

std::unique_ptr<Framework::Engine> g_engine;  // constant-initialized: safe to use from any static

struct EngineEnvironment : ::testing::Environment {
    void TearDown() override { g_engine.reset(); }
};

const ::testing::Environment* const kEnvironment = ::testing::AddGlobalTestEnvironment(new EngineEnvironment);

}  // namespace

Framework::Engine& TestEngine() {
    if (!g_engine) {
        g_engine = std::make_unique<Framework::Engine>();
    }
    return *g_engine;
}

}  // namespace TestSupport
