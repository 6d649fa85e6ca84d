#include "PolicyFeed.h"

#include "AgentTunables.h"
#include "PolicyFile.h"
#include "sdk/LogStatement.h"

#include <Poco/Path.h>

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace HostAgent {

namespace {

// Whatever can make a file in the folder read differently: written and closed, renamed in or out,
// removed, its mode or owner changed; and the folder itself going away.
constexpr std::uint32_t kWatchMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB |
                                     IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;

std::string FolderOf(const std::string& file) {
    const std::string::size_type slash = file.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : file.substr(0, slash);
}

std::string NameOf(const std::string& file) {
    const std::string::size_type slash = file.rfind('/');
    return slash == std::string::npos ? file : file.substr(slash + 1);
}

}  // namespace

PolicyFeed::PolicyFeed(const std::vector<PolicySource>& sources, DeliverFunction deliver,
                       ProblemFunction problem, RefusalFunction refusal)
    : m_deliver(std::move(deliver)), m_problem(std::move(problem)), m_refusal(std::move(refusal)) {
    for (const PolicySource& source : sources) {
        Entry entry;
        entry.source = source;
        m_entries.push_back(entry);
    }
    m_inotifyFd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_inotifyFd < 0 && !m_entries.empty()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Policy] No inotify (%s); looking at the policy files every %ld ms",
                     std::string(std::strerror(errno)), kPolicyPollIntervalMs);
    }
    // Watched before the first read, so that no edit falls between the two.
    for (std::size_t index = 0; index < m_entries.size(); ++index) {
        if (!Watch(index)) {
            m_nextPoll = Clock::now() + std::chrono::milliseconds(kPolicyPollIntervalMs);
        }
    }
}

PolicyFeed::~PolicyFeed() {
    if (m_inotifyFd >= 0) {
        close(m_inotifyFd);
    }
}

std::size_t PolicyFeed::Poll() {
    return Visit(false);
}

std::size_t PolicyFeed::DeliverAll() {
    return Visit(true);
}

void PolicyFeed::Stop() {
    m_stopped = true;
}

std::size_t PolicyFeed::HandleChanges() {
    std::vector<bool> touched(m_entries.size(), false);
    alignas(inotify_event) char buffer[16 * (sizeof(inotify_event) + NAME_MAX + 1)];
    for (;;) {
        const ssize_t got = m_inotifyFd < 0 ? -1 : read(m_inotifyFd, buffer, sizeof(buffer));
        if (got <= 0) {
            break;  // EAGAIN: nothing more waits
        }
        for (ssize_t offset = 0; offset < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
            offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                touched.assign(m_entries.size(), true);  // notices were lost: look at everything
                continue;
            }
            auto found = m_watches.find(event->wd);
            if (found == m_watches.end()) {
                continue;
            }
            const std::string name = event->len > 0 ? std::string(event->name) : std::string();
            const bool folderGone = (event->mask & (IN_IGNORED | IN_MOVE_SELF | IN_DELETE_SELF)) != 0;
            for (const Watcher& watcher : found->second) {
                touched[watcher.entry] = touched[watcher.entry] || folderGone || watcher.name == name;
            }
            if (folderGone) {
                DropWatch(event->wd);
            }
        }
    }
    std::size_t delivered = 0;
    for (std::size_t index = 0; index < m_entries.size() && !m_stopped; ++index) {
        if (!touched[index]) {
            continue;
        }
        if (m_entries[index].watched) {
            Watch(index);  // a link may point elsewhere now: watch its new target's folder too
        }
        if (VisitEntry(m_entries[index], false)) {
            ++delivered;
        }
    }
    return delivered;
}

PolicyFeed::Clock::time_point PolicyFeed::NextPollDue() const {
    return m_stopped ? Clock::time_point::max() : m_nextPoll;
}

std::size_t PolicyFeed::PollUnwatched() {
    const Clock::time_point now = Clock::now();
    if (m_stopped || now < m_nextPoll) {
        return 0;
    }
    m_nextPoll = Clock::time_point::max();
    std::size_t delivered = 0;
    for (std::size_t index = 0; index < m_entries.size() && !m_stopped; ++index) {
        Entry& entry = m_entries[index];
        if (entry.watched) {
            continue;
        }
        if (Watch(index)) {
            SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Policy] Watching the folder of %s again",
                         entry.source.path);
        } else {
            m_nextPoll = now + std::chrono::milliseconds(kPolicyPollIntervalMs);
        }
        delivered += VisitEntry(entry, false) ? 1 : 0;
    }
    return delivered;
}

