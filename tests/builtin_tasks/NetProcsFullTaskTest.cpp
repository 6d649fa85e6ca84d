#include "builtin_tasks/NetProcsFullTask.h"

#include "TestEngine.h"
#include "framework/Engine.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

namespace BuiltinTasksTest {
namespace {

using Engine::NetProcsFullTask;
using Info = Engine::NetProcsMessage::netProcInfo;

constexpr unsigned int kTcp = 0;
constexpr unsigned int kUdp = 1;
constexpr unsigned int kTcpListen = 10;

// A socket of this process on a loopback address, bound to a port the kernel picks.
class LoopbackSocket {
public:
    LoopbackSocket(int family, int type) : m_family(family) {
        m_fd = socket(family, type, 0);
        if (m_fd < 0) {
            return;
        }
        sockaddr_storage address{};
        socklen_t length = Fill(address);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            (type == SOCK_STREAM && listen(m_fd, 4) != 0) ||
            getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            Close();
            return;
        }
        m_port = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in*>(&address)->sin_port
                                         : reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
        struct stat info {};
        fstat(m_fd, &info);
        m_inode = info.st_ino;
    }
    ~LoopbackSocket() { Close(); }

    bool Ok() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }
    unsigned short Port() const { return m_port; }
    unsigned long Inode() const { return m_inode; }
    void Close() {
        if (m_fd >= 0) {
            close(m_fd);
            m_fd = -1;
        }
    }

private:
    socklen_t Fill(sockaddr_storage& address) const {
        if (m_family == AF_INET) {
            auto* in = reinterpret_cast<sockaddr_in*>(&address);
            in->sin_family = AF_INET;
            in->sin_port = 0;
            in->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            return sizeof(sockaddr_in);
        }
        auto* in6 = reinterpret_cast<sockaddr_in6*>(&address);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = 0;
        in6->sin6_addr = in6addr_loopback;
        return sizeof(sockaddr_in6);
    }

    int m_family;
    int m_fd = -1;
    unsigned short m_port = 0;
    unsigned long m_inode = 0;
};

std::shared_ptr<Info> Lookup(NetProcsFullTask& task, unsigned long inode) {
    NetProcsFullTask::CacheMap cache;
    task.GetNetCacheMap(cache);
    auto found = cache.find(static_cast<long>(inode));
    return found == cache.end() ? nullptr : found->second;
}

struct SocketCase {
    const char* what;
    int family;
    int type;
    unsigned int protocol;
    const char* localAddress;
};

TEST(NetProcsFullTaskTest, CachesOwnLoopbackSocketsAndDropsThemOnceClosed) {
    const SocketCase cases[] = {
        {"TCP listener, IPv4", AF_INET, SOCK_STREAM, kTcp, "127.0.0.1"},
        {"UDP socket, IPv4", AF_INET, SOCK_DGRAM, kUdp, "127.0.0.1"},
        {"TCP listener, IPv6", AF_INET6, SOCK_STREAM, kTcp, "::1"},
        {"UDP socket, IPv6", AF_INET6, SOCK_DGRAM, kUdp, "::1"},
    };
    NetProcsFullTask task(60000);
    for (const SocketCase& c : cases) {
        SCOPED_TRACE(c.what);
        LoopbackSocket sock(c.family, c.type);
        if (!sock.Ok()) {
            ASSERT_EQ(c.family, AF_INET6) << "cannot open an IPv4 loopback socket";
            continue;  // no IPv6 on this host
        }
        ASSERT_TRUE(task.RefreshNow());
        std::shared_ptr<Info> info = Lookup(task, sock.Inode());
        ASSERT_NE(info, nullptr);
        EXPECT_EQ(info->protocol, c.protocol);
        EXPECT_EQ(info->localPort, sock.Port());
        EXPECT_EQ(info->localAddress, c.localAddress);
        EXPECT_EQ(info->inode, sock.Inode());
        EXPECT_EQ(info->pid, static_cast<int>(getpid()));
        EXPECT_FALSE(info->processName.empty());
        if (c.protocol == kTcp) {
            EXPECT_EQ(info->state, kTcpListen);
        }

        sock.Close();
        ASSERT_TRUE(task.RefreshNow());
        EXPECT_EQ(Lookup(task, sock.Inode()), nullptr);
        // A snapshot taken earlier keeps its records alive and unchanged.
        EXPECT_EQ(info->localPort, sock.Port());
    }
}

TEST(NetProcsFullTaskTest, RecordsThePeerOfAConnectedSocket) {
    LoopbackSocket listener(AF_INET, SOCK_STREAM);
    ASSERT_TRUE(listener.Ok());
    int client = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_port = htons(listener.Port());
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client, reinterpret_cast<sockaddr*>(&server), sizeof(server)), 0);
    struct stat clientInfo {};
    fstat(client, &clientInfo);

    NetProcsFullTask task(60000);
    ASSERT_TRUE(task.RefreshNow());
    std::shared_ptr<Info> info = Lookup(task, clientInfo.st_ino);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->remoteAddress, "127.0.0.1");
    EXPECT_EQ(info->remotePort, listener.Port());
    EXPECT_EQ(info->state, 1u);  // ESTABLISHED
    std::shared_ptr<Info> serverSide = Lookup(task, listener.Inode());
    ASSERT_NE(serverSide, nullptr);
    EXPECT_EQ(serverSide->remoteAddress, "0.0.0.0");
    EXPECT_EQ(serverSide->remotePort, 0u);
    close(client);
}

TEST(NetProcsFullTaskTest, RegisteredTaskIsFilledAtOnceAndRefreshesByItself) {
    LoopbackSocket before(AF_INET, SOCK_STREAM);
    ASSERT_TRUE(before.Ok());
    NetProcsFullTask* task = new NetProcsFullTask(100);
    ASSERT_TRUE(TestEngine().RegisterTask(task, false));
    EXPECT_NE(Lookup(*task, before.Inode()), nullptr) << "the cache was not filled at registration";

    LoopbackSocket after(AF_INET, SOCK_DGRAM);
    ASSERT_TRUE(after.Ok());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (Lookup(*task, after.Inode()) == nullptr && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_NE(Lookup(*task, after.Inode()), nullptr) << "the running task did not refresh";
    EXPECT_EQ(TestEngine().FindTask(NetProcsFullTask::kTaskName), task);

    EXPECT_TRUE(TestEngine().UnRegisterTask(NetProcsFullTask::kTaskName));
    task->release();
}

}  // namespace
}  // namespace BuiltinTasksTest
