#pragma once

// Policies that count their frees, a module serving them, and a task that records its hooks.

#include "framework/Message.h"
#include "framework/Module.h"
#include "framework/Policy.h"
#include "framework/PolicyCallback.h"
#include "framework/Task.h"
#include "sdk/StrUtils.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"
#include "support/TestEngine.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace FwTest {

class PlainTaskPolicy : public Framework::TaskPolicy {
public:
    using TaskPolicy::TaskPolicy;
    bool Parse(const std::string&) override { return true; }
};

// Holds a task policy for each comma-separated task name of its text.
class CountedPolicy : public Framework::FeaturePolicy {
public:
    CountedPolicy(const std::string& text, std::atomic<int>* freed)
        : FeaturePolicy("counted"), m_freed(freed) {
        for (const std::string& name : SDK::StrUtils::Split(text, ",")) {
            Add(new PlainTaskPolicy(name));
        }
    }
    ~CountedPolicy() override { ++*m_freed; }
    bool Parse(const std::string&) override { return true; }
    std::atomic<int>* m_freed;
};

// Serves feature key `key` with CountedPolicy while it exists.
class CountingModule : public Framework::Module {
public:
    explicit CountingModule(const std::string& key) : Module("counting_" + key), m_key(key) {
        RegisterPolicyCallback(key,
                               new Framework::PolicyCallback<CountingModule>(this, &CountingModule::Make));
        TestSupport::TestEngine().AddModule(this);
    }
    ~CountingModule() override {
        UnInit();
        TestSupport::TestEngine().ReleasePolicies(this);
        TestSupport::TestEngine().RemoveModule(this);
    }
    Framework::Policy* Make(const std::string&, const std::string& text, Framework::Policy*&) {
        return new CountedPolicy(text, &m_freed);
    }
    bool Deliver(const std::string& text) {
        return TestSupport::TestEngine().DeliverPolicy(m_key, "p", text);
    }
    CountedPolicy* Current() {
        return dynamic_cast<CountedPolicy*>(TestSupport::TestEngine().GetCurrentPolicy(m_key));
    }
    std::atomic<int> m_freed{0};
    std::string m_key;
};

// Records "I", "R", "U" as its hooks run; AwaitCancel flags a cancel not seen within 10 s.
class ProbeTask : public Framework::Task {
public:
    enum class Mode { Serve, AwaitCancel, ReturnAtOnce };
    explicit ProbeTask(const std::string& name, Mode mode = Mode::Serve, std::size_t queueSize = 16)
        : Task(name, "probe", 0, queueSize), m_mode(mode) {}
    bool Init() override {
        Events("I");
        m_initPolicy = GetTaskPolicy();
        return true;
    }
    int Run() override {
        Events("R");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (m_mode == Mode::AwaitCancel && !isCancelled() &&
               !(m_missedCancel = std::chrono::steady_clock::now() > deadline)) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return m_mode == Mode::Serve ? Task::Run() : 0;
    }
    bool UnInit() override {
        Events("U");
        return true;
    }
    bool HandleMsg(Framework::Message*) override {
        MarkActivity();
        ++m_handled;
        return true;
    }
    // Appends `event` to the record and returns the whole record.
    std::string Events(const char* event = "") {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events += event;
    }

    const Mode m_mode;
    std::atomic<int> m_handled{0};
    std::atomic<bool> m_missedCancel{false};
    std::atomic<Framework::TaskPolicy*> m_initPolicy{nullptr};

private:
    std::mutex m_mutex;
    std::string m_events;
};

}  // namespace FwTest
