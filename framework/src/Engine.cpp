#include "framework/Engine.h"

#include <Poco/Exception.h>
#include <sys/prctl.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "TaskRunner.h"
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/Task.h"
#include "sdk/LogStatement.h"

namespace Framework {

namespace {

// Every policy object in the tree under `policy`, `policy` included.
void CollectTree(const Policy* policy, std::set<const Policy*>& out) {
    if (policy == nullptr) {
        return;
    }
    out.insert(policy);
    if (const auto* composite = dynamic_cast<const CompositePolicy*>(policy)) {
        for (const Policy* child : composite->GetChildren()) {
            CollectTree(child, out);
        }
    }
}

}  // namespace

// Lock order: deliveryMutex, then policyMutex, then registryMutex. No lock is held while task or
// module code runs, except deliveryMutex (which only this runtime's entry points take).
struct Engine::State {
    // Deliveries, registrations, releases and the module list. Recursive because a policy callback
    // registers tasks on the delivering thread.
    std::recursive_mutex deliveryMutex;
    std::vector<Module*> modules;  // offered policies in this order
    bool delivering = false;       // a callback is running: nested deliveries are refused

    // Current and retired policies.
    struct Slot {
        Policy* policy = nullptr;
        Module* server = nullptr;  // the module whose callback built it
    };
    struct Retired {
        Policy* policy = nullptr;
        Module* server = nullptr;
        std::uint64_t period = 0;             // freed once its watchers have seen this period
        std::vector<std::uint64_t> watchers;  // registrations that were given objects of it
    };
    std::mutex policyMutex;
    std::map<std::string, Slot> current;
    std::vector<Retired> retired;

    // Task registry.
    std::mutex registryMutex;
    std::condition_variable registryChanged;
    std::map<std::string, std::shared_ptr<TaskRunner>> tasks;
    std::vector<std::shared_ptr<TaskRunner>> zombies;  // took themselves down; still to be joined
    std::uint64_t period = 0;
    std::uint64_t nextSerial = 1;
    Policy* dispatchRoot = nullptr;  // top-level policy being dispatched by dispatchThread
    std::thread::id dispatchThread;

    // Told of task starts and stops; on its own lock so that it runs with no registry lock held.
    std::mutex observerMutex;
    Engine::TaskObserver observer;

