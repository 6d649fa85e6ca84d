// What one captured packet and one policy delivery cost the host.
#include "IPUtil.h"
#include "PortScanPolicy.h"
#include "SocketUtil.h"
#include "sdk/LoggerUtils.h"

#include <Poco/Logger.h>
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// An Ethernet + IPv4 + TCP SYN frame, 10.0.0.5:40000 -> 10.0.0.1:port.
std::vector<char> MakeSynFrame(unsigned short port) {
    std::vector<char> frame(100, 0);
    frame[12] = 0x08;
    frame[14] = 0x45;
    frame[23] = 6;
    in_addr src{}, dst{};
    inet_pton(AF_INET, "10.0.0.5", &src);
    inet_pton(AF_INET, "10.0.0.1", &dst);
    std::memcpy(&frame[26], &src, 4);
    std::memcpy(&frame[30], &dst, 4);
    const unsigned short sport = htons(40000), dport = htons(port);
    std::memcpy(&frame[34], &sport, 2);
    std::memcpy(&frame[36], &dport, 2);
    frame[34 + 13] = 0x02;
    return frame;
}

std::string MakeTaskPolicy(int ports, const std::string& whiteList) {
    std::string list;
    for (int i = 0; i < ports; ++i) {
        list += (i ? "," : "") + std::string("{\"port\":") + std::to_string(1000 + i) + ",\"type\":2}";
    }
    return "{\"monitor_list\":[" + list + "],\"white_ip_list\":\"" + whiteList +
           "\",\"task_condition\":{},\"check_port_before_alarm\":true}";
}

// Benchmarks measure the work, not the log sink: keep the loggers above debug.
void QuietLogs() {
    SDK::LogSettings settings;
    settings.level = "error";
    settings.console = false;
    std::string error;
    SDK::LoggerUtils::GetInstance()->Configure(settings, error);
}

void BM_ParsePacket(benchmark::State& state) {
    QuietLogs();
    std::vector<char> frame = MakeSynFrame(8080);
    Engine::PacketNode node{};
    for (auto _ : state) {
        benchmark::DoNotOptimize(Engine::SocketUtil::ParsePacket(frame.data(), frame.size(), &node));
    }
}
BENCHMARK(BM_ParsePacket);

// The white-list test runs for every classified packet; its cost grows with the list.
void BM_IsWhiteIpList(benchmark::State& state) {
    QuietLogs();
    std::string text;
    for (int i = 0; i < state.range(0); ++i) {
        text += (i ? "," : "") + std::string("172.16.") + std::to_string(i % 250) + ".0/24";
    }
    std::vector<Engine::IP_RANGE> ranges;
    Engine::IPUtil::parse_ip_ranges(text.c_str(), ranges);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Engine::IPUtil::IsWhiteIpList("10.1.2.3", ranges));
    }
}
BENCHMARK(BM_IsWhiteIpList)->Arg(1)->Arg(16)->Arg(128);

// Each handled packet copies the policy's whole port set and walks it: up to 100 records.
void BM_PolicyRecordLookup(benchmark::State& state) {
    QuietLogs();
    Engine::PortScanTaskPolicy policy("port_scan_task");
    policy.Parse(MakeTaskPolicy(static_cast<int>(state.range(0)), ""));
    const uint32_t wanted = 1000 + static_cast<uint32_t>(state.range(0)) - 1;
    for (auto _ : state) {
        std::set<Engine::PortInfoNode> copy = policy.GetPolicyPortSet();
        const Engine::PortInfoNode* found = nullptr;
        for (const auto& node : copy) {
            if (node.port == wanted && node.type == 1) {
                found = &node;
                break;
            }
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_PolicyRecordLookup)->Arg(1)->Arg(10)->Arg(50);

void BM_ParseTaskPolicy(benchmark::State& state) {
    QuietLogs();
    const std::string text = MakeTaskPolicy(50, "10.0.0.0/8,192.168.1.1-192.168.1.9");
    for (auto _ : state) {
        Engine::PortScanTaskPolicy policy("port_scan_task");
        benchmark::DoNotOptimize(policy.Parse(text));
    }
}
BENCHMARK(BM_ParseTaskPolicy);

// A packet to a free watched port asks the kernel whether the port is in use: one netlink
// socket-diagnostics dump per packet.
void BM_SocketDiagQuery(benchmark::State& state) {
    QuietLogs();
    for (auto _ : state) {
        int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_SOCK_DIAG);
        int result = 2;
        if (fd >= 0 && Engine::SocketUtil::SendNetlinkMsgQuery(fd, 65000, 0, SOCK_DIAG_BY_FAMILY)) {
            Engine::SocketUtil::RecvNetLinkMsgQuery(fd, result, 0);
        }
        if (fd >= 0) {
            close(fd);
        }
        benchmark::DoNotOptimize(result);
    }
}
BENCHMARK(BM_SocketDiagQuery);

}  // namespace

BENCHMARK_MAIN();
