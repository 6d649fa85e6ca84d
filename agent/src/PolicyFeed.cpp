#include "PolicyFeed.h"

#include "PolicyFile.h"
#include "sdk/LogStatement.h"

#include <Poco/Path.h>

namespace HostAgent {

PolicyFeed::PolicyFeed(const std::vector<PolicySource>& sources, DeliverFunction deliver)
    : m_deliver(std::move(deliver)) {
    for (const PolicySource& source : sources) {
        Entry entry;
        entry.source = source;
        m_entries.push_back(entry);
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
        }
        return false;
    }
    if (!entry.problem.empty()) {
        SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Policy] Policy file %s is readable again", path);
        entry.problem.clear();
    }
    if (!force && entry.handled && text == entry.lastText) {
        return false;
    }
    entry.handled = true;
    entry.lastText = text;
    if (!CheckPolicyText(text, problem)) {
        // The module owns its policy's syntax: it reports the error and takes its own safe course.
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING,
                     "[Policy] Policy file %s (key %s) is malformed (%s); delivering it, the module decides",
                     path, key, problem);
    }
    std::string name = Poco::Path(path).getFileName();
    if (!m_deliver(key, name, text)) {
        SDK_ROOT_LOG(Poco::Message::PRIO_WARNING, "[Policy] No module serves policy key %s (file %s)", key,
                     path);
        return false;
    }
    SDK_ROOT_LOG(Poco::Message::PRIO_INFORMATION, "[Policy] Delivered %s under key %s", path, key);
    return true;
}

}  // namespace HostAgent
