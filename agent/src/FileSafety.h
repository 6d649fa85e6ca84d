#pragma once

#include <string>

namespace HostAgent {

// The agent runs as root and acts on what its config, its policies and its module libraries say,
// so none of them may be open to change by another user. True when `path` (followed through any
// symbolic links) and every folder above it can be written only by root or the agent's own user;
// a folder with the sticky bit (such as /tmp) may be writable by all. False otherwise, with
// `problem` naming the file or folder at fault and the command that fixes it. A path that does not
// exist is left to the caller's own reading: true.
bool CheckFileSafety(const std::string& path, std::string& problem);

}  // namespace HostAgent
