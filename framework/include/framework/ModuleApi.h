#pragma once

// The plug-in boundary's version.
//
// A module library exports, besides `CreateModule`, the function named by kModuleApiVersionSymbol
// (C linkage, no arguments) that returns the kModuleApiVersion it was built with. The host reads it
// before it calls anything else of the library and loads the library only when the number equals
// its own: a module built against another layout of the framework's classes would load and then
// misbehave.
//
// Raise kModuleApiVersion with every change of framework/ that a module built before it cannot
// survive: a class layout or a virtual function of Module, Task, Policy or Message, an ownership
// rule at the boundary, or the meaning of a call the host makes into a module.

namespace Framework {

constexpr unsigned kModuleApiVersion = 1;
constexpr const char* kModuleApiVersionSymbol = "HostAgentModuleApiVersion";
using ModuleApiVersionFunction = unsigned (*)();

}  // namespace Framework

// Exports the version function from a module library; write it once, at namespace scope.
#define HOSTAGENT_MODULE_API_VERSION_EXPORT           \
    extern "C" unsigned HostAgentModuleApiVersion() { \
        return Framework::kModuleApiVersion;          \
    }
