#include "SockDiagDump.h"
#include "builtin_tasks/DataCommReportTask.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "framework/Message.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"
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
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using Engine::DataCommReportTask;
using Engine::NetProcsFullTask;

TEST(DataCommReportTaskTest, WritesEachAlarmAsOneLineAndDrainsOnCancel) {
    TestSupport::TempDir dir;
    const std::string file = dir.File("out/alarms.jsonl");  // its folder is made at Init
    Engine::ReportSink sink;
    sink.kind = Engine::ReportSink::Kind::File;
    sink.path = file;
    auto* task = new DataCommReportTask({sink});
    ASSERT_TRUE(TestSupport::TestEngine().RegisterTask(task, true));
    // Taken down right after a burst, most of which is still queued then: drained, nothing lost.
    std::vector<std::string> expected = {R"({"event_count":2,"event_id":"a"})", "not JSON {\\nkept"};
    ASSERT_TRUE(task->EnqueueMsg(
        new Framework::DataMessage("2", "{\n  \"event_id\": \"a\",\n  \"event_count\": 2\n}\n")));
    ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", "not JSON {\nkept")));
    ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("1", R"({"other":"type"})")));  // not an alarm
    for (int i = 0; i < 2000; ++i) {
        expected.push_back(R"({"seq":)" + std::to_string(i) + "}");
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage("2", expected.back())));
    }
    ASSERT_TRUE(TestSupport::TestEngine().UnRegisterTask(DataCommReportTask::kTaskName));
    EXPECT_EQ(TestSupport::ReadLines(file), expected);
}

// A socket of this process bound to a port the kernel picks on 127.0.0.1; its inode is the
// cache key.
struct LoopbackSocket {
    explicit LoopbackSocket(int type) : m_fd(socket(AF_INET, type, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        struct stat info {};
        m_ok = m_fd >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
               (type != SOCK_STREAM || listen(m_fd, 4) == 0) &&
               getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
               fstat(m_fd, &info) == 0;
        m_port = ntohs(address.sin_port);
        m_inode = info.st_ino;
    }
    ~LoopbackSocket() { close(m_fd); }
    int m_fd;
    bool m_ok = false;
    unsigned int m_port = 0;
    long m_inode = 0;
};

TEST(NetProcsFullTaskTest, SeesLoopbackListenersAndDropsThemOnceClosed) {
    // A read refreshes a cache older than the period: with 0 every read does; with a minute only
    // RefreshNow does, and a read in between keeps what the last refresh saw.
    for (const long period : {0L, 60000L}) {
        NetProcsFullTask task(period);
        for (const auto& [type, protocol] : {std::pair{SOCK_STREAM, 0u}, {SOCK_DGRAM, 1u}}) {
            SCOPED_TRACE(std::to_string(period) + " ms, protocol " + std::to_string(protocol));
            auto sock = std::make_unique<LoopbackSocket>(type);
            ASSERT_TRUE(sock->m_ok);
            const long inode = sock->m_inode;
            NetProcsFullTask::CacheMap cache;
            if (period != 0) {
                ASSERT_TRUE(task.RefreshNow());
            }
            task.GetNetCacheMap(cache);
            ASSERT_EQ(cache.count(inode), 1u);
            EXPECT_EQ(cache[inode]->protocol, protocol);
            EXPECT_EQ(cache[inode]->localPort, sock->m_port);
            EXPECT_EQ(cache[inode]->localAddress, "127.0.0.1");
            EXPECT_EQ(cache[inode]->pid, static_cast<int>(getpid()));
            sock.reset();
            task.GetNetCacheMap(cache);
            EXPECT_EQ(cache.count(inode), period == 0 ? 0u : 1u);
            ASSERT_TRUE(task.RefreshNow());
            task.GetNetCacheMap(cache);
            EXPECT_EQ(cache.count(inode), 0u);
        }
    }
}

// Runs `work` on a thread of its own on which the kernel refuses every new netlink socket with
// EMFILE (a seccomp filter, which binds that thread only).
void WithoutNetlinkSockets(const std::function<void()>& work) {
    std::thread thread([&] {
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
        work();
    });
    thread.join();
}

TEST(NetProcsFullTaskTest, ANetlinkSocketThatCannotBeMadeIsReportedOnceAndRecoveredFrom) {
    TestSupport::TestEngine();
    TestSupport::RecordingChannel& logs = TestSupport::CaptureLogs();
    NetProcsFullTask task(60000);
    bool refreshed[3] = {true, true, true};
    WithoutNetlinkSockets([&] {
        for (bool& result : refreshed) {
            result = task.RefreshNow();
        }
    });
    EXPECT_FALSE(refreshed[0] || refreshed[1] || refreshed[2]);
    EXPECT_EQ(logs.CountContaining("Cannot read the socket tables"), 1u);
    EXPECT_EQ(logs.CountContaining("netlink socket: Too many open files"), 1u);
    EXPECT_TRUE(task.RefreshNow());
    EXPECT_TRUE(task.RefreshNow());
    EXPECT_EQ(logs.Count("[NetProcs] Socket tables readable again"), 1u);
}

// A socket-diagnostics netlink socket with one hand-made datagram queued ahead of the kernel's own
// answer, sent from a second netlink socket of this process (needs CAP_NET_ADMIN).
class QueuedReply {
public:
    QueuedReply()
        : m_fd(socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG)),
          m_sender(socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG)) {
        sockaddr_nl self{};
        self.nl_family = AF_NETLINK;
        socklen_t length = sizeof(self);
        m_ok = m_fd >= 0 && m_sender >= 0 && bind(m_fd, reinterpret_cast<sockaddr*>(&self), length) == 0 &&
               getsockname(m_fd, reinterpret_cast<sockaddr*>(&m_address), &length) == 0;
    }
    ~QueuedReply() {
        close(m_fd);
        close(m_sender);
    }
    bool Queue(const void* data, std::size_t size) {
        return sendto(m_sender, data, size, 0, reinterpret_cast<const sockaddr*>(&m_address),
                      sizeof(m_address)) == static_cast<ssize_t>(size);
    }
    int m_fd;
    int m_sender;
    bool m_ok = false;
    sockaddr_nl m_address{};
};

TEST(SockDiagDumpTest, ErrorRepliesGiveADefinedResult) {
    QueuedReply reply;
    ASSERT_TRUE(reply.m_ok);
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
        } message{};
        message.header.nlmsg_len = sizeof(message);
        message.header.nlmsg_type = NLMSG_ERROR;
        message.header.nlmsg_seq = 7;
        message.body.error = c.code;
        if (!reply.Queue(&message, sizeof(message)) && errno == EPERM) {
            GTEST_SKIP() << "sending to a netlink socket of this process needs CAP_NET_ADMIN";
        }
        std::vector<Engine::NetProcsMessage::netProcInfo> sockets;
        std::string error;
        bool unsupported = !c.unsupported;
        EXPECT_FALSE(
            Engine::SockDiag::DumpSockets(reply.m_fd, AF_INET, IPPROTO_TCP, 7, sockets, error, unsupported));
        EXPECT_NE(error.find(c.text), std::string::npos) << error;
        EXPECT_EQ(unsupported, c.unsupported);
        // The kernel's own answer to the request is still queued: it is read whole and ends the dump.
        EXPECT_TRUE(
            Engine::SockDiag::DumpSockets(reply.m_fd, AF_INET, IPPROTO_TCP, 8, sockets, error, unsupported));
    }
}

}  // namespace
