// The frame parser, on an exact-length heap copy of the input (reads past it are caught by ASan)
// and on the capture loop's zero-padded 100-byte buffer, judged against a plain reading of the
// frame layout.
#include "FuzzSupport.h"
#include "PortScanModule.h"
#include "SocketUtil.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr std::size_t kCaptureBuffer = 100;
constexpr std::size_t kMinFrame = 42;

struct Expected {
    bool parsed;
    uint16_t localPort, remotePort;
    int type;
    std::string flag;
};

uint16_t Port(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

Expected Reference(const unsigned char* frame, std::size_t length) {
    Expected e{false, 0, 0, 0, ""};
    const int protocol = frame[23];
    const std::size_t t = 14 + 4 * (frame[14] & 0x0f);
    const std::size_t needed = protocol == IPPROTO_TCP ? 14 : 4;
    if ((protocol != IPPROTO_TCP && protocol != IPPROTO_UDP) || t + needed > length) {
        return e;
    }
    e.parsed = true;
    e.remotePort = Port(frame + t);
    e.localPort = Port(frame + t + 2);
    e.type = protocol == IPPROTO_TCP ? 0 : 1;
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
    const Expected expected = Reference(reinterpret_cast<unsigned char*>(frame), length);
    Engine::PacketNode node{{0}, 7, {0}, 7, 7, "before"};
    const bool parsed = Engine::SocketUtil::ParsePacket(frame, length, &node);
    const std::string where = "length " + std::to_string(length);
    FUZZ_CHECK(parsed == expected.parsed, where);
    if (!parsed) {
        FUZZ_CHECK(node.localPort == 7 && node.remotePort == 7 && node.type == 7 && node.flag == "before",
                   where);
        return;
    }
    in_addr local, remote;
    std::memcpy(&local, frame + 30, 4);
    std::memcpy(&remote, frame + 26, 4);
    FUZZ_CHECK(node.localAddress.s_addr == local.s_addr && node.remoteAddress.s_addr == remote.s_addr, where);
    FUZZ_CHECK(node.localPort == expected.localPort && node.remotePort == expected.remotePort, where);
    FUZZ_CHECK(node.type == expected.type, where);
    FUZZ_CHECK(node.flag == expected.flag, where + ": \"" + node.flag + "\" vs \"" + expected.flag + "\"");
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
