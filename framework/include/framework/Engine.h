#pragma once

#include <Poco/Util/Application.h>

#include <functional>
#include <string>
#include <vector>

namespace Framework {

class Message;
class Module;
class Policy;
class Task;
class TaskPolicy;

// The agent application: registry of modules, tasks and current policies. Exactly one exists per
// process (Poco::Util::Application::instance() is it); modules reach it through that instance.
//
// Policy ownership: every policy a module's callback returns is owned by the Engine from then on.
// Its code (vtable, destructor) lives in the module's library, so the host tears a module down in
// this order: module->UnInit() (its tasks stop, its callbacks go), Engine::ReleasePolicies(module)
// (its policies are destroyed), RemoveModule(module), delete the module, and only then close the
// library. The Engine's destructor frees the policies still held, so it must run while every
// module library is still loaded.
//
// Threads: DeliverPolicy, RegisterTask, ReleasePolicies, AddModule and RemoveModule are
// serialised by one lock (re-entered when a policy callback registers a task). FindTask,
// SendDirectMsg and UnRegisterTask never wait for a delivery, so tasks may call them freely.
class Engine : public Poco::Util::Application {
public:
    // A task's Run() began, or its registration ended. Sent on the task's own thread (Started,
    // and Stopped when Run() returned by itself) or on the unregistering thread (Stopped).
    struct TaskEvent {
        enum class Kind { Started, Stopped };
        Kind kind = Kind::Started;
        std::string task;
        std::string module;             // owning module's name; empty for the agent's own tasks
        std::vector<std::string> keys;  // feature keys that module serves
        double runSeconds = 0;          // Stopped: how long Run() ran (0 when it never began)
        bool byItself = false;          // Stopped: Run() returned without being asked to
        int result = 0;                 // Stopped by itself: Run()'s result
    };
    using TaskObserver = std::function<void(const TaskEvent&)>;

    Engine();
    ~Engine() override;

    // The running Engine, or null when the application instance is missing or not an Engine.
    static Engine* Instance();

    // The registered task called `name`, or null. Safe from any thread; the pointer stays valid
    // until that task is unregistered.
    Task* FindTask(const std::string& name);

    // Task registry (Module::RegisterTask and friends forward here). See Module for the contract.
    bool RegisterTask(Task* task, bool adopt);
    bool UnRegisterTask(const std::string& name);
    // Unregisters every task, in reverse order of registration.
    void UnRegisterAllTasks();

    // Tells `observer` of every task start and stop from now on (one observer; an empty function
    // removes it). The observer must not call back into the registry: it should only take note.
    void SetTaskObserver(TaskObserver observer);

    // Modules known to the runtime (not owned). Policies are offered to them in this order.
    void AddModule(Module* module);
    void RemoveModule(Module* module);

    // Delivers policy text for feature `key`: the module holding a callback for `key` builds the
    // new policy from it; the runtime makes it current, dispatches its task policies and retires the
    // previous one. `name` is passed to the callback (the policy file's name). False when no
    // module has a callback for `key`.
    bool DeliverPolicy(const std::string& key, const std::string& name, const std::string& content);

    // The current policy for `key`, or null. Valid until the next delivery for `key`.
    Policy* GetCurrentPolicy(const std::string& key);

    // Frees retired policies that no running task can still be reading. Called after each delivery
    // and periodically by the agent; returns how many were freed.
    std::size_t ReclaimPolicies();
    // Retired policies not yet freed.
    std::size_t GetRetiredPolicyCount();

    // Frees every policy, current and retired, of feature keys served by `module`. Only when none
    // of the module's tasks is registered (the host calls it after the module's UnInit).
    void ReleasePolicies(Module* module);

protected:
    int main(const std::vector<std::string>& args) override;

private:
    friend class Module;
    friend class Task;
    friend class TaskPolicy;

    // Module::RegisterTask: registration remembered as `module`'s (null for the agent's own).
    bool RegisterTaskFor(Task* task, bool adopt, Module* module);
    // TaskPolicy::Dispatch: gives `child` and `parent` to the registered task named like `child`.
    void HandOverTaskPolicy(TaskPolicy* child, Policy* parent);
    // Task::SendDirectMsg: queues `msg` on the registered task `name`; takes ownership.
    bool SendMessage(const std::string& name, Message* msg);

    struct State;
    State* m_state;
};

}  // namespace Framework
