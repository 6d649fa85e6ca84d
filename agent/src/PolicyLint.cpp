#include "PolicyLint.h"

#include "ModuleHost.h"

namespace HostAgent {

std::vector<std::string> LintPolicy(const ModuleHost& modules, const std::string& key,
                                    const std::string& file, const std::string& text) {
    std::vector<std::string> lines;
    for (const std::string& finding : modules.LintPolicy(key, text)) {
        lines.push_back("warning: " + file + ": " + finding);
    }
    return lines;
}

}  // namespace HostAgent
