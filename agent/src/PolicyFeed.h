#pragma once

#include "AgentConfig.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace HostAgent {

// Hands the policy files to the runtime and follows them: a file whose content changed is
// delivered again; DeliverAll() delivers every file again (SIGHUP). Changes are noticed through
// inotify on the files' folders (so a file replaced by rename, or created later, is seen too); a
// file whose folder cannot be watched is looked at every kPolicyPollIntervalMs instead, and its
// folder is watched as soon as it can be. A file that cannot be read is logged (once until its
// state changes) and not delivered, so the previous policy stays in force. So is a file that a module
// would refuse (not one JSON object, or what the module's RefusalOf says): a typo must not switch
// detection off. Not thread-safe: one
// thread (the agent's control loop) drives it.
class PolicyFeed {
public:
    using Clock = std::chrono::steady_clock;
    // Delivers `text` of the file called `name` under feature `key`; false when no module serves `key`.
    using DeliverFunction =
        std::function<bool(const std::string& key, const std::string& name, const std::string& text)>;

    // Told the problem of the file of `key` whenever it changes; "" when the file was delivered again.
    using ProblemFunction = std::function<void(const std::string& key, const std::string& problem)>;

    // Why the module serving `key` would give up `text` as its policy; "" when it would take it.
    using RefusalFunction = std::function<std::string(const std::string& key, const std::string& text)>;

    PolicyFeed(const std::vector<PolicySource>& sources, DeliverFunction deliver,
               ProblemFunction problem = ProblemFunction(), RefusalFunction refusal = RefusalFunction());
    ~PolicyFeed();

    PolicyFeed(const PolicyFeed&) = delete;
    PolicyFeed& operator=(const PolicyFeed&) = delete;

    // Delivers every file that was not delivered yet or whose content differs from the last
    // delivery. Returns how many were delivered.
    std::size_t Poll();
    // Delivers every readable file, changed or not. Returns how many were delivered.
    std::size_t DeliverAll();
    // Ends the feed: later calls deliver nothing.
    void Stop();

    // Readable when a change notice waits for HandleChanges(); -1 without inotify.
    int GetChangeFd() const { return m_inotifyFd; }
    // Takes the waiting change notices and delivers the files they concern that changed.
    std::size_t HandleChanges();
    // When files without a watched folder are next looked at; Clock::time_point::max() when every
    // folder is watched.
    Clock::time_point NextPollDue() const;
    // Looks at the files without a watched folder when that is due, after trying to watch them.
    std::size_t PollUnwatched();

private:
    struct Entry {
        PolicySource source;
        bool handled = false;      // `lastText` was delivered
        std::string lastText;      // content at the last delivery
        std::string problem;       // why the file could not be read; "" when it could
        std::string refusal;       // why `lastText` was not delivered; "" when it was
        bool watched = false;      // the folder of `source.path` is watched
        std::string watchProblem;  // why that folder cannot be watched; "" when it can
    };
    // What a folder watch is for: the entry and the name its file has in that folder.
    struct Watcher {
        std::size_t entry;
        std::string name;
    };

    std::size_t Visit(bool force);
    bool VisitEntry(Entry& entry, bool force);
    void Report(const Entry& entry, const std::string& problem);
    // Watches the folder of the entry's path (and of the file a link points to). False when the
    // folder of the path itself cannot be watched.
    bool Watch(std::size_t index);
    void AddWatch(int wd, std::size_t index, const std::string& name);
    void DropWatch(int wd);

    std::vector<Entry> m_entries;
    DeliverFunction m_deliver;
    ProblemFunction m_problem;
    RefusalFunction m_refusal;
    bool m_stopped = false;
    int m_inotifyFd = -1;
    std::map<int, std::vector<Watcher>> m_watches;  // by watch descriptor
    Clock::time_point m_nextPoll = Clock::time_point::max();
};

}  // namespace HostAgent
