#pragma once

#include <atomic>
#include <string>
#include <vector>

namespace Framework {

// A parsed policy document. Created by a module's policy callback for one delivery, owned from
// then on by the runtime, which keeps it as the current policy of its feature key until the next
// delivery replaces it, and frees it only once no running task can still be reading it.
class Policy {
public:
    explicit Policy(const std::string& name);
    virtual ~Policy();

    Policy(const Policy&) = delete;
    Policy& operator=(const Policy&) = delete;

    // Reads the policy text. False when the text is not acceptable; the object may then hold
    // partial state and is only kept so the runtime can dispose of it.
    virtual bool Parse(const std::string& text) = 0;

    // Hands this policy to whoever consumes it, once the runtime has made it current. `parent` is
    // the policy that contains this one (null for a top-level policy). The base does nothing.
    virtual void Dispatch(Policy* parent);

    // True when a policy called `name` whose content hash is `hash` differs from this one.
    // The base compares names only.
    virtual bool PolicyChanged(const std::string& name, const std::string& hash);

    const std::string& GetName() const { return m_name; }
    void SetName(const std::string& name) { m_name = name; }

    // Set on the previous policy of a feature key when a newer one replaces it. Atomic because a
    // task may still be reading the old policy while the delivering thread marks it.
    bool IsReplaced() const { return m_replaced.load(std::memory_order_acquire); }
    void SetReplaced(bool replaced) { m_replaced.store(replaced, std::memory_order_release); }

protected:
    std::string m_name;
    std::atomic<bool> m_replaced;  // false at construction
};

// A policy with child policies, which it owns and destroys.
class CompositePolicy : public Policy {
public:
    explicit CompositePolicy(const std::string& name);
    ~CompositePolicy() override;

    // Appends `child` and takes ownership of it. A null child is ignored.
    void Add(Policy* child);

    // Children in the order they were added; owned by this object.
    const std::vector<Policy*>& GetChildren() const { return m_children; }

    // The first child called `name`, or null.
    Policy* FindChild(const std::string& name) const;

    // Dispatches every child with this policy as parent.
    void Dispatch(Policy* parent) override;

private:
    std::vector<Policy*> m_children;
};

// The top-level policy of one feature: name, content hash, enabled flag and task policies as
// children. The runtime dispatches each child task policy to the task of the same name.
class FeaturePolicy : public CompositePolicy {
public:
    explicit FeaturePolicy(const std::string& name);
    ~FeaturePolicy() override;

    void Dispatch(Policy* parent) override;
    // True when `name` or `hash` differs from this policy's.
    bool PolicyChanged(const std::string& name, const std::string& hash) override;

    const std::string& GetHash() const { return m_hash; }
    void SetHash(const std::string& hash) { m_hash = hash; }
    bool IsEnabled() const { return m_enabled; }
    void SetEnabled(bool enabled) { m_enabled = enabled; }

private:
    std::string m_hash;
    bool m_enabled;  // true at construction
};

// When and how a task runs, from the "task_condition" object of a task policy.
//
// Format (a JSON object; every key optional; any other key, or a value of another type or out of
// range, is rejected):
//   "start_delay_s": integer 0..3600, seconds to wait after registration before the task's Run
//                    starts (default 0).
// The empty object {} means "run the task as soon as it is registered".
struct TaskCondition {
    int startDelaySeconds = 0;
};

// The policy of one task; its name is the name of the task it configures.
class TaskPolicy : public Policy {
public:
    explicit TaskPolicy(const std::string& name);
    ~TaskPolicy() override;

    // Gives this policy to the registered task of the same name (with `parent` as the task's
    // feature policy). Does nothing when no such task is registered; the runtime hands it over
    // when the task registers.
    void Dispatch(Policy* parent) override;

    // Parses the "task_condition" text (format above). False, with one error line naming the
    // problem on the root logger, when it does not fit; the previous condition is then kept.
    bool ParseCondition(const std::string& text);

    const TaskCondition& GetCondition() const { return m_condition; }

private:
    TaskCondition m_condition;
};

}  // namespace Framework