    void Notify(Engine::TaskEvent::Kind kind, const TaskRunner& runner, double runSeconds, bool byItself) {
        std::lock_guard<std::mutex> lock(observerMutex);
        if (!observer) {
            return;
        }
        Engine::TaskEvent event;
        event.kind = kind;
        event.task = runner.m_task->name();
        if (runner.m_module != nullptr) {
            event.module = runner.m_module->name();
            event.keys = runner.m_module->GetPolicyKeys();
        }
        event.runSeconds = runSeconds;
        event.byItself = byItself;
        event.result = byItself ? TaskRunner::GetRunResult(runner.m_task) : 0;
        try {
            observer(event);
        } catch (const std::exception& e) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Task observer failed: %s",
                         std::string(e.what()));
        }
    }

    // Joins threads of tasks that took themselves down (never the calling thread itself).
    void ReapZombies() {
        const std::thread::id self = std::this_thread::get_id();
        std::vector<std::shared_ptr<TaskRunner>> done;
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            if (zombies.empty()) {
                return;
            }
            auto keep = std::stable_partition(zombies.begin(), zombies.end(),
                                              [self](const auto& r) { return r->m_threadId == self; });
            done.assign(keep, zombies.end());
            zombies.erase(keep, zombies.end());
        }
        for (auto& runner : done) {
            if (runner->m_thread.joinable()) {
                runner->m_thread.join();
            }
        }
    }

    // The thread of one registration: start delay, Run(), and the teardown when Run() returned
    // without being asked to.
    void RunnerMain(TaskRunner* runner) {
        if (runner->m_startDelaySeconds > 0) {
            std::unique_lock<std::mutex> lock(runner->m_delayMutex);
            runner->m_delayCv.wait_for(lock, std::chrono::seconds(runner->m_startDelaySeconds),
                                       [runner] { return runner->m_wake; });
        }
        // Run() is called even when the task was taken down before it started: it then finds itself
        // cancelled at once, and a consumer still drains the messages it accepted.
        // The kernel keeps 15 characters of a thread name; top -H and ps -L show it.
        const std::string threadName = runner->m_task->name().substr(0, 15);
        prctl(PR_SET_NAME, threadName.c_str(), 0, 0, 0);
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            runner->m_running = true;
            runner->m_runStart = std::chrono::steady_clock::now();
            TaskRunner::MarkStart(runner->m_task);
        }
        Notify(Engine::TaskEvent::Kind::Started, *runner, 0, false);
        runner->m_task->run();
        bool mine = false;
        bool selfExit = false;
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            if (!runner->m_stopping) {
                mine = true;
                selfExit = !runner->m_selfStop;
                runner->m_exiting = true;
                runner->m_owner = std::this_thread::get_id();
            }
            registryChanged.notify_all();
        }
        if (!mine) {
            return;  // the unregistering thread joins this one and takes the task down
        }
        if (selfExit) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Framework] Task (%s) returned by itself (%d); taking it down",
                         runner->m_task->name(), TaskRunner::GetRunResult(runner->m_task));
        }
        TearDown(runner);
    }

    // After Run() returned: queue closed, UnInit(), registration removed, reference released.
    void TearDown(TaskRunner* runner) {
        Task* task = runner->m_task;
        const std::string name = task->name();
        double runSeconds = 0;
        bool byItself = false;
        TaskRunner::CloseQueue(task);
        try {
            if (!task->UnInit()) {
                SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Framework] Task (%s) UnInit failed", name);
            }
        } catch (const std::exception& e) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Task (%s) UnInit failed: %s", name,
                         std::string(e.what()));
        }
        {
            std::unique_lock<std::mutex> lock(registryMutex);
            registryChanged.wait(lock, [runner] { return runner->m_pins == 0; });
            // An unregistered task holds no policy: what it pointed to may be freed from now on.
            task->SetTaskPolicy(nullptr);
            task->SetFeaturePolicy(nullptr);
            if (runner->m_running) {
                runSeconds =
                    std::chrono::duration<double>(std::chrono::steady_clock::now() - runner->m_runStart)
                        .count();
            }
            byItself = runner->m_exiting && !runner->m_selfStop;
            runner->m_running = false;
            auto it = tasks.find(name);
            if (it != tasks.end() && it->second.get() == runner) {
                if (runner->m_exiting) {
                    zombies.push_back(it->second);
                }
                tasks.erase(it);
            }
            registryChanged.notify_all();
        }
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Framework] Task (%s) unregistered", name);
        Notify(Engine::TaskEvent::Kind::Stopped, *runner, runSeconds, byItself);
        if (runner->m_adopt) {
            task->release();
        }
    }

    bool UnRegister(const std::string& name) {
        ReapZombies();
        const std::thread::id self = std::this_thread::get_id();
        std::shared_ptr<TaskRunner> runner;
        {
            std::unique_lock<std::mutex> lock(registryMutex);
            auto it = tasks.find(name);
            if (it == tasks.end()) {
                return false;
            }
            runner = it->second;
            if (runner->IsGoing()) {
                if (runner->m_owner == self || runner->m_threadId == self) {
                    return false;  // called from the task's own teardown
                }
                registryChanged.wait(lock, [&] {
                    auto found = tasks.find(name);
                    return found == tasks.end() || found->second != runner;
                });
                lock.unlock();
                ReapZombies();
                return true;
            }
            if (runner->m_threadId == self) {
                // From the task's own thread: it cannot join itself, so it takes itself down once
                // its Run() has returned.
                runner->m_selfStop = true;
                lock.unlock();
                TaskRunner::RequestStop(runner->m_task);
                runner->Wake();
                return true;
            }
            runner->m_stopping = true;
            runner->m_owner = self;
        }
        TaskRunner::RequestStop(runner->m_task);
        runner->Wake();
        runner->m_thread.join();
        TearDown(runner.get());
        return true;
    }

    // Waits until no registration of `name` is on its way out. False when one is registered.
    bool WaitNameFree(const std::string& name) {
        const std::thread::id self = std::this_thread::get_id();
        std::unique_lock<std::mutex> lock(registryMutex);
        for (;;) {
            auto it = tasks.find(name);
            if (it == tasks.end()) {
                return true;
            }
            std::shared_ptr<TaskRunner> runner = it->second;
            if (!runner->IsGoing() || runner->m_owner == self || runner->m_threadId == self) {
                return false;
            }
            registryChanged.wait(lock, [&] {
                auto found = tasks.find(name);
                return found == tasks.end() || found->second != runner;
            });
        }
    }

    bool Register(Task* task, bool adopt, Module* module) {
        if (task == nullptr) {
            return false;
        }
        ReapZombies();
        std::lock_guard<std::recursive_mutex> delivery(deliveryMutex);
        const std::string name = task->name();
        if (!WaitNameFree(name)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Framework] Task (%s) is registered already", name);
            return false;
        }

        // The policy first, so that Init() and the first Run() see it.
        FeaturePolicy* feature = task->GetFeaturePolicy();
        TaskPolicy* taskPolicy = nullptr;
        Policy* root = nullptr;
        if (feature != nullptr) {
            taskPolicy = dynamic_cast<TaskPolicy*>(feature->FindChild(name));
            root = feature;
        } else {
            std::lock_guard<std::mutex> lock(policyMutex);
            for (const auto& entry : current) {
                const auto* composite = dynamic_cast<const CompositePolicy*>(entry.second.policy);
                TaskPolicy* child =
                    composite ? dynamic_cast<TaskPolicy*>(composite->FindChild(name)) : nullptr;
                if (child != nullptr) {
                    taskPolicy = child;
                    feature = dynamic_cast<FeaturePolicy*>(entry.second.policy);
                    root = entry.second.policy;
                    break;
                }
            }
        }
        task->SetTaskPolicy(taskPolicy);
        task->SetFeaturePolicy(feature);
        std::uint64_t periodNow = 0;
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            periodNow = period;
        }
        TaskRunner::PrepareRun(task, periodNow);

        bool initialised = false;
        try {
            initialised = task->Init();
        } catch (const std::exception& e) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Task (%s) Init failed: %s", name,
                         std::string(e.what()));
        }
        if (!initialised) {
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Framework] Task (%s) Init failed; not registered",
                         name);
            task->SetTaskPolicy(nullptr);
            task->SetFeaturePolicy(nullptr);
            return false;
        }
        TaskRunner::OpenQueue(task);

        const int delay = taskPolicy != nullptr ? taskPolicy->GetCondition().startDelaySeconds : 0;
        std::shared_ptr<TaskRunner> runner;
        std::string failure;
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            if (tasks.count(name) != 0) {
                failure = "its Init registered a task of the same name";  // only a recursive Init gets here
            } else {
                runner = std::make_shared<TaskRunner>(task, adopt, module, nextSerial++, delay);
                if (root != nullptr) {
                    runner->m_handed.insert(root);
                }
                try {
                    runner->m_thread = std::thread(&State::RunnerMain, this, runner.get());
                    runner->m_threadId = runner->m_thread.get_id();
                    tasks.emplace(name, runner);
                } catch (const std::system_error& e) {
                    failure = e.what();
                }
            }
        }
        const bool started = failure.empty();
        if (!started) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Task (%s) not started: %s", name, failure);
        }
        if (!started) {
            TaskRunner::CloseQueue(task);
            task->UnInit();
            task->SetTaskPolicy(nullptr);
            task->SetFeaturePolicy(nullptr);
            return false;
        }
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Framework] Task (%s) registered, start delay (%d) s",
                     name, delay);
        return true;
    }

    // The previous policy of a key leaves: tasks still pointing into it lose that pointer, every
    // task is told the new period, and the policy waits for the marks of those that were given it.
    void Retire(Policy* previous, Module* server) {
        previous->SetReplaced(true);
        std::set<const Policy*> tree;
        CollectTree(previous, tree);
        Retired record;
        record.policy = previous;
        record.server = server;
        {
            std::lock_guard<std::mutex> lock(registryMutex);
            for (auto& entry : tasks) {
                Task* task = entry.second->m_task;
                if (tree.count(task->GetTaskPolicy()) != 0) {
                    task->SetTaskPolicy(nullptr);
                }
                if (tree.count(task->GetFeaturePolicy()) != 0) {
                    task->SetFeaturePolicy(nullptr);
                }
                if (entry.second->m_handed.erase(previous) != 0) {
                    record.watchers.push_back(entry.second->m_serial);
                }
            }
            record.period = ++period;
            for (auto& entry : tasks) {
                entry.second->m_task->PublishPeriod(period);
            }
        }
        std::lock_guard<std::mutex> lock(policyMutex);
        retired.push_back(std::move(record));
    }

    std::size_t Reclaim() {
        std::vector<Policy*> doomed;
        {
            std::lock_guard<std::mutex> policyLock(policyMutex);
            std::lock_guard<std::mutex> registryLock(registryMutex);
            auto stillRead = [this](const Retired& record) {
                for (const auto& entry : tasks) {
                    const TaskRunner& runner = *entry.second;
                    const bool watcher = std::find(record.watchers.begin(), record.watchers.end(),
                                                   runner.m_serial) != record.watchers.end();
                    if (watcher && runner.m_running && runner.m_task->GetLastSeenPeriod() < record.period) {
                        return true;
                    }
                }
                return false;
            };
            for (auto it = retired.begin(); it != retired.end();) {
                if (stillRead(*it)) {
                    ++it;
                } else {
                    doomed.push_back(it->policy);
                    it = retired.erase(it);
                }
            }
        }
        for (Policy* policy : doomed) {
            delete policy;
        }
        return doomed.size();
    }
};

