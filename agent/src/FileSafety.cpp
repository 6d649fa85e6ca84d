#include "FileSafety.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace HostAgent {

namespace {

std::string OctalMode(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

// Root and the agent's own user (and their groups) are trusted; nobody else.
bool TrustedUser(uid_t uid) {
    return uid == 0 || uid == geteuid();
}

bool TrustedGroup(gid_t gid) {
    return gid == 0 || gid == getegid();
}

// One file or folder: owned by a trusted user and writable by nobody else.
bool CheckOne(const std::string& path, bool isFolder, std::string& problem) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return true;  // a missing file is reported by whoever reads it
    }
    const std::string subject = isFolder ? "its folder " + path : path;
    const std::string prefix = "unsafe: " + subject + " ";
    if (!TrustedUser(info.st_uid)) {
        problem = prefix + "is owned by uid " + std::to_string(info.st_uid) +
                  ", who could change it; fix: chown root " + path;
        return false;
    }
    const bool groupWrite = (info.st_mode & S_IWGRP) != 0 && !TrustedGroup(info.st_gid);
    const bool otherWrite = (info.st_mode & S_IWOTH) != 0;
    const bool sticky = isFolder && (info.st_mode & S_ISVTX) != 0;
    if ((groupWrite || otherWrite) && !sticky) {
        problem = prefix + "is writable by other users (mode " + OctalMode(info.st_mode) +
                  "); fix: chmod go-w " + path;
        return false;
    }
    return true;
}

// The file and each folder above it, up to "/".
bool CheckChain(const std::string& absolute, std::string& problem) {
    if (!CheckOne(absolute, false, problem)) {
        return false;
    }
    std::string folder = absolute;
    while (folder.size() > 1) {
        std::size_t slash = folder.find_last_of('/');
        folder = slash == 0 ? "/" : folder.substr(0, slash);
        if (!CheckOne(folder, true, problem)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool CheckFileSafety(const std::string& path, std::string& problem) {
    std::unique_ptr<char, decltype(&std::free)> resolved(realpath(path.c_str(), nullptr), &std::free);
    if (!resolved) {
        return true;  // missing or unreadable: the reader names that problem
    }
    // The folders of the name as given matter too: whoever can write one of them can point a
    // symbolic link in it somewhere else.
    std::string given = path;
    if (given.empty() || given[0] != '/') {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof(cwd)) == nullptr) {
            return CheckChain(resolved.get(), problem);
        }
        given = std::string(cwd) + "/" + given;
    }
    return CheckChain(resolved.get(), problem) && (given == resolved.get() || CheckChain(given, problem));
}

}  // namespace HostAgent
