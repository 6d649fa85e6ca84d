#pragma once

// One registration of a task with the Engine: its thread and where it stands in its life.
// Internal to the runtime.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <thread>

namespace Framework {

class Module;
class Policy;
class Task;

class TaskRunner {
public:
    TaskRunner(Task* task, bool adopt, Module* module, std::uint64_t serial, int startDelaySeconds)
        : m_task(task),
          m_adopt(adopt),
          m_module(module),
          m_serial(serial),
          m_startDelaySeconds(startDelaySeconds) {}

    // Fixed for the registration.
    Task* const m_task;
    const bool m_adopt;            // the runtime holds the caller's reference and releases it
    Module* const m_module;        // registering module, null for the agent's own tasks
    const std::uint64_t m_serial;  // registration order, also the registration's identity
    const int m_startDelaySeconds;

    // Guarded by the Engine's registry mutex.
    std::thread m_thread;
    std::thread::id m_threadId;
    bool m_running = false;      // Run() may read policies: reclamation waits for the task's marks
    bool m_stopping = false;     // another thread is taking the task down (it joins, then tears down)
    bool m_exiting = false;      // the task's own thread is taking it down after Run() returned
    bool m_selfStop = false;     // UnRegisterTask was called from the task's own thread
    std::thread::id m_owner;     // the thread doing the teardown
    int m_pins = 0;              // senders inside the task's EnqueueMsg right now
    std::set<Policy*> m_handed;  // top-level policies whose objects this task was given
    std::chrono::steady_clock::time_point m_runStart;  // when Run() began (set once m_running)

    bool IsGoing() const { return m_stopping || m_exiting || m_selfStop; }

    // The start delay, on its own lock so that no registry call waits behind it.
    std::mutex m_delayMutex;
    std::condition_variable m_delayCv;
    bool m_wake = false;

    // Wakes the start-delay wait.
    void Wake() {
        std::lock_guard<std::mutex> lock(m_delayMutex);
        m_wake = true;
        m_delayCv.notify_all();
    }

    // Access to the task's private parts.
    // Clears the previous run (POCO state, cancel event, stop request) and sets both period words.
    static void PrepareRun(Task* task, std::uint64_t period);
    // Marks the start of Run(): the task holds no policy pointer yet.
    static void MarkStart(Task* task);
    static void OpenQueue(Task* task);
    static void CloseQueue(Task* task);
    // Asks the task to stop: no more messages are accepted, consumers wake, and the POCO cancel
    // state is set in a way that Poco::Task::run() cannot overwrite.
    static void RequestStop(Task* task);
    static int GetRunResult(Task* task);
};

}  // namespace Framework
