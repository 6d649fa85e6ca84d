#pragma once

#include <string>
#include <vector>

namespace Framework {
class Engine;
class Module;
}  // namespace Framework

namespace HostAgent {

// Loads module libraries and owns what comes out of them.
//
// Ownership at the plug-in boundary: the host owns each module (made by the library's
// `CreateModule`) and deletes it after UnInit() (which unregisters the module's tasks) and after
// the runtime released the module's policies, so no object made by the module's code is left.
// Messages a module sent may still sit in another task's queue, so the libraries are closed only
// by CloseLibraries(), once every task of the agent is gone.
class ModuleHost {
public:
    explicit ModuleHost(Framework::Engine& engine);
    // Stops and closes whatever is still loaded.
    ~ModuleHost();

    ModuleHost(const ModuleHost&) = delete;
    ModuleHost& operator=(const ModuleHost&) = delete;

    // dlopen(RTLD_NOW | RTLD_LOCAL), the plug-in API version check, CreateModule(),
    // Engine::AddModule, Init(). False, with `error` naming the library and the cause, when any step
    // fails; a module whose Init() failed is stopped again at once.
    bool Load(const std::string& path, std::string& error);

    // Opens the library `path`, checks its plug-in API version (framework/ModuleApi.h) and closes it
    // again, creating nothing. False, with `error` naming the file, the version found and the one
    // expected, when it cannot serve this agent.
    static bool CheckLibrary(const std::string& path, std::string& error);

    // In reverse load order: UnInit(), Engine::ReleasePolicies, Engine::RemoveModule, delete.
    void StopAll();
    // dlclose every library, in reverse load order. Only after StopAll() and after every task
    // that may hold a module's message is gone.
    void CloseLibraries();

    // Modules created and not stopped yet.
    std::size_t GetRunningCount() const;

private:
    struct Loaded {
        std::string path;
        void* handle = nullptr;
        Framework::Module* module = nullptr;  // null once stopped
    };

    void Stop(Loaded& loaded);

    Framework::Engine& m_engine;
    std::vector<Loaded> m_loaded;
};

}  // namespace HostAgent
