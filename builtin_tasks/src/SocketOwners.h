#pragma once

#include <map>
#include <set>
#include <string>

namespace Engine {

// The process that holds a socket, found through /proc/<pid>/fd.
struct SocketOwner {
    int pid = -1;
    std::string processName;  // /proc/<pid>/comm without the line break; "" when unreadable
};

// Maps each socket inode of `wanted` to a process that has it open. Best effort: processes that
// cannot be read (gone, or not ours without privileges) are skipped, so an inode may be missing
// from the result. When several processes share a socket, the lowest pid wins.
std::map<unsigned long, SocketOwner> FindSocketOwners(const std::set<unsigned long>& wanted);

}  // namespace Engine
