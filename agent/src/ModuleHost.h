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

    // As Load, but the module is only created, not added to the engine nor started: for asking it
    // about policies (LintPolicy). Stopping it just deletes it.
    bool LoadForChecks(const std::string& path, std::string& error);

    // Every loaded module's findings for the policy `text` of `key` (Framework::Module::LintPolicy).
    std::vector<std::string> LintPolicy(const std::string& key, const std::string& text) const;
    // Why a loaded module would give up the policy `text` of `key` (Framework::Module::RefusalOf);
    // "" when none would.
    std::string RefusalOf(const std::string& key, const std::string& text) const;

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
        bool started = false;                 // added to the engine and Init() called
    };

    bool Open(const std::string& path, bool start, std::string& error);
    void Stop(Loaded& loaded);

    Framework::Engine& m_engine;
    std::vector<Loaded> m_loaded;
};

}  // namespace HostAgent
