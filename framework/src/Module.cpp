#include "framework/Module.h"

#include <algorithm>
#include <thread>

#include "framework/Engine.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "sdk/LogStatement.h"

namespace Framework {

struct Module::CallbackSlot {
    AbstractPolicyCallback* callback = nullptr;
    std::vector<std::thread::id> invokers;  // threads inside callback->invoke() now
    bool removed = false;                   // the last invoker deletes the callback
};

Module::Module(const std::string& name) : m_name(name) {}

Module::~Module() {
    Engine* engine = Engine::Instance();
    if (engine != nullptr) {
        engine->RemoveModule(this);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto& entry : m_callbacks) {
        delete entry.second->callback;
        entry.second->callback = nullptr;
    }
    m_callbacks.clear();
}

const char* Module::name() const {
    return m_name.c_str();
}

void Module::initialize(Poco::Util::Application&) {}

void Module::uninitialize() {}

int Module::Init() {
    return 0;
}

void Module::UnInit() {
    // Callbacks first, so no delivery registers a task while the tasks are taken down.
    std::vector<std::string> keys;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const auto& entry : m_callbacks) {
            keys.push_back(entry.first);
        }
    }
    for (const std::string& key : keys) {
        UnRegisterTaskletCallback(key);
    }
    std::vector<std::string> names;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        names.swap(m_taskNames);
    }
    Engine* engine = Engine::Instance();
    for (auto it = names.rbegin(); engine != nullptr && it != names.rend(); ++it) {
        engine->UnRegisterTask(*it);
    }
}

bool Module::RefreshPolicy(const std::string& key, const std::string& name, const std::string& content,
                           Policy*& policy) {
    const std::thread::id self = std::this_thread::get_id();
    std::shared_ptr<CallbackSlot> slot;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_callbacks.find(key);
        if (it == m_callbacks.end()) {
            return false;
        }
        slot = it->second;
        slot->invokers.push_back(self);
    }
    // The lock is not held while the callback runs: it registers tasks through this module.
    auto leave = [this, &slot, self] {
        std::lock_guard<std::mutex> lock(m_mutex);
        slot->invokers.erase(std::find(slot->invokers.begin(), slot->invokers.end(), self));
        if (slot->removed && slot->invokers.empty()) {
            delete slot->callback;
            slot->callback = nullptr;
        }
        m_callbackDone.notify_all();
    };
    Policy* result = nullptr;
    try {
        result = slot->callback->invoke(name, content, policy);
    } catch (...) {
        leave();
        throw;
    }
    leave();
    policy = result;
    return true;
}

bool Module::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    if (callback == nullptr) {
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_callbacks.find(key) == m_callbacks.end()) {
            auto slot = std::make_shared<CallbackSlot>();
            slot->callback = callback;
            m_callbacks.emplace(key, slot);
            return true;
        }
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                 "[Framework] Module (%s) has a policy callback for key (%s) already", m_name, key);
    delete callback;
    return false;
}

bool Module::UnRegisterTaskletCallback(const std::string& key) {
    const std::thread::id self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    auto it = m_callbacks.find(key);
    if (it == m_callbacks.end()) {
        return false;
    }
    std::shared_ptr<CallbackSlot> slot = it->second;
    m_callbacks.erase(it);
    slot->removed = true;
    // A callback that removes itself is deleted when it returns; another thread's invocation is
    // waited for, so the module may be destroyed once this returns.
    const bool fromInside =
        std::find(slot->invokers.begin(), slot->invokers.end(), self) != slot->invokers.end();
    if (!fromInside) {
        m_callbackDone.wait(lock, [&slot] { return slot->invokers.empty(); });
    }
    if (slot->invokers.empty() && slot->callback != nullptr) {
        delete slot->callback;
        slot->callback = nullptr;
    }
    return true;
}

bool Module::HasPolicyCallback(const std::string& key) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_callbacks.find(key) != m_callbacks.end();
}

std::vector<std::string> Module::GetPolicyKeys() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> keys;
    for (const auto& entry : m_callbacks) {
        keys.push_back(entry.first);
    }
    return keys;
}

bool Module::RegisterTask(Task* task, bool adopt) {
    Engine* engine = Engine::Instance();
    if (engine == nullptr) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Module (%s) cannot register a task: no engine",
                     m_name);
        return false;
    }
    if (task == nullptr) {
        return false;
    }
    // Read before registering: an adopted task that ends at once may be gone afterwards.
    const std::string taskName = task->name();
    if (!engine->RegisterTaskFor(task, adopt, this)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (std::find(m_taskNames.begin(), m_taskNames.end(), taskName) == m_taskNames.end()) {
        m_taskNames.push_back(taskName);
    }
    return true;
}

bool Module::UnRegisterTask(const std::string& name) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_taskNames.erase(std::remove(m_taskNames.begin(), m_taskNames.end(), name), m_taskNames.end());
    }
    Engine* engine = Engine::Instance();
    return engine != nullptr && engine->UnRegisterTask(name);
}

Task* Module::FindTask(const std::string& name) {
    Engine* engine = Engine::Instance();
    return engine == nullptr ? nullptr : engine->FindTask(name);
}

std::vector<PolicyKeyInfo> Module::GetPolicySchema(const std::string& /*key*/) const {
    return {};
}

std::vector<std::string> Module::LintPolicy(const std::string& /*key*/, const std::string& /*text*/) const {
    return {};
}

std::string Module::RefusalOf(const std::string& /*key*/, const std::string& /*text*/) const {
    return "";
}

}  // namespace Framework
