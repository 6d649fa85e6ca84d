#pragma once

#include <string>
#include <vector>

namespace HostAgent {

// A capability the agent needs, and what fails without it.
struct NeededCapability {
    const char* name;    // e.g. "CAP_NET_RAW"
    const char* effect;  // what goes wrong without it, for the operator
};

// The needed capabilities missing from the process's effective set, in a fixed order. Empty when
// all are present or when the set cannot be read (nothing useful can be said then).
std::vector<NeededCapability> MissingCapabilities();

}  // namespace HostAgent
