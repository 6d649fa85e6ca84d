#include "framework/Task.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>

#include "TaskRunner.h"
#include "framework/Engine.h"
#include "framework/Message.h"
#include "sdk/LogStatement.h"

namespace Framework {

namespace {
// How long the default Run() waits for a message before it looks at its cancel state again; the
// wait ends early on cancellation, so this only bounds the reaction to a bare Poco cancel().
constexpr long kDefaultRunWaitMs = 1000;
}  // namespace

struct Task::Queue {
    std::mutex mutex;
    std::condition_variable changed;  // a message arrived, or the task was asked to stop
    std::deque<Message*> messages;
    bool open = false;           // accepting messages: from registration until teardown
    bool stopRequested = false;  // the runtime is taking the task down
    bool started = false;        // runTask() has begun, so Poco::Task::run() set RUNNING already
    bool finished = false;       // Run() has returned
    int runResult = 0;
};

Task::Task(const std::string& name, const std::string& group, int type, std::size_t queueSize)
    : Poco::Task(name), m_queue(new Queue), m_group(group), m_type(type), m_queueSize(queueSize) {}

Task::~Task() {
    for (Message* msg : m_queue->messages) {
        delete msg;
    }
    delete m_queue;
}

void Task::runTask() {
    {
        // Poco::Task::run() has set RUNNING by now; a stop that came earlier is made to stick here,
        // under the same lock RequestStop() uses, so no cancellation is lost.
        std::lock_guard<std::mutex> lock(m_queue->mutex);
        m_queue->started = true;
        if (m_queue->stopRequested) {
            cancel();
        }
    }
    int result = 0;
    try {
        result = Run();
    } catch (const std::exception& e) {
        SDK_ROOT_LOG(Poco::Message::PRIO_ERROR, "[Framework] Task (%s) Run failed: %s", name(),
                     std::string(e.what()));
        result = -1;
    }
    std::lock_guard<std::mutex> lock(m_queue->mutex);
    m_queue->finished = true;
    m_queue->runResult = result;
}

bool Task::Init() {
    return true;
}

bool Task::UnInit() {
    return true;
}

int Task::Run() {
    for (;;) {
        Message* msg = DequeueMsg(kDefaultRunWaitMs);
        if (msg != nullptr) {
            HandleMsg(msg);
            delete msg;
            continue;
        }
        if (isCancelled()) {
            return 0;
        }
        std::lock_guard<std::mutex> lock(m_queue->mutex);
        if (m_queue->stopRequested && m_queue->messages.empty()) {
            return 0;
        }
    }
}

bool Task::EnqueueMsg(Message* msg) {
    if (msg == nullptr) {
        return false;
    }
    std::string refusal;
    {
        std::lock_guard<std::mutex> lock(m_queue->mutex);
        if (!m_queue->open || m_queue->stopRequested) {
            refusal = "task not accepting messages";
        }
    }
    if (refusal.empty()) {
        if (InterceptMsg(msg)) {
            return true;
        }
        std::lock_guard<std::mutex> lock(m_queue->mutex);
        if (!m_queue->open || m_queue->stopRequested) {
            refusal = "task not accepting messages";
        } else if (m_queue->messages.size() >= m_queueSize) {
            refusal = "queue full";
        } else {
            m_queue->messages.push_back(msg);
            m_queue->changed.notify_one();
            return true;
        }
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Framework] Task (%s) dropped a message of type (%s): %s",
                 name(), msg->GetType(), refusal);
    delete msg;
    return false;
}

bool Task::InterceptMsg(Message*) {
    return false;
}

bool Task::HandleMsg(Message*) {
    return false;
}

bool Task::SendDirectMsg(const std::string& taskName, Message* msg) {
    if (msg == nullptr) {
        return false;
    }
    Engine* engine = Engine::Instance();
    if (engine == nullptr) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Framework] No engine: message of type (%s) to task (%s) dropped", msg->GetType(),
                     taskName);
        delete msg;
        return false;
    }
    return engine->SendMessage(taskName, msg);
}

std::size_t Task::GetQueueLength() const {
    std::lock_guard<std::mutex> lock(m_queue->mutex);
    return m_queue->messages.size();
}

Message* Task::DequeueMsg(long timeoutMs) {
    std::unique_lock<std::mutex> lock(m_queue->mutex);
    auto ready = [this] {
        return !m_queue->messages.empty() || !m_queue->open || m_queue->stopRequested || isCancelled();
    };
    if (!ready() && timeoutMs > 0) {
        m_queue->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
    }
    if (m_queue->messages.empty()) {
        return nullptr;
    }
    Message* msg = m_queue->messages.front();
    m_queue->messages.pop_front();
    return msg;
}

void Task::OpenQueue() {
    std::lock_guard<std::mutex> lock(m_queue->mutex);
    m_queue->open = true;
}

void Task::CloseQueue() {
    std::deque<Message*> left;
    {
        std::lock_guard<std::mutex> lock(m_queue->mutex);
        m_queue->open = false;
        left.swap(m_queue->messages);
        m_queue->changed.notify_all();
    }
    if (!left.empty()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Framework] Task (%s) stopped with (%?u) unhandled messages; dropped", name(),
                     left.size());
    }
    for (Message* msg : left) {
        delete msg;
    }
}

void TaskRunner::PrepareRun(Task* task, std::uint64_t period) {
    // A finished Poco::Task keeps its cancel event set; without reset() a re-run would see itself
    // cancelled at once.
    task->reset();
    {
        std::lock_guard<std::mutex> lock(task->m_queue->mutex);
        task->m_queue->stopRequested = false;
        task->m_queue->started = false;
        task->m_queue->finished = false;
        task->m_queue->runResult = 0;
    }
    task->m_currentPeriod.store(period, std::memory_order_release);
    task->m_lastSeenPeriod.store(period, std::memory_order_release);
}

void TaskRunner::MarkStart(Task* task) {
    task->m_lastSeenPeriod.store(task->m_currentPeriod.load(std::memory_order_acquire),
                                 std::memory_order_release);
}

void TaskRunner::OpenQueue(Task* task) {
    task->OpenQueue();
}

void TaskRunner::CloseQueue(Task* task) {
    task->CloseQueue();
}

void TaskRunner::RequestStop(Task* task) {
    std::lock_guard<std::mutex> lock(task->m_queue->mutex);
    task->m_queue->stopRequested = true;
    task->m_queue->changed.notify_all();
    // Before runTask() starts, a cancel() would be overwritten by run() setting RUNNING: runTask()
    // cancels itself instead. After Run() returned, a cancel() would only spoil FINISHED.
    if (task->m_queue->started && !task->m_queue->finished) {
        task->cancel();
    }
}

int TaskRunner::GetRunResult(Task* task) {
    std::lock_guard<std::mutex> lock(task->m_queue->mutex);
    return task->m_queue->runResult;
}

}  // namespace Framework
