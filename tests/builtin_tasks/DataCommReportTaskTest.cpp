#include "builtin_tasks/DataCommReportTask.h"

#include "TestEngine.h"
#include "framework/Engine.h"
#include "framework/Message.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace BuiltinTasksTest {
namespace {

using Engine::DataCommReportTask;
using Engine::ReportSink;

std::vector<std::string> ReadLines(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

ReportSink FileSink(const std::filesystem::path& path) {
    ReportSink sink;
    sink.kind = ReportSink::Kind::File;
    sink.path = path.string();
    return sink;
}

// Registers `task` with the test engine for the test's lifetime and owns it.
class RegisteredTask {
public:
    explicit RegisteredTask(DataCommReportTask* task) : m_task(task) {
        m_registered = TestEngine().RegisterTask(task, false);
    }
    ~RegisteredTask() {
        Unregister();
        m_task->release();
    }
    bool IsRegistered() const { return m_registered; }
    void Unregister() {
        if (m_registered) {
            TestEngine().UnRegisterTask(DataCommReportTask::kTaskName);
            m_registered = false;
        }
    }
    DataCommReportTask* operator->() const { return m_task; }

private:
    DataCommReportTask* m_task;
    bool m_registered = false;
};

struct EventCase {
    const char* what;
    std::string type;
    std::string body;
    std::optional<std::string> line;  // the expected output line; none when the message is dropped
};

TEST(DataCommReportTaskTest, WritesEachAlarmAsOneLineToEveryFileSink) {
    TempFolder folder;
    // The first file already has content (appended to), the second lives in folders yet to be made.
    std::filesystem::path first = folder.Path() / "alarms.jsonl";
    std::filesystem::path second = folder.Path() / "nested" / "deeper" / "alarms.jsonl";
    { std::ofstream(first) << "{\"earlier\":1}\n"; }

    const std::vector<EventCase> cases = {
        {"pretty JSON is compacted", "2", "{\n  \"event_id\": \"a\",\n  \"event_count\": 2\n}\n",
         std::string("{\"event_count\":2,\"event_id\":\"a\"}")},
        {"not JSON is kept, line breaks escaped", "2", "broken {\nbody", std::string("broken {\\nbody")},
        {"a JSON array is not an alarm object but is kept", "2", "[1,2]", std::string("[1,2]")},
        {"other types are dropped", "1", "{\"x\":1}", std::nullopt},
        {"nested values survive compaction", "2",
         "{\"network_info\": {\"port\": 8080, \"ip\": \"10.0.0.1\"}}",
         std::string("{\"network_info\":{\"ip\":\"10.0.0.1\",\"port\":8080}}")},
    };

    RegisteredTask task(new DataCommReportTask({FileSink(first), FileSink(second)}));
    ASSERT_TRUE(task.IsRegistered());
    for (const EventCase& c : cases) {
        ASSERT_TRUE(task->EnqueueMsg(new Framework::DataMessage(c.type, c.body))) << c.what;
    }
    task.Unregister();

    std::vector<std::string> expected;
    for (const EventCase& c : cases) {
        if (c.line) {
            expected.push_back(*c.line);
        }
    }
    EXPECT_EQ(task->GetReportedCount(), expected.size());
    EXPECT_EQ(ReadLines(second), expected);
    expected.insert(expected.begin(), "{\"earlier\":1}");
    EXPECT_EQ(ReadLines(first), expected);
}

TEST(DataCommReportTaskTest, DrainsEveryAcceptedAlarmWhenUnregistered) {
    // A small burst is usually still queued when the task is taken down, possibly before its
    // thread ever ran; a large one is taken down mid-way.
    for (int events : {1, 5, 3000}) {
        SCOPED_TRACE(std::to_string(events) + " event(s)");
        TempFolder folder;
        std::filesystem::path file = folder.Path() / "alarms.jsonl";
        RegisteredTask task(new DataCommReportTask({FileSink(file)}));
        ASSERT_TRUE(task.IsRegistered());
        int accepted = 0;
        for (int i = 0; i < events; ++i) {
            std::string body = "{\"seq\":" + std::to_string(i) + "}";
            accepted += task->EnqueueMsg(new Framework::DataMessage("2", body)) ? 1 : 0;
        }
        ASSERT_EQ(accepted, events);  // the queue holds more than this burst
        task.Unregister();

        std::vector<std::string> lines = ReadLines(file);
        ASSERT_EQ(lines.size(), static_cast<std::size_t>(events));
        for (int i = 0; i < events; ++i) {
            EXPECT_EQ(lines[i], "{\"seq\":" + std::to_string(i) + "}");
        }
    }
}

TEST(DataCommReportTaskTest, RefusesToStartWhenAFileSinkCannotBeOpened) {
    TempFolder folder;
    std::filesystem::path blocker = folder.Path() / "a-file";
    { std::ofstream(blocker) << "x"; }
    std::filesystem::path good = folder.Path() / "good.jsonl";

    // A path below a regular file cannot be created, even by root.
    RegisteredTask task(new DataCommReportTask({FileSink(good), FileSink(blocker / "alarms.jsonl")}));
    EXPECT_FALSE(task.IsRegistered());
    EXPECT_EQ(TestEngine().FindTask(DataCommReportTask::kTaskName), nullptr);

    // The same object starts once its sinks are fine.
    DataCommReportTask* fine = new DataCommReportTask({FileSink(good)});
    RegisteredTask second(fine);
    EXPECT_TRUE(second.IsRegistered());
}

TEST(DataCommReportTaskTest, HandleMsgReportsOnlyAlarms) {
    TempFolder folder;
    DataCommReportTask* task = new DataCommReportTask({FileSink(folder.Path() / "alarms.jsonl")});
    ASSERT_TRUE(task->Init());
    Framework::DataMessage alarm("2", "{}");
    Framework::DataMessage other("3", "{}");
    Framework::Message bodyless("2");
    EXPECT_TRUE(task->HandleMsg(&alarm));
    EXPECT_FALSE(task->HandleMsg(&other));
    EXPECT_FALSE(task->HandleMsg(&bodyless));
    EXPECT_FALSE(task->HandleMsg(nullptr));
    EXPECT_EQ(task->GetReportedCount(), 1u);
    task->UnInit();
    task->release();
    EXPECT_EQ(ReadLines(folder.Path() / "alarms.jsonl"), std::vector<std::string>{"{}"});
}

}  // namespace
}  // namespace BuiltinTasksTest
