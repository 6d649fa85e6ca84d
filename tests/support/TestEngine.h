#pragma once

#include "framework/Engine.h"

namespace TestSupport {

// The process' one runtime application: made on first use, gone after the last test (libraries still loaded).
Framework::Engine& TestEngine();

}  // namespace TestSupport
