#pragma once

#include <string>
#include <vector>

namespace HostAgent {

class ModuleHost;

// What the modules find in the policy file `file`, delivered under `key` with `text`: settings they
// accept but that make them ineffective or surprising (Framework::Module::LintPolicy), one line each:
// "warning: <file>: <what happens>; <how to fix it>". The agent knows no module's keys itself.
std::vector<std::string> LintPolicy(const ModuleHost& modules, const std::string& key,
                                    const std::string& file, const std::string& text);

}  // namespace HostAgent
