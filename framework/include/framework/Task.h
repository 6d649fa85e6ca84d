#pragma once

#include <Poco/Task.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Framework {

class FeaturePolicy;
class Message;
class TaskPolicy;

// One number a task reports for monitoring (the agent writes them in Prometheus' text format).
struct TaskMetric {
    std::string name;    // "hostagent_..." in Prometheus style: counters end in "_total"
    std::string type;    // "counter" or "gauge"
    std::string help;    // one line
    std::string labels;  // extra labels, "" or 'socket="ipv4"'
    double value = 0;
};

// A unit of work that runs on a thread of its own once registered (Module::RegisterTask).
//
// Life cycle: the runtime calls Init(), then Poco::Task::run() (which calls runTask(), i.e. Run())
// on the task's thread; when the task is unregistered it cancels it cooperatively, waits for Run()
// to return and calls UnInit(). A Run() that returns by itself is taken down the same way. The same
// object may be registered again later.
//
// Policies: the task reads its policy through GetTaskPolicy() at each use and keeps no pointer to
// a policy past its next MarkActivity(): the runtime frees a replaced policy only after every task
// that could see it has made an activity mark since the replacement.
//
// Messages: other tasks send through SendDirectMsg(); EnqueueMsg() queues up to `queueSize`
// messages; a task that consumes messages takes them with DequeueMsg() in its Run() and passes
// each to HandleMsg().
//
// The runtime calls cancel() with the queue's lock held: an override must not send or take
// messages of this task.
class Task : public Poco::Task {
public:
    // `name` is the registry key; `group` and `type` describe the task in log lines; `queueSize`
    // bounds the message queue.
    Task(const std::string& name, const std::string& group, int type, std::size_t queueSize);
    // Public, so that the owner of a task may delete it once it is unregistered.
    ~Task() override;

    // Poco::Task entry: runs Run().
    void runTask() override;

    // Called on the registering thread before the task's thread starts. False aborts registration.
    virtual bool Init();
    // Called after Run() has returned. Frees what Init() and Run() set up.
    virtual bool UnInit();
    // The task's work. Must return soon after the task is cancelled (isCancelled() or
    // state() == TASK_CANCELLING; sleep() returns true early). Default: waits for cancellation,
    // passing any message that arrives meanwhile to HandleMsg(). Every registration gets exactly
    // one Run(), also when the task is taken down before it starts (or during its start delay):
    // Run() then finds itself cancelled at once, and the cancellation is never lost.
    virtual int Run();

    // Takes ownership of `msg` and queues it. False (and the message deleted, with a warning line)
    // when the queue is full, the task is shutting down, or InterceptMsg() consumed it (true then).
    virtual bool EnqueueMsg(Message* msg);
    // Looks at a message before it is queued; true means it was consumed (and deleted) here.
    // Default: false.
    virtual bool InterceptMsg(Message* msg);
    // Handles one dequeued message; the caller deletes it afterwards. Default: ignores it.
    virtual bool HandleMsg(Message* msg);

    // The task's numbers for monitoring; called from any thread, so they must be safe to read while
    // the task runs. Default: none.
    virtual std::vector<TaskMetric> GetMetrics() const { return {}; }

    // Sends `msg` to the registered task `taskName`; ownership passes in every case (an
    // undeliverable message is deleted with a warning line). True when the target queued it.
    bool SendDirectMsg(const std::string& taskName, Message* msg);

    // The activity mark: shows the task is alive and that it holds no policy pointer read before
    // this point.
    void MarkActivity() {
        m_activityCount.fetch_add(1, std::memory_order_relaxed);
        m_lastSeenPeriod.store(m_currentPeriod.load(std::memory_order_acquire), std::memory_order_release);
    }
    std::uint64_t GetActivityCount() const { return m_activityCount.load(std::memory_order_relaxed); }

    // Reclamation bookkeeping for the runtime: it publishes a new period after replacing a
    // policy, and a policy retired in period P may be freed once GetLastSeenPeriod() >= P.
    void PublishPeriod(std::uint64_t period) { m_currentPeriod.store(period, std::memory_order_release); }
    std::uint64_t GetLastSeenPeriod() const { return m_lastSeenPeriod.load(std::memory_order_acquire); }

    FeaturePolicy* GetFeaturePolicy() const { return m_featurePolicy.load(std::memory_order_acquire); }
    void SetFeaturePolicy(FeaturePolicy* policy) { m_featurePolicy.store(policy, std::memory_order_release); }
    TaskPolicy* GetTaskPolicy() const { return m_taskPolicy.load(std::memory_order_acquire); }
    void SetTaskPolicy(TaskPolicy* policy) { m_taskPolicy.store(policy, std::memory_order_release); }

    const std::string& GetGroup() const { return m_group; }
    int GetType() const { return m_type; }
    std::size_t GetQueueCapacity() const { return m_queueSize; }
    // Messages queued and not yet taken.
    std::size_t GetQueueLength() const;

protected:
    // Waits up to `timeoutMs` for a message and returns it (the caller owns it), or null on
    // time-out or when the task is cancelled. Messages already queued are still returned after
    // cancellation, so a consumer drains what it accepted: null then means the queue is empty.
    // With the queue closed and empty, returns null at once.
    Message* DequeueMsg(long timeoutMs);

private:
    friend class TaskRunner;
    // Opens the queue for a new registration / closes it so no message is accepted any more
    // (messages still queued are deleted with a warning line).
    void OpenQueue();
    void CloseQueue();

    // The message queue and the run control that shares its lock (stop request, started flag).
    struct Queue;
    Queue* m_queue;
    std::string m_group;
    int m_type;
    std::size_t m_queueSize;
    std::atomic<std::uint64_t> m_activityCount{0};
    std::atomic<std::uint64_t> m_currentPeriod{0};
    std::atomic<std::uint64_t> m_lastSeenPeriod{0};
    std::atomic<FeaturePolicy*> m_featurePolicy{nullptr};
    std::atomic<TaskPolicy*> m_taskPolicy{nullptr};
};

}  // namespace Framework
