#pragma once

#include "builtin_tasks/NetProcsFullTask.h"

#include <string>
#include <vector>

namespace Engine {
namespace SockDiag {

// States asked for in every dump: all TCP states up to TCP_NEW_SYN_RECV (bits 0..12). Bit 13
// (TCP_BOUND_INACTIVE) is left out on purpose: with it set the kernel also returns sockets that
// are only bound and ignores the request's filters.
constexpr unsigned int kStatesMask = (1U << 13) - 1;

// Dumps every socket of one family (AF_INET, AF_INET6) and protocol (IPPROTO_TCP, IPPROTO_UDP)
// through the netlink socket `fd` (NETLINK_SOCK_DIAG) and appends them to `out` (pid and process
// name left unknown). `seq` tags the request. False, with `error` set, when the kernel could not be
// asked or answered with an error; `unsupported` is then true when the kernel has no table for
// this family and protocol (ENOENT), which callers may treat as an empty table.
bool DumpSockets(int fd, int family, int protocol, unsigned int seq,
                 std::vector<NetProcsMessage::netProcInfo>& out, std::string& error, bool& unsupported);

}  // namespace SockDiag
}  // namespace Engine
