#pragma once

#include "framework/Engine.h"

namespace TestSupport {

// The one runtime application of the test process, made on first use and destroyed after the
// last test, while the libraries the tests loaded are still there.
Framework::Engine& TestEngine();

}  // namespace TestSupport
