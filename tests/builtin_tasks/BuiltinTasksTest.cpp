#include "SockDiagDump.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "support/LogCapture.h"
#include "support/TestEngine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace {

using Engine::NetProcsFullTask;

TEST(NetProcsFullTaskTest, SeesLoopbackListenersAndDropsThemOnceClosed) {
    // A read refreshes a cache older than the period; RefreshNow always does.
    for (const long period : {0L, 60000L}) {
        NetProcsFullTask task(period);
        for (const auto& [type, protocol] : {std::pair{SOCK_STREAM, 0u}, {SOCK_DGRAM, 1u}}) {
            SCOPED_TRACE(std::to_string(period) + " ms, protocol " + std::to_string(protocol));
            // Bound to a port the kernel picks on 127.0.0.1; its inode is the cache key.
            const int fd = socket(AF_INET, type, 0);
            sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
            socklen_t length = sizeof(address);
            struct stat info {};
            ASSERT_TRUE(bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                        (type != SOCK_STREAM || listen(fd, 4) == 0) &&
                        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
                        fstat(fd, &info) == 0);
            const long inode = static_cast<long>(info.st_ino);
            NetProcsFullTask::CacheMap cache;
            if (period != 0) {
                ASSERT_TRUE(task.RefreshNow());
            }
            task.GetNetCacheMap(cache);
            ASSERT_EQ(cache.count(inode), 1u);
            EXPECT_EQ(cache[inode]->protocol, protocol);
            EXPECT_EQ(cache[inode]->localPort, ntohs(address.sin_port));
            EXPECT_EQ(cache[inode]->localAddress, "127.0.0.1");
            EXPECT_EQ(cache[inode]->pid, static_cast<int>(getpid()));
            close(fd);
            task.GetNetCacheMap(cache);
            EXPECT_EQ(cache.count(inode), period == 0 ? 0u : 1u);
            ASSERT_TRUE(task.RefreshNow());
            task.GetNetCacheMap(cache);
            EXPECT_EQ(cache.count(inode), 0u);
        }
    }
}

TEST(NetProcsFullTaskTest, ANetlinkSocketThatCannotBeMadeIsReportedOnceAndRecoveredFrom) {
    TestSupport::TestEngine();
    TestSupport::RecordingChannel& logs = TestSupport::CaptureLogs();
    NetProcsFullTask task(60000);
    int refreshed = 0;
    // On a thread of its own, a seccomp filter makes every new netlink socket fail with EMFILE.
    std::thread([&] {
        sock_filter program[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 3),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EMFILE),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        sock_fprog filter{static_cast<unsigned short>(sizeof(program) / sizeof(program[0])), program};
        ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
        ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
        ASSERT_LT(socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG), 0);
        for (int i = 0; i < 3; ++i) {
            refreshed += task.RefreshNow();
        }
    }).join();
    EXPECT_EQ(refreshed, 0);
    EXPECT_EQ(logs.CountContaining("Cannot read the socket tables"), 1u);
    EXPECT_EQ(logs.CountContaining("netlink socket: Too many open files"), 1u);
    EXPECT_TRUE(task.RefreshNow() && task.RefreshNow());
    EXPECT_EQ(logs.Count("[NetProcs] Socket tables readable again"), 1u);
}

TEST(SockDiagDumpTest, ErrorRepliesGiveADefinedResult) {
    // Error replies queued ahead of the kernel's answer by a second socket (needs CAP_NET_ADMIN).
    const int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
    const int sender = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
    sockaddr_nl address{AF_NETLINK, 0, 0, 0};
    socklen_t length = sizeof(address);
    ASSERT_TRUE(sender >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    struct {
        int code;
        bool unsupported;
        const char* text;
    } cases[] = {
        {INT_MIN, false, "malformed error reply (code -2147483648)"},
        {0, false, "malformed error reply (code 0)"},
        {-ENOENT, true, "kernel: No such file or directory"},
        {-EPERM, false, "kernel: Operation not permitted"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.code);
        struct {
            nlmsghdr header;
            nlmsgerr body;
        } message{{sizeof(message), NLMSG_ERROR, 0, 7, 0}, {c.code, {}}};  // length, type, flags, seq, port
        if (sendto(sender, &message, sizeof(message), 0, reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address)) < 0 &&
            errno == EPERM) {
            GTEST_SKIP() << "sending to a netlink socket of this process needs CAP_NET_ADMIN";
        }
        std::vector<Engine::NetProcsMessage::netProcInfo> sockets;
        std::string error;
        bool unsupported = !c.unsupported;
        EXPECT_FALSE(Engine::SockDiag::DumpSockets(fd, AF_INET, IPPROTO_TCP, 7, sockets, error, unsupported));
        EXPECT_NE(error.find(c.text), std::string::npos) << error;
        EXPECT_EQ(unsupported, c.unsupported);
        // The kernel's own answer to the request is still queued: it is read whole and ends the dump.
        EXPECT_TRUE(Engine::SockDiag::DumpSockets(fd, AF_INET, IPPROTO_TCP, 8, sockets, error, unsupported));
    }
    close(fd);
    close(sender);
}

}  // namespace
