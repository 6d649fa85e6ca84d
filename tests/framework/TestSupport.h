#pragma once

// Shared pieces of the runtime's tests: one Engine per test process, a log capture, policies and
// a module that count their objects, and a configurable task.

#include <Poco/Channel.h>
#include <Poco/Message.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/Engine.h"
#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/Task.h"

namespace FwTest {

// Polls `done` every millisecond for up to `limit`.
inline bool WaitUntil(const std::function<bool()>& done,
                      std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Receives the root logger's lines.
class CaptureChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(msg);
    }
    std::vector<std::string> Lines(int priority) {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::string> out;
        for (const Poco::Message& msg : m_lines) {
            if (msg.getPriority() == priority) {
                out.push_back(msg.getText());
            }
        }
        return out;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<Poco::Message> m_lines;
};

// The Engine of the test process (made by the global test environment) and its log capture.
Framework::Engine* TheEngine();
CaptureChannel* TheLog();

struct PolicyCounts {
    std::atomic<int> made{0};
    std::atomic<int> freed{0};
};

// A task policy whose destruction is counted and clears its canary.
class CountedTaskPolicy : public Framework::TaskPolicy {
public:
    static constexpr int kAlive = 0x5eed;
    CountedTaskPolicy(const std::string& name, PolicyCounts* counts, int gen)
        : TaskPolicy(name), generation(gen), m_counts(counts) {
        ++m_counts->made;
    }
    ~CountedTaskPolicy() override {
        canary = 0;
        ++m_counts->freed;
    }
    bool Parse(const std::string&) override { return true; }
    int canary = kAlive;
    const int generation;

private:
    PolicyCounts* m_counts;
};

// Text: {"gen": N, "hash": "...", "tasks": {"<task name>": <task_condition>, ...}}.
class CountedFeaturePolicy : public Framework::FeaturePolicy {
public:
    explicit CountedFeaturePolicy(PolicyCounts* counts) : FeaturePolicy("counted"), m_counts(counts) {
        ++m_counts->made;
    }
    ~CountedFeaturePolicy() override {
        canary = 0;
        ++m_counts->freed;
    }
    bool Parse(const std::string& text) override;
    int canary = CountedTaskPolicy::kAlive;
    int generation = 0;

private:
    PolicyCounts* m_counts;
};

// Serves one feature key with CountedFeaturePolicy; `inside` runs inside the callback.
class CountingModule : public Framework::Module {
public:
    CountingModule(const std::string& name, const std::string& featureKey) : Module(name), key(featureKey) {}
    int Init() override;
    Framework::Policy* Refresh(const std::string& name, const std::string& content,
                               Framework::Policy*& policy);

    PolicyCounts counts;
    std::function<void(CountedFeaturePolicy*)> inside;
    std::string key;
};

// A task whose behaviour is picked per test; its hooks are recorded.
class ProbeTask : public Framework::Task {
public:
    enum class Mode {
        PollState,     // spins until state() == TASK_CANCELLING (gives up after 2 s: a lost cancel)
        SleepUntil,    // sleeps until cancelled; makes a mark when asked
        ReturnAtOnce,  // Run returns by itself
        Consume,       // takes messages until cancelled and drained
        UnRegisterSelf,
    };
    ProbeTask(const std::string& name, Mode m, std::size_t queueSize = 16)
        : Task(name, "probe", 0, queueSize), mode(m) {}
    ~ProbeTask() override {
        if (destroyed != nullptr) {
            ++*destroyed;
        }
    }

    bool Init() override {
        Note("I");
        initPolicy = GetTaskPolicy();
        return initResult;
    }
    int Run() override;
    bool UnInit() override {
        Note("U");
        return true;
    }
    bool HandleMsg(Framework::Message*) override {
        ++handled;
        return true;
    }
    bool InterceptMsg(Framework::Message* msg) override {
        if (interceptType.empty() || msg->GetType() != interceptType) {
            return false;
        }
        delete msg;
        return true;
    }

    // "I", "R", "U" in call order.
    std::string Events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

    const Mode mode;
    bool initResult = true;
    std::atomic<int> runs{0};
    std::atomic<int> handled{0};
    std::atomic<bool> missedCancel{false};
    std::atomic<bool> cancelledAtStart{false};
    std::atomic<bool> markRequest{false};
    std::atomic<int> marks{0};
    std::atomic<Framework::TaskPolicy*> initPolicy{nullptr};
    std::atomic<int>* destroyed = nullptr;
    std::string interceptType;  // messages of this type are consumed by InterceptMsg

private:
    void Note(const char* event) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_events += event;
    }
    std::mutex m_mutex;
    std::string m_events;
};

class CountedMessage : public Framework::Message {
public:
    CountedMessage(const std::string& type, std::atomic<int>* freed) : Message(type), m_freed(freed) {}
    ~CountedMessage() override { ++*m_freed; }

private:
    std::atomic<int>* m_freed;
};

}  // namespace FwTest