Engine::Engine() : m_state(new State) {}

Engine::~Engine() {
    UnRegisterAllTasks();
    m_state->ReapZombies();
    std::vector<Policy*> left;
    for (auto& entry : m_state->current) {
        left.push_back(entry.second.policy);
    }
    for (auto& record : m_state->retired) {
        left.push_back(record.policy);
    }
    m_state->current.clear();
    m_state->retired.clear();
    for (Policy* policy : left) {
        delete policy;
    }
    delete m_state;
    m_state = nullptr;
}

Engine* Engine::Instance() {
    try {
        return dynamic_cast<Engine*>(&Poco::Util::Application::instance());
    } catch (const Poco::NullPointerException&) {
        return nullptr;
    }
}

Task* Engine::FindTask(const std::string& name) {
    m_state->ReapZombies();
    std::lock_guard<std::mutex> lock(m_state->registryMutex);
    auto it = m_state->tasks.find(name);
    if (it == m_state->tasks.end() || it->second->IsGoing()) {
        return nullptr;
    }
    return it->second->m_task;
}

bool Engine::RegisterTask(Task* task, bool adopt) {
    return m_state->Register(task, adopt, nullptr);
}

bool Engine::RegisterTaskFor(Task* task, bool adopt, Module* module) {
    return m_state->Register(task, adopt, module);
}

