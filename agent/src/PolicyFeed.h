#pragma once

#include "AgentConfig.h"

#include <functional>
#include <string>
#include <vector>

namespace HostAgent {

// Hands the policy files to the runtime and follows them: a file whose content changed is
// delivered again at the next Poll(); DeliverAll() delivers every file again (SIGHUP). A file that
// cannot be read is logged (once until its state changes) and not delivered, so the previous
// policy stays in force; it is looked at again at the next Poll(). A file that is not a JSON object
// is delivered all the same, with a warning: the module reports and handles its own syntax errors.
// Not thread-safe: one thread (the agent's control loop) drives it.
class PolicyFeed {
public:
    // Delivers `text` of the file called `name` under feature `key`; false when no module serves `key`.
    using DeliverFunction =
        std::function<bool(const std::string& key, const std::string& name, const std::string& text)>;

    PolicyFeed(const std::vector<PolicySource>& sources, DeliverFunction deliver);

    // Delivers every file that was not delivered yet or whose content differs from the last
    // delivery. Returns how many were delivered.
    std::size_t Poll();
    // Delivers every readable file, changed or not. Returns how many were delivered.
    std::size_t DeliverAll();
    // Ends the feed: later calls deliver nothing.
    void Stop();

private:
    struct Entry {
        PolicySource source;
        bool handled = false;  // `lastText` was delivered
        std::string lastText;  // content at the last delivery
        std::string problem;   // why the file could not be read; "" when it could
    };

    std::size_t Visit(bool force);
    bool VisitEntry(Entry& entry, bool force);

    std::vector<Entry> m_entries;
    DeliverFunction m_deliver;
    bool m_stopped = false;
};

}  // namespace HostAgent