bool PolicyFeed::Watch(std::size_t index) {
    Entry& entry = m_entries[index];
    if (m_inotifyFd < 0) {
        return false;
    }
    const std::string& path = entry.source.path;
    const std::string folder = FolderOf(path);
    const int wd = inotify_add_watch(m_inotifyFd, folder.c_str(), kWatchMask);
    if (wd < 0) {
        const std::string problem = std::strerror(errno);
        if (problem != entry.watchProblem) {  // once per fault, not per look
            SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                         "[Policy] Cannot watch folder %s (%s); looking at %s every %ld ms until it can",
                         folder, problem, path, kPolicyPollIntervalMs);
            entry.watchProblem = problem;
        }
        return false;
    }
    entry.watchProblem.clear();
    AddWatch(wd, index, NameOf(path));
    // An edit of the file a link points to happens in the target's folder.
    if (char* real = realpath(path.c_str(), nullptr)) {
        const std::string target(real);
        std::free(real);
        const int targetWd =
            target == path ? -1 : inotify_add_watch(m_inotifyFd, FolderOf(target).c_str(), kWatchMask);
        if (targetWd >= 0) {
            AddWatch(targetWd, index, NameOf(target));
        }
    }
    entry.watched = true;
    return true;
}

void PolicyFeed::AddWatch(int wd, std::size_t index, const std::string& name) {
    std::vector<Watcher>& watchers = m_watches[wd];
    for (const Watcher& watcher : watchers) {
        if (watcher.entry == index && watcher.name == name) {
            return;
        }
    }
    watchers.push_back(Watcher{index, name});
}

void PolicyFeed::DropWatch(int wd) {
    auto found = m_watches.find(wd);
    if (found == m_watches.end()) {
        return;
    }
    for (const Watcher& watcher : found->second) {
        m_entries[watcher.entry].watched = false;
    }
    m_watches.erase(found);
    inotify_rm_watch(m_inotifyFd, wd);  // harmless when the kernel already dropped it
    if (m_nextPoll == Clock::time_point::max()) {
        m_nextPoll = Clock::now() + std::chrono::milliseconds(kPolicyPollIntervalMs);
    }
}

std::size_t PolicyFeed::Visit(bool force) {
    std::size_t delivered = 0;
    for (Entry& entry : m_entries) {
        if (m_stopped) {
            break;
        }
        if (VisitEntry(entry, force)) {
            ++delivered;
        }
    }
    return delivered;
}
void PolicyFeed::Report(const Entry& entry, const std::string& problem) {
    if (m_problem) {
        m_problem(entry.source.key, problem);
    }
}

bool PolicyFeed::VisitEntry(Entry& entry, bool force) {
    const std::string& key = entry.source.key;
    const std::string& path = entry.source.path;
    std::string text;
    std::string problem;
    if (!ReadPolicyFile(path, text, problem)) {
        if (problem != entry.problem) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Policy] Cannot read policy file %s (key %s): %s; trying again", path, key,
                         problem);
            entry.problem = problem;
            Report(entry, "cannot read " + path + ": " + problem);
        }
        return false;
    }
    if (!entry.problem.empty()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Policy] Policy file %s is readable again", path);
        entry.problem.clear();
        Report(entry, entry.refusal);
    }
    if (!force && entry.handled && text == entry.lastText) {
        return false;
    }
    const bool sameText = entry.handled && text == entry.lastText;
    entry.handled = true;
    entry.lastText = text;
    if (!CheckPolicyText(text, problem) || !(problem = m_refusal ? m_refusal(key, text) : "").empty()) {
        // Said once per text; the last good policy (if any) stays in force, also for renewals and
        // restarts, which deliver what was delivered last.
        if (!sameText || entry.refusal != path + ": " + problem) {
            SDK_ROOT_LOG(Poco::Message::PRIO_ERROR,
                         "[Policy] Policy file %s (key %s) refused: %s; the last good policy stays in force",
                         path, key, problem);
        }
        entry.refusal = path + ": " + problem;
        Report(entry, entry.refusal);
        return false;
    }
    std::string name = Poco::Path(path).getFileName();
    if (!m_deliver(key, name, text)) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Policy] No module serves policy key %s (file %s)", key,
                     path);
        return false;
    }
    if (!entry.refusal.empty()) {
        entry.refusal.clear();
        Report(entry, "");
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Policy] Delivered %s under key %s", path, key);
    return true;
}

}  // namespace HostAgent