bool Engine::UnRegisterTask(const std::string& name) {
    return m_state->UnRegister(name);
}

void Engine::UnRegisterAllTasks() {
    std::vector<std::pair<std::uint64_t, std::string>> order;
    {
        std::lock_guard<std::mutex> lock(m_state->registryMutex);
        for (const auto& entry : m_state->tasks) {
            order.emplace_back(entry.second->m_serial, entry.first);
        }
    }
    std::sort(order.rbegin(), order.rend());
    for (const auto& entry : order) {
        m_state->UnRegister(entry.second);
    }
    m_state->ReapZombies();
}

void Engine::SetTaskObserver(TaskObserver observer) {
    std::lock_guard<std::mutex> lock(m_state->observerMutex);
    m_state->observer = std::move(observer);
}

void Engine::AddModule(Module* module) {
    if (module == nullptr) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(m_state->deliveryMutex);
    if (std::find(m_state->modules.begin(), m_state->modules.end(), module) == m_state->modules.end()) {
        m_state->modules.push_back(module);
    }
}

void Engine::RemoveModule(Module* module) {
    std::lock_guard<std::recursive_mutex> lock(m_state->deliveryMutex);
    m_state->modules.erase(std::remove(m_state->modules.begin(), m_state->modules.end(), module),
                           m_state->modules.end());
}

