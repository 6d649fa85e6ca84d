// The frame parser, on an exact-length heap copy of the input (reads past it are caught by ASan)
// and on the capture loop's zero-padded 100-byte buffer, judged against a plain reading of the
// frame layout: ports, protocol, flag names, addresses, and what a refusal leaves untouched.
#include "FuzzSupport.h"
#include "PortScanModule.h"
#include "SocketUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

namespace {

constexpr std::size_t kCaptureBuffer = 100;
constexpr std::size_t kMinFrame = 42;

struct Expected {
    bool parsed;
    in_addr_t local, remote;
    uint16_t localPort, remotePort;
    int type;
    std::string flag;
    bool operator==(const Expected& o) const {
        return std::tie(parsed, local, remote, localPort, remotePort, type, flag) ==
               std::tie(o.parsed, o.local, o.remote, o.localPort, o.remotePort, o.type, o.flag);
    }
};

Expected Reference(const unsigned char* frame, std::size_t length) {
    using FuzzSupport::Load;
    // Refused, the record keeps what Judge put there, but for the addresses of a frame of another
    // protocol: those are written before the protocol is looked at.
    Expected e{false, 0, 0, 7, 7, 7, "before"};
    const int protocol = frame[23];
    const std::size_t t = 14 + 4 * (frame[14] & 0x0f);
    const std::size_t needed = protocol == IPPROTO_TCP ? 14 : 4;
    const bool known = protocol == IPPROTO_TCP || protocol == IPPROTO_UDP;
    if (known && t + needed > length) {
        return e;
    }
    e.local = Load<in_addr_t>(frame + 30), e.remote = Load<in_addr_t>(frame + 26);
    if (!known) {
        return e;
    }
    e.parsed = true;
    e.remotePort = ntohs(Load<uint16_t>(frame + t));
    e.localPort = ntohs(Load<uint16_t>(frame + t + 2));
    e.type = protocol == IPPROTO_TCP ? 0 : 1;
    e.flag.clear();
    if (protocol == IPPROTO_TCP) {
        static const std::pair<int, const char*> names[] = {
            {0x02, "SYN"}, {0x04, "RST"}, {0x08, "PSH"}, {0x10, "ACK"}, {0x20, "URG"}};
        for (const auto& [bit, name] : names) {
            if (frame[t + 13] & bit) {
                e.flag += (e.flag.empty() ? "" : ",") + std::string(name);
            }
        }
    }
    return e;
}

void Judge(char* frame, std::size_t length) {
    Engine::PacketNode node{{0}, 7, {0}, 7, 7, "before"};
    const bool parsed = Engine::SocketUtil::ParsePacket(frame, length, &node);
    const Expected want = Reference(reinterpret_cast<unsigned char*>(frame), length);
    const Expected got{parsed,         node.localAddress.s_addr, node.remoteAddress.s_addr,
                       node.localPort, node.remotePort,          node.type,
                       node.flag};
    FUZZ_CHECK(got == want, "length " + std::to_string(length) + ", flag \"" + node.flag + "\"");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzSupport::QuietLogs([] { Engine::PortScan::GetLoggerPtr(); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    // Shorter frames are refused after a deliberate one-second pause: nothing to learn there.
    if (size < kMinFrame) {
        return 0;
    }
    std::unique_ptr<char[]> exact(new char[size]);
    std::memcpy(exact.get(), data, size);
    Judge(exact.get(), size);
    if (size <= kCaptureBuffer) {
        char padded[kCaptureBuffer] = {};
        std::memcpy(padded, data, size);
        Judge(padded, kCaptureBuffer);
    }
    return 0;
}
