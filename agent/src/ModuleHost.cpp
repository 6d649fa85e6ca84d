#include "ModuleHost.h"

#include "FileSafety.h"
#include "framework/Engine.h"
#include "framework/Module.h"
#include "framework/ModuleApi.h"
#include "sdk/LogStatement.h"

#include <dlfcn.h>

#include <exception>

namespace HostAgent {

namespace {

using ModuleFactory = Framework::Module* (*)();

const char* const kFactoryName = "CreateModule";

std::string LastDlError() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown error";
}

// True when the library behind `handle` was built for this agent's plug-in API version. Nothing of
// the library is called but the version function.
bool CheckApiVersion(void* handle, const std::string& path, std::string& error) {
    const std::string expected = std::to_string(Framework::kModuleApiVersion);
    void* symbol = dlsym(handle, Framework::kModuleApiVersionSymbol);
    if (symbol == nullptr) {
        error = "module " + path + " has no plug-in API version (" + Framework::kModuleApiVersionSymbol +
                "): found none, this agent needs version " + expected +
                "; rebuild the module against this agent";
        return false;
    }
    const unsigned found = reinterpret_cast<Framework::ModuleApiVersionFunction>(symbol)();
    if (found != Framework::kModuleApiVersion) {
        error = "module " + path + " was built for plug-in API version " + std::to_string(found) +
                ", this agent needs version " + expected + "; rebuild the module against this agent";
        return false;
    }
    return true;
}

}  // namespace

ModuleHost::ModuleHost(Framework::Engine& engine) : m_engine(engine) {}

ModuleHost::~ModuleHost() {
    StopAll();
    CloseLibraries();
}

bool ModuleHost::Load(const std::string& path, std::string& error) {
    return Open(path, true, error);
}

bool ModuleHost::LoadForChecks(const std::string& path, std::string& error) {
    return Open(path, false, error);
}

bool ModuleHost::Open(const std::string& path, bool start, std::string& error) {
    // Checked again right before loading: the library runs with the agent's rights.
    std::string problem;
    if (!CheckFileSafety(path, problem)) {
        error = "cannot load module " + path + ": " + problem;
        return false;
    }
    dlerror();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        error = "cannot load module " + path + ": " + LastDlError();
        return false;
    }
    if (!CheckApiVersion(handle, path, error)) {
        dlclose(handle);  // only the version function ran
        return false;
    }
    void* symbol = dlsym(handle, kFactoryName);
    if (symbol == nullptr) {
        error = "module " + path + " has no " + kFactoryName + ": " + LastDlError();
        dlclose(handle);  // nothing of the library ran yet
        return false;
    }
    Framework::Module* module = nullptr;
    try {
        module = reinterpret_cast<ModuleFactory>(symbol)();
    } catch (const std::exception& e) {
        error = "module " + path + ": " + kFactoryName + " failed: " + e.what();
    }
    if (module == nullptr) {
        if (error.empty()) {
            error = "module " + path + ": " + kFactoryName + " returned no module";
        }
        dlclose(handle);
        return false;
    }

    m_loaded.push_back(Loaded{path, handle, module, start});
    Loaded& loaded = m_loaded.back();
    if (!start) {
        return true;
    }
    m_engine.AddModule(module);
    int result = module->Init();
    if (result != 0) {
        error = "module " + path + " (" + module->name() + "): Init failed with " + std::to_string(result);
        Stop(loaded);
        return false;
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] Module %s loaded from %s",
                 std::string(module->name()), path);
    return true;
}

void ModuleHost::Stop(Loaded& loaded) {
    if (loaded.module == nullptr) {
        return;
    }
    if (loaded.started) {
        std::string name = loaded.module->name();
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Agent] Stopping module %s", name);
        loaded.module->UnInit();
        m_engine.ReleasePolicies(loaded.module);
        m_engine.RemoveModule(loaded.module);
    }
    delete loaded.module;
    loaded.module = nullptr;
}

void ModuleHost::StopAll() {
    for (auto it = m_loaded.rbegin(); it != m_loaded.rend(); ++it) {
        Stop(*it);
    }
}

void ModuleHost::CloseLibraries() {
    StopAll();
    for (auto it = m_loaded.rbegin(); it != m_loaded.rend(); ++it) {
        if (dlclose(it->handle) != 0) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Agent] Closing %s failed: %s", it->path,
                         LastDlError());
        }
    }
    m_loaded.clear();
}

std::vector<std::string> ModuleHost::LintPolicy(const std::string& key, const std::string& text) const {
    std::vector<std::string> findings;
    for (const Loaded& loaded : m_loaded) {
        if (loaded.module != nullptr) {
            for (std::string& finding : loaded.module->LintPolicy(key, text)) {
                findings.push_back(std::move(finding));
            }
        }
    }
    return findings;
}

std::string ModuleHost::RefusalOf(const std::string& key, const std::string& text) const {
    for (const Loaded& loaded : m_loaded) {
        if (loaded.module != nullptr) {
            std::string refusal = loaded.module->RefusalOf(key, text);
            if (!refusal.empty()) {
                return refusal;
            }
        }
    }
    return "";
}

std::size_t ModuleHost::GetRunningCount() const {
    std::size_t running = 0;
    for (const Loaded& loaded : m_loaded) {
        running += loaded.module != nullptr ? 1 : 0;
    }
    return running;
}

}  // namespace HostAgent
