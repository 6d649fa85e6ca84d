#include "SocketOwners.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace Engine {

namespace {

// The inode of a "socket:[12345]" link text; 0 for any other link.
unsigned long SocketInode(const char* link) {
    static const char kPrefix[] = "socket:[";
    constexpr std::size_t kPrefixLength = sizeof(kPrefix) - 1;
    if (std::string(link).compare(0, kPrefixLength, kPrefix) != 0) {
        return 0;
    }
    char* end = nullptr;
    unsigned long inode = std::strtoul(link + kPrefixLength, &end, 10);
    return (end != nullptr && *end == ']') ? inode : 0;
}

int PidOf(const char* name) {
    char* end = nullptr;
    long pid = std::strtol(name, &end, 10);
    if (end == name || *end != '\0' || pid <= 0) {
        return -1;
    }
    return static_cast<int>(pid);
}

std::string ProcessName(int pid) {
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(comm, name);
    return name;
}

// Adds every wanted socket that process `pid` holds to `owners`.
void ScanProcess(int pid, const std::set<unsigned long>& wanted,
                 std::map<unsigned long, SocketOwner>& owners) {
    std::string fdFolder = "/proc/" + std::to_string(pid) + "/fd";
    DIR* dir = opendir(fdFolder.c_str());
    if (dir == nullptr) {
        return;  // gone meanwhile, or not readable without privileges
    }
    std::string name;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::string linkPath = fdFolder + "/" + entry->d_name;
        char link[64] = {};
        ssize_t length = readlink(linkPath.c_str(), link, sizeof(link) - 1);
        if (length <= 0) {
            continue;
        }
        link[length] = '\0';
        unsigned long inode = SocketInode(link);
        if (inode == 0 || wanted.count(inode) == 0) {
            continue;
        }
        auto found = owners.find(inode);
        if (found != owners.end() && found->second.pid < pid) {
            continue;
        }
        if (name.empty()) {
            name = ProcessName(pid);
        }
        owners[inode] = SocketOwner{pid, name};
    }
    closedir(dir);
}

}  // namespace

std::map<unsigned long, SocketOwner> FindSocketOwners(const std::set<unsigned long>& wanted) {
    std::map<unsigned long, SocketOwner> owners;
    if (wanted.empty()) {
        return owners;
    }
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        return owners;
    }
    while (dirent* entry = readdir(proc)) {
        int pid = PidOf(entry->d_name);
        if (pid > 0) {
            ScanProcess(pid, wanted, owners);
        }
    }
    closedir(proc);
    return owners;
}

}  // namespace Engine
