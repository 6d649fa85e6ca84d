// Socket-diagnostics replies as real datagrams. The module's port query reads each input through a
// socket pair and classifies its first header; the agent's socket-table dump reads it from a real
// NETLINK_SOCK_DIAG socket, queued ahead of the kernel's own answer by a second netlink socket of
// this process (needs CAP_NET_ADMIN; the run moves into an empty network namespace first, so the
// kernel's answer is a bare end-of-dump). Both are judged against a plain walk over the bytes.
#include "FuzzSupport.h"
#include "PortScanModule.h"
#include "SockDiagDump.h"
#include "SocketUtil.h"

#include <arpa/inet.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <tuple>
#include <vector>

namespace {

constexpr std::size_t kQueryBuffer = 8192;
constexpr std::size_t kLargestInjected = 32 * 1024;
constexpr unsigned int kSeq = 1;

int g_pair[2] = {-1, -1};
int g_diag = -1;    // the dump's socket
int g_sender = -1;  // queues the input on it
sockaddr_nl g_diagAddress{};
bool g_emptyNamespace = false;

void JudgeQuery(const uint8_t* data, std::size_t size) {
    const std::size_t length = std::min(size, kQueryBuffer);
    if (send(g_pair[0], data, size, 0) != static_cast<ssize_t>(size)) {
        return;
    }
    int result = 7;
    const bool answered = Engine::SocketUtil::RecvNetLinkMsgQuery(g_pair[1], result, 0);
    nlmsghdr header{};
    std::memcpy(&header, data, std::min(length, sizeof(header)));
    bool expectAnswered = false;
    int expectResult = 1;
    if (length > 15 && header.nlmsg_len > 15 && length >= header.nlmsg_len) {
        expectAnswered = header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == SOCK_DIAG_BY_FAMILY;
        expectResult = header.nlmsg_type == SOCK_DIAG_BY_FAMILY ? 0 : 1;
    }
    FUZZ_CHECK(answered == expectAnswered, "query answered " + std::to_string(answered));
    FUZZ_CHECK(result == expectResult, "query result " + std::to_string(result));
}

std::string AddressText(int family, const void* words) {
    char text[INET6_ADDRSTRLEN] = {};
    return inet_ntop(family, words, text, sizeof(text)) == nullptr ? std::string() : std::string(text);
}

bool Fits(const nlmsghdr* header, int left) {
    return left >= 16 && header->nlmsg_len >= 16 && static_cast<long>(header->nlmsg_len) <= left;
}

void Drain() {
    char buffer[65536];
    while (recv(g_diag, buffer, sizeof(buffer), MSG_DONTWAIT) >= 0) {
    }
}

void JudgeDump(const uint8_t* data, std::size_t size) {
    if (g_diag < 0 || size < sizeof(nlmsghdr) || size > kLargestInjected) {
        return;
    }
    if (sendto(g_sender, data, size, 0, reinterpret_cast<const sockaddr*>(&g_diagAddress),
               sizeof(g_diagAddress)) != static_cast<ssize_t>(size)) {
        return;
    }
    // The reference walk: records until the end of the dump or an error with this request's number.
    std::vector<Engine::NetProcsMessage::netProcInfo> expected;
    enum { kOpen, kDone, kError } end = kOpen;
    bool expectUnsupported = false;
    std::string expectError;
    std::vector<unsigned char> copy(data, data + size);
    int left = static_cast<int>(size);
    for (auto* header = reinterpret_cast<nlmsghdr*>(copy.data()); end == kOpen && Fits(header, left);
         header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_seq != kSeq) {
            continue;
        }
        if (header->nlmsg_type == NLMSG_DONE) {
            end = kDone;
        } else if (header->nlmsg_type == NLMSG_ERROR) {
            end = kError;
            if (header->nlmsg_len >= NLMSG_LENGTH(sizeof(nlmsgerr))) {
                int code;
                std::memcpy(&code, NLMSG_DATA(header), sizeof(code));
                expectUnsupported = code == -ENOENT;
                if (code < 0 && code >= -4095) {
                    expectError = std::string("kernel: ") + std::strerror(-code);
                }
            }
        } else if (header->nlmsg_type == SOCK_DIAG_BY_FAMILY &&
                   header->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            inet_diag_msg msg;
            std::memcpy(&msg, NLMSG_DATA(header), sizeof(msg));
            Engine::NetProcsMessage::netProcInfo info;
            info.protocol = 0;
            info.localPort = ntohs(msg.id.idiag_sport);
            info.remotePort = ntohs(msg.id.idiag_dport);
            info.localAddress = AddressText(msg.idiag_family, msg.id.idiag_src);
            info.remoteAddress = AddressText(msg.idiag_family, msg.id.idiag_dst);
            info.state = msg.idiag_state;
            info.inode = msg.idiag_inode;
            expected.push_back(info);
        }
    }

    std::vector<Engine::NetProcsMessage::netProcInfo> sockets;
    std::string error;
    bool unsupported = false;
    const bool done =
        Engine::SockDiag::DumpSockets(g_diag, AF_INET, IPPROTO_TCP, kSeq, sockets, error, unsupported);
    Drain();
    // Left open by the input, the dump ends with the kernel's own answer.
    FUZZ_CHECK(done == (end != kError), "dump result " + std::to_string(done) + ": " + error);
    FUZZ_CHECK(unsupported == expectUnsupported, error);
    if (end == kError) {
        FUZZ_CHECK(!error.empty() && (expectError.empty() || error == expectError), error);
    }
    const bool exact = end != kOpen || g_emptyNamespace;
    FUZZ_CHECK(exact ? sockets.size() == expected.size() : sockets.size() >= expected.size(),
               std::to_string(sockets.size()) + " sockets, expected " + std::to_string(expected.size()));
    auto fields = [](const Engine::NetProcsMessage::netProcInfo& s) {
        return std::tie(s.protocol, s.localPort, s.remotePort, s.localAddress, s.remoteAddress, s.state,
                        s.inode);
    };
    for (std::size_t i = 0; i < expected.size(); ++i) {
        FUZZ_CHECK(fields(sockets[i]) == fields(expected[i]), "socket " + std::to_string(i));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs([] { Engine::PortScan::GetLoggerPtr(); });
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, g_pair) != 0) {
        FuzzSupport::Fail("socketpair");
    }
    g_emptyNamespace = unshare(CLONE_NEWNET) == 0;
    g_diag = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    g_sender = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    g_diagAddress.nl_family = AF_NETLINK;
    socklen_t length = sizeof(g_diagAddress);
    const nlmsghdr probe{sizeof(nlmsghdr), 0, 0, 0, 0};  // type 0: skipped by every reader
    if (g_diag < 0 || g_sender < 0 ||
        bind(g_diag, reinterpret_cast<sockaddr*>(&g_diagAddress), length) != 0 ||
        getsockname(g_diag, reinterpret_cast<sockaddr*>(&g_diagAddress), &length) != 0 ||
        sendto(g_sender, &probe, sizeof(probe), 0, reinterpret_cast<sockaddr*>(&g_diagAddress),
               sizeof(g_diagAddress)) != sizeof(probe)) {
        std::fprintf(stderr,
                     "fuzz_sockdiag: cannot queue replies on a netlink socket (%s); the dump is skipped\n",
                     std::strerror(errno));
        close(g_diag);
        g_diag = -1;
    }
    Drain();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    JudgeQuery(data, size);
    JudgeDump(data, size);
    return 0;
}
