#pragma once

#include <Poco/Util/Subsystem.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Framework {

class AbstractPolicyCallback;

// One key of a policy a module serves, as the module describes it to the host: the host validates
// and documents policies through these without knowing the keys itself.
struct PolicyKeyInfo {
    std::string name;         // the key as written in the policy
    std::string type;         // its JSON type: "boolean", "integer", "string", "array" or "object"
    std::string defaultText;  // the value taken when the key is absent ("required" when it must be there)
    std::string values;       // what values are allowed, for people ("0..65535"); "" when any of its type
    std::string help;         // one line
    bool extension = false;   // an opt-in addition: absent, the module behaves as without it
};
class Policy;
class Task;

// A plug-in module, created by the library's exported `CreateModule` (C linkage, no arguments,
// returns Framework::Module*).
//
// Ownership at the plug-in boundary: the host owns the module and deletes it through its virtual
// destructor; before that it calls UnInit(), which unregisters (and so stops) every task the module
// registered and deletes its callbacks, then Engine::ReleasePolicies(module), which destroys every
// policy the module's callbacks returned (the Engine owns them until then). So nothing made by the
// module's code outlives the module; only then may the library be closed. Tasks the module
// registered without adopting them stay the module's to delete, after they are unregistered.
class Module : public Poco::Util::Subsystem {
public:
    explicit Module(const std::string& name);
    ~Module() override;

    // Poco::Util::Subsystem.
    const char* name() const override;
    void initialize(Poco::Util::Application& app) override;
    void uninitialize() override;

    // Starts the module: the runtime calls it once after creation. 0 for success.
    virtual int Init();
    // Stops the module: unregisters its remaining tasks and drops its callbacks.
    virtual void UnInit();

    // Hands `content` to the callback registered for `key`: `policy` is the key's current policy
    // and receives the callback's result. False when this module has no callback for `key`.
    virtual bool RefreshPolicy(const std::string& key, const std::string& name, const std::string& content,
                               Policy*& policy);

    // The keys of the policy of `key` this module serves (the task part of it), in the order it reads
    // them; empty when the module describes none. Valid before Init().
    virtual std::vector<PolicyKeyInfo> GetPolicySchema(const std::string& key) const;
    // Settings of `text`, a policy of `key`, that the module accepts but that make it ineffective or
    // surprising: one line each, "<what happens>; <how to fix it>". Empty for a key the module does
    // not serve and for text it cannot read (it reports that itself when the policy is delivered).
    // Valid before Init(); delivers nothing.
    virtual std::vector<std::string> LintPolicy(const std::string& key, const std::string& text) const;
    // Why the module would give up `text` as its policy of `key` (and switch its work off) were it
    // delivered; "" when it would take it, and for a key it does not serve. Valid before Init();
    // delivers nothing.
    virtual std::string RefusalOf(const std::string& key, const std::string& text) const;

    // Registers the callback for policies of `key`; takes ownership (also on failure, when a
    // callback for `key` exists already: then `callback` is deleted and false returned).
    bool RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback);
    // Removes and deletes the callback registered for `key`, whichever registration call added it.
    bool UnRegisterTaskletCallback(const std::string& key);
    // True when a callback is registered for `key`.
    bool HasPolicyCallback(const std::string& key) const;
    // The keys this module has a policy callback for, in key order.
    std::vector<std::string> GetPolicyKeys() const;

    // Starts `task` on its own thread (Init, then Run). With `adopt` true the runtime takes over
    // the caller's reference on the task and releases it when the task is unregistered; with
    // false the caller keeps its reference and ownership. False when a task of that name is
    // registered already or Init() failed; nothing is taken then (the caller keeps its reference).
    // Before Init() the task gets its policy: the child named like the task of its feature-policy
    // pointer when that is set, else of the current feature policies.
    bool RegisterTask(Task* task, bool adopt);
    // Cancels the task `name`, waits for its Run() to return and calls its UnInit(). Harmless
    // when no such task is registered.
    bool UnRegisterTask(const std::string& name);
    // The registered task called `name`, or null.
    Task* FindTask(const std::string& name);

private:
    // A registered callback and the threads inside it right now, so removal never deletes a
    // callback that another thread is running.
    struct CallbackSlot;

    std::string m_name;
    mutable std::mutex m_mutex;
    std::condition_variable m_callbackDone;  // an invocation returned
    std::map<std::string, std::shared_ptr<CallbackSlot>> m_callbacks;
    std::vector<std::string> m_taskNames;  // tasks this module registered
};

}  // namespace Framework
