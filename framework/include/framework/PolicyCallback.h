#pragma once

#include <string>

namespace Framework {

class Policy;

// Receives the policy text delivered for one feature key and returns the new policy object.
class AbstractPolicyCallback {
public:
    virtual ~AbstractPolicyCallback() = default;

    // `name`: the name the runtime gives this delivery (the policy file's name); `content`: the
    // policy text; `policy`: the policy currently held for the key (null on the first delivery).
    // Returns the new policy, which the runtime takes over (null: nothing to keep).
    virtual Policy* invoke(const std::string& name, const std::string& content, Policy*& policy) const = 0;
};

// Binds a member function of `C` as a policy callback.
template <class C>
class PolicyCallback : public AbstractPolicyCallback {
public:
    using Callback = Policy* (C::*)(const std::string&, const std::string&, Policy*&);

    PolicyCallback(C* object, Callback method) : m_object(object), m_method(method), m_disabled(false) {}

    Policy* invoke(const std::string& name, const std::string& content, Policy*& policy) const override {
        return (m_object->*m_method)(name, content, policy);
    }

    // Set by the runtime while the callback is being removed, so no new delivery reaches it.
    bool IsDisabled() const { return m_disabled; }
    void SetDisabled(bool disabled) { m_disabled = disabled; }

private:
    C* m_object;
    Callback m_method;
    bool m_disabled;
};

}  // namespace Framework
