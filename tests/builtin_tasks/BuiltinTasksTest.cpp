#include "EcsDocument.h"
#include "builtin_tasks/NetProcsFullTask.h"
#include "sdk/JsonUtils.h"
#include "support/LogCapture.h"
#include "support/NetLab.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <thread>
#include <tuple>
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
            ASSERT_TRUE(period == 0 || task.RefreshNow());
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

// Every kind of alarm's ECS document against the official field definitions (@elastic/ecs, test-only
// data), including the allowed event.kind, event.category and event.type values and pairs.
Json::Value Parse(const std::string& text) {
    Json::Value root;
    EXPECT_EQ(0, SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root)) << text;
    return root;
}

std::string Alarm(const char* classId, const char* name, const char* flag, const char* protocol,
                  const char* local, const char* remote) {
    return std::string(R"({"attack_phase":1,"attack_tag":1,"confidence":60,"detect_module":"portscan_module",
        "event_category":6000,"event_classid":")") +
           classId + R"(","event_count":1,"event_id":"8a0c4a5e-1b8f-4d4e-9a34-6e0f1c2d3b4a","event_name":")" +
           name + R"(","event_type":6002,"network_info":{"app_protocol":")" + flag +
           R"(","local_address":")" + local + R"(","local_port":3389,"protocol":")" + protocol +
           R"(","remote_address":")" + remote +
           R"(","remote_port":40000},"occur_time":1795258800,"severity":1})";
}

// The allowed value of `field` named `name`; null when there is none.
Json::Value Allowed(const Json::Value& field, const Json::Value& name) {
    const Json::Value& values = field["allowed_values"];
    const auto found = std::find_if(values.begin(), values.end(),
                                    [&](const Json::Value& value) { return value["name"] == name; });
    return found == values.end() ? Json::Value() : *found;
}

// Each field outside "hostagent" is defined in `flat`, an array exactly when defined so, a number
// exactly when of type long (the only numeric type the documents use). Addresses are copied as they
// came, and every date is written by one function, checked on the summary below.
void ExpectFields(const Json::Value& value, const std::string& path, const Json::Value& flat) {
    if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) {
            if (!path.empty() || key != "hostagent") {
                ExpectFields(value[key], path.empty() ? key : path + "." + key, flat);
            }
        }
        return;
    }
    ASSERT_TRUE(flat.isMember(path)) << path << " is not an ECS field";
    const Json::Value& normalize = flat[path]["normalize"];
    EXPECT_EQ(std::count(normalize.begin(), normalize.end(), "array"), value.isArray() ? 1 : 0) << path;
    const std::string type = flat[path]["type"].asString();
    const auto typed = [&](const Json::Value& one) {
        return type == "long" ? one.isIntegral() : one.isString();
    };
    EXPECT_TRUE(value.isArray() ? std::all_of(value.begin(), value.end(), typed) : typed(value))
        << path << " (" << type << "): " << value;
}

TEST(NetProcsFullTaskTest, ANetlinkSocketThatCannotBeMadeIsReportedOnceAndRecoveredFrom) {
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

TEST(EcsDocumentTest, EveryKindOfAlarmFollowsTheOfficialDefinitions) {
    const std::string flatText = TestSupport::ReadFile(ECS_FLAT_JSON);
    if (flatText.empty()) {
        GTEST_SKIP() << ECS_FLAT_JSON << " is missing: run scripts/install-test-data.sh";
    }
    const Json::Value flat = Parse(flatText);
    const Engine::EcsHost host{"web-1", "web-1", {"10.0.0.1", "fd00::1"}, "0.1.0"};
    // The native alarm, and its message, event.severity, network.transport and network.type.
    const std::tuple<std::string, const char*, int, const char*, const char*> cases[] = {
        {Alarm("portscan_0001", "Common port scan", "", "UDP", "10.0.0.1", "192.168.7.7"),
         "Port scan from 192.168.7.7: UDP probe to UDP 3389", 21, "udp", "ipv4"},
        {Alarm("portscan_0002", "Secret port scan", "SYN", "TCP", "fd00:79::1", "fd00:79::2"),
         "Port scan from fd00:79::2: SYN probe to TCP 3389", 47, "tcp", "ipv6"},
        {R"({"attack_phase":1,"attack_tag":1,"confidence":60,"detect_module":"portscan_module","event_category":6000,
            "event_classid":"portscan_0003","event_count":14,"event_id":"1b0c4a5e-1b8f-4d4e-9a34-6e0f1c2d3b4a",
            "event_name":"Port scan summary","event_type":6003,"network_info":{"local_address":"10.0.0.1",
            "protocol":"TCP","remote_address":"10.0.0.5"},"occur_time":1795258809,"scan_summary":{
            "first_probe_ms":1795258800123,"last_probe_ms":1795258809456,"ports":[21,22,23,25,80,110,135,139,443,
            445],"port_count":10,"probe_count":14,"probe_kinds":["SYN"],"protocols":["TCP"]},"severity":1})",
         "Port scan from 10.0.0.5: 10 port(s) of 10.0.0.1 (TCP), 14 probe(s)", 73, "tcp", "ipv4"},
    };
    Json::Value ecs;
    for (const auto& [native, message, severity, transport, networkType] : cases) {
        SCOPED_TRACE(message);
        ASSERT_TRUE(Engine::ToEcsDocument(Parse(native), host, ecs));
        ExpectFields(ecs, "", flat);
        EXPECT_FALSE(Allowed(flat["event.kind"], ecs["event"]["kind"]).isNull());
        for (const Json::Value& category : ecs["event"]["category"]) {
            const Json::Value allowed = Allowed(flat["event.category"], category);
            ASSERT_FALSE(allowed.isNull()) << category;
            const Json::Value& types = allowed["expected_event_types"];
            for (const Json::Value& type : ecs["event"]["type"]) {
                EXPECT_EQ(std::count(types.begin(), types.end(), type), 1) << type << " with " << category;
            }
        }
        EXPECT_EQ(ecs["message"].asString(), message);
        EXPECT_EQ(ecs["event"]["severity"].asInt(), severity);
        EXPECT_EQ(ecs["network"]["transport"].asString(), transport);
        EXPECT_EQ(ecs["network"]["type"].asString(), networkType);
        EXPECT_EQ(ecs["related"]["ip"].size(), 2u);
    }
    // The last is the summary.
    EXPECT_EQ(ecs["@timestamp"].asString(), "2026-11-21T11:00:09.456Z");
    EXPECT_EQ(ecs["event"]["start"].asString(), "2026-11-21T11:00:00.123Z");
    // Anything else is not converted: the sinks keep it as it came.
    EXPECT_FALSE(Engine::ToEcsDocument(Parse(R"({"marker": "x"})"), host, ecs));
}

}  // namespace
