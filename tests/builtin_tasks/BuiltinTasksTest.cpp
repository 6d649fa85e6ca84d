#include "builtin_tasks/DataCommReportTask.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "framework/Message.h"
#include "support/NetLab.h"
#include "support/TestEngine.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
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
    NetProcsFullTask task(60000);
    for (const auto& [type, protocol] : {std::pair{SOCK_STREAM, 0u}, {SOCK_DGRAM, 1u}}) {
        SCOPED_TRACE(protocol);
        auto sock = std::make_unique<LoopbackSocket>(type);
        ASSERT_TRUE(sock->m_ok);
        const long inode = sock->m_inode;
        NetProcsFullTask::CacheMap cache;
        ASSERT_TRUE(task.RefreshNow());
        task.GetNetCacheMap(cache);
        ASSERT_EQ(cache.count(inode), 1u);
        EXPECT_EQ(cache[inode]->protocol, protocol);
        EXPECT_EQ(cache[inode]->localPort, sock->m_port);
        EXPECT_EQ(cache[inode]->localAddress, "127.0.0.1");
        EXPECT_EQ(cache[inode]->pid, static_cast<int>(getpid()));
        sock.reset();
        ASSERT_TRUE(task.RefreshNow());
        task.GetNetCacheMap(cache);
        EXPECT_EQ(cache.count(inode), 0u);
    }
}

}  // namespace
