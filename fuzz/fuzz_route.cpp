// The route-dump reply reader, fed each input as one real datagram through a socket pair, judged
// against a plain walk over the same bytes: which messages count, what their attributes say, and
// where an interface without a name stops the walk.
#include "FuzzSupport.h"
#include "PortScanModule.h"
#include "SocketUtil.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <tuple>
#include <vector>

namespace {

constexpr std::size_t kReceiveBuffer = 8192;
int g_sockets[2] = {-1, -1};

std::vector<Engine::RouteTable> Reference(const uint8_t* data, std::size_t size) {
    // The reader looks at a route header even behind a short last message: zeroes there.
    std::vector<unsigned char> buffer(kReceiveBuffer + 12, 0);
    std::memcpy(buffer.data(), data, size);
    std::vector<Engine::RouteTable> routes;
    long left = static_cast<long>(size);
    std::size_t at = 0;
    while (left >= 16) {
        const uint32_t length = FuzzSupport::Load<uint32_t>(&buffer[at]);
        if (length < 16 || length > static_cast<unsigned long>(left)) {
            break;
        }
        const unsigned char family = buffer[at + 16];
        const unsigned char table = buffer[at + 20];
        if (!(family == AF_INET && table != RT_TABLE_MAIN)) {
            uint32_t words[9] = {};  // by attribute type; 0 when absent
            long attributeLeft = static_cast<long>(length) - 28;
            std::size_t a = at + 28;
            while (attributeLeft >= 4) {
                const uint16_t attributeLength = FuzzSupport::Load<uint16_t>(&buffer[a]);
                const uint16_t type = FuzzSupport::Load<uint16_t>(&buffer[a + 2]);
                if (attributeLength < 4 || attributeLength > attributeLeft) {
                    break;
                }
                if (type == RTA_DST || type == RTA_OIF || type == RTA_GATEWAY || type == RTA_METRICS) {
                    uint32_t word = 0;
                    std::memcpy(&word, &buffer[a + 4], std::min<std::size_t>(4, attributeLength - 4));
                    words[type] = word;
                }
                const long step = (attributeLength + 3) & ~3L;
                attributeLeft -= step;
                a += step;
            }
            Engine::RouteTable route;
            route.dstLen = buffer[at + 17];
            route.ifIndex = static_cast<int>(words[RTA_OIF]);
            route.metrics = static_cast<int>(words[RTA_METRICS]);
            route.dst = words[RTA_DST];
            route.gateway = words[RTA_GATEWAY];
            char name[IF_NAMESIZE] = {};
            if (if_indextoname(static_cast<unsigned int>(route.ifIndex), name) == nullptr) {
                break;
            }
            route.ifName = name;
            routes.push_back(route);
        }
        const long step = (length + 3) & ~3L;
        left -= step;
        at += step;
    }
    return routes;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs([] { Engine::PortScan::GetLoggerPtr(); });
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, g_sockets) != 0) {
        FuzzSupport::Fail("socketpair");
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    size = std::min(size, kReceiveBuffer);  // a longer datagram is cut to the reader's buffer anyway
    if (size == 0 || send(g_sockets[0], data, size, 0) != static_cast<ssize_t>(size)) {
        return 0;  // an empty datagram would not be told from nothing; a blocked reader helps nobody
    }
    sockaddr_nl peer{};
    std::vector<Engine::RouteTable> routes{Engine::RouteTable{}};  // records are appended
    FUZZ_CHECK(Engine::SocketUtil::RecvNetlinkMsg(g_sockets[1], &peer, routes), "result");
    const std::vector<Engine::RouteTable> expected = Reference(data, size);
    FUZZ_CHECK(routes.size() == expected.size() + 1,
               std::to_string(routes.size() - 1) + " routes, expected " + std::to_string(expected.size()));
    auto fields = [](const Engine::RouteTable& r) {
        return std::tie(r.dstLen, r.ifIndex, r.metrics, r.dst, r.gateway, r.ifName);
    };
    for (std::size_t i = 0; i < expected.size(); ++i) {
        FUZZ_CHECK(fields(routes[i + 1]) == fields(expected[i]), "route " + std::to_string(i));
    }
    return 0;
}
