#include "SockDiagDump.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace Engine {
namespace SockDiag {

namespace {

// Large enough for any dump message the kernel builds (it sizes them to at most 32 KiB).
constexpr std::size_t kRecvBufferSize = 64 * 1024;

// The kernel's errno values stay below 4096 (MAX_ERRNO).
constexpr int kMaxErrno = 4095;

struct DumpRequest {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

// NLMSG_OK without its comparison of a signed with an unsigned length.
bool MessageFits(const nlmsghdr* header, int left) {
    return left >= static_cast<int>(sizeof(nlmsghdr)) && header->nlmsg_len >= sizeof(nlmsghdr) &&
           header->nlmsg_len <= static_cast<unsigned int>(left);
}

std::string AddressText(int family, const __be32* words) {
    char text[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(family, words, text, sizeof(text)) == nullptr) {
        return std::string();
    }
    return text;
}

bool SendRequest(int fd, int family, int protocol, unsigned int seq, std::string& error) {
    DumpRequest request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.header.nlmsg_seq = seq;
    request.body.sdiag_family = static_cast<__u8>(family);
    request.body.sdiag_protocol = static_cast<__u8>(protocol);
    request.body.idiag_states = kStatesMask;

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    for (;;) {
        ssize_t sent =
            sendto(fd, &request, sizeof(request), 0, reinterpret_cast<sockaddr*>(&kernel), sizeof(kernel));
        if (sent == static_cast<ssize_t>(sizeof(request))) {
            return true;
        }
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        error = std::string("send: ") + (sent < 0 ? std::strerror(errno) : "short write");
        return false;
    }
}

void AppendSocket(const inet_diag_msg& msg, int protocol, std::vector<NetProcsMessage::netProcInfo>& out) {
    NetProcsMessage::netProcInfo info;
    info.protocol = protocol == IPPROTO_UDP ? 1 : 0;
    info.localPort = ntohs(msg.id.idiag_sport);
    info.remotePort = ntohs(msg.id.idiag_dport);
    info.localAddress = AddressText(msg.idiag_family, msg.id.idiag_src);
    info.remoteAddress = AddressText(msg.idiag_family, msg.id.idiag_dst);
    info.state = msg.idiag_state;
    info.inode = msg.idiag_inode;
    out.push_back(info);
}

}  // namespace

bool DumpSockets(int fd, int family, int protocol, unsigned int seq,
                 std::vector<NetProcsMessage::netProcInfo>& out, std::string& error, bool& unsupported) {
    unsupported = false;
    if (!SendRequest(fd, family, protocol, seq, error)) {
        return false;
    }
    std::vector<char> buffer(kRecvBufferSize);
    for (;;) {
        ssize_t received = recv(fd, buffer.data(), buffer.size(), 0);
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = std::string("recv: ") + std::strerror(errno);
            return false;
        }
        if (received == 0) {
            error = "recv: the kernel closed the dump early";
            return false;
        }
        int left = static_cast<int>(received);
        for (auto* header = reinterpret_cast<nlmsghdr*>(buffer.data()); MessageFits(header, left);
             header = NLMSG_NEXT(header, left)) {
            if (header->nlmsg_seq != seq) {
                continue;  // a late answer to an earlier request
            }
            if (header->nlmsg_type == NLMSG_DONE) {
                return true;
            }
            if (header->nlmsg_type == NLMSG_ERROR) {
                if (header->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) {
                    error = "truncated netlink error message";
                    return false;
                }
                nlmsgerr nlError;
                std::memcpy(&nlError, NLMSG_DATA(header), sizeof(nlError));
                // The kernel sends a negative errno; anything else (INT_MIN cannot even be negated)
                // is a malformed reply, named by its number.
                if (nlError.error >= 0 || nlError.error < -kMaxErrno) {
                    error = "kernel: malformed error reply (code " + std::to_string(nlError.error) + ")";
                    return false;
                }
                unsupported = nlError.error == -ENOENT;
                error = std::string("kernel: ") + std::strerror(-nlError.error);
                return false;
            }
            if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
                header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
                continue;
            }
            inet_diag_msg msg;
            std::memcpy(&msg, NLMSG_DATA(header), sizeof(msg));
            AppendSocket(msg, protocol, out);
        }
    }
}

}  // namespace SockDiag
}  // namespace Engine