bool Engine::DeliverPolicy(const std::string& key, const std::string& name, const std::string& content) {
    m_state->ReapZombies();
    std::lock_guard<std::recursive_mutex> delivery(m_state->deliveryMutex);
    if (m_state->delivering) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                     "[Framework] Policy (%s) for key (%s) refused: delivered from inside a policy callback",
                     name, key);
        return false;
    }
    Policy* previous = nullptr;
    Module* previousServer = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_state->policyMutex);
        auto it = m_state->current.find(key);
        if (it != m_state->current.end()) {
            previous = it->second.policy;
            previousServer = it->second.server;
        }
    }

    // One module serves a key: the first whose callback takes it.
    Policy* fresh = previous;
    Module* server = nullptr;
    struct DeliveringMark {
        bool& flag;
        explicit DeliveringMark(bool& f) : flag(f) { flag = true; }
        ~DeliveringMark() { flag = false; }
    };
    try {
        DeliveringMark mark(m_state->delivering);
        for (Module* module : m_state->modules) {
            if (module->RefreshPolicy(key, name, content, fresh)) {
                server = module;
                break;
            }
        }
    } catch (const std::exception& e) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                     "[Framework] Policy (%s) for key (%s) failed in its callback: %s", name, key,
                     std::string(e.what()));
        return false;
    }
    if (server == nullptr) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Framework] Policy (%s) for key (%s) dropped: no module takes it", name, key);
        return false;
    }

    {
        std::lock_guard<std::mutex> lock(m_state->policyMutex);
        m_state->current[key] = State::Slot{fresh, server};
    }
    if (fresh != nullptr) {
        {
            std::lock_guard<std::mutex> lock(m_state->registryMutex);
            m_state->dispatchRoot = fresh;
            m_state->dispatchThread = std::this_thread::get_id();
        }
        try {
            fresh->Dispatch(nullptr);
        } catch (const std::exception& e) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Framework] Policy (%s) for key (%s) failed to dispatch: %s", name, key,
                         std::string(e.what()));
        }
        std::lock_guard<std::mutex> lock(m_state->registryMutex);
        m_state->dispatchRoot = nullptr;
        m_state->dispatchThread = std::thread::id();
    }
    if (previous != nullptr && previous != fresh) {
        m_state->Retire(previous, previousServer);
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Framework] Policy (%s) for key (%s) is current", name,
                 key);
    m_state->Reclaim();
    return true;
}

Policy* Engine::GetCurrentPolicy(const std::string& key) {
    std::lock_guard<std::mutex> lock(m_state->policyMutex);
    auto it = m_state->current.find(key);
    return it == m_state->current.end() ? nullptr : it->second.policy;
}

std::size_t Engine::ReclaimPolicies() {
    return m_state->Reclaim();
}

std::size_t Engine::GetRetiredPolicyCount() {
    std::lock_guard<std::mutex> lock(m_state->policyMutex);
    return m_state->retired.size();
}

void Engine::ReleasePolicies(Module* module) {
    m_state->ReapZombies();
    std::lock_guard<std::recursive_mutex> delivery(m_state->deliveryMutex);
    std::set<Policy*> roots;
    {
        std::lock_guard<std::mutex> lock(m_state->policyMutex);
        for (const auto& entry : m_state->current) {
            if (entry.second.server == module && entry.second.policy != nullptr) {
                roots.insert(entry.second.policy);
            }
        }
        for (const auto& record : m_state->retired) {
            if (record.server == module) {
                roots.insert(record.policy);
            }
        }
    }
    // Nothing may run that can still reach these objects.
    std::vector<std::string> users;
    {
        std::lock_guard<std::mutex> lock(m_state->registryMutex);
        for (const auto& entry : m_state->tasks) {
            const TaskRunner& runner = *entry.second;
            bool uses = runner.m_module == module && module != nullptr;
            for (Policy* root : roots) {
                uses = uses || runner.m_handed.count(root) != 0;
            }
            if (uses) {
                users.push_back(entry.first);
            }
        }
    }
    for (const std::string& name : users) {
        SDK_ROOT_LOG(
            Poco::Message::PRIO_WARNING,
            "[Framework] Task (%s) still registered while its policies are released; unregistering it", name);
        m_state->UnRegister(name);
    }

    {
        // Addresses of freed objects must not make later policies look handed out.
        std::lock_guard<std::mutex> lock(m_state->registryMutex);
        for (auto& entry : m_state->tasks) {
            for (Policy* root : roots) {
                entry.second->m_handed.erase(root);
            }
        }
    }
    std::vector<Policy*> doomed;
    {
        std::lock_guard<std::mutex> lock(m_state->policyMutex);
        for (auto it = m_state->current.begin(); it != m_state->current.end();) {
            if (it->second.server == module) {
                doomed.push_back(it->second.policy);
                it = m_state->current.erase(it);
            } else {
                ++it;
            }
        }
        for (auto it = m_state->retired.begin(); it != m_state->retired.end();) {
            if (it->server == module) {
                doomed.push_back(it->policy);
                it = m_state->retired.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (Policy* policy : doomed) {
        delete policy;
    }
}

int Engine::main(const std::vector<std::string>&) {
    return Poco::Util::Application::EXIT_OK;
}

void Engine::HandOverTaskPolicy(TaskPolicy* child, Policy* parent) {
    if (child == nullptr) {
        return;
    }
    FeaturePolicy* feature = dynamic_cast<FeaturePolicy*>(parent);
    std::lock_guard<std::mutex> lock(m_state->registryMutex);
    auto it = m_state->tasks.find(child->GetName());
    if (it == m_state->tasks.end() || it->second->IsGoing()) {
        return;
    }
    Policy* root = m_state->dispatchThread == std::this_thread::get_id() && m_state->dispatchRoot != nullptr
                       ? m_state->dispatchRoot
                       : (parent != nullptr ? parent : child);
    it->second->m_task->SetTaskPolicy(child);
    it->second->m_task->SetFeaturePolicy(feature);
    it->second->m_handed.insert(root);
}

bool Engine::SendMessage(const std::string& name, Message* msg) {
    if (msg == nullptr) {
        return false;
    }
    std::shared_ptr<TaskRunner> runner;
    {
        std::lock_guard<std::mutex> lock(m_state->registryMutex);
        auto it = m_state->tasks.find(name);
        if (it != m_state->tasks.end() && !it->second->IsGoing()) {
            runner = it->second;
            ++runner->m_pins;
        }
    }
    if (runner == nullptr) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Framework] No task (%s): message of type (%s) dropped",
                     name, msg->GetType());
        delete msg;
        return false;
    }
    const bool queued = runner->m_task->EnqueueMsg(msg);
    std::lock_guard<std::mutex> lock(m_state->registryMutex);
    --runner->m_pins;
    m_state->registryChanged.notify_all();
    return queued;
}

}  // namespace Framework
