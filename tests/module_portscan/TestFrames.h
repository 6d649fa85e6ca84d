// The frames the parsers, the kernel's filters and the collection task are fed; the module's log lines.
#pragma once

#include "PortScanModule.h"
#include "support/LogCapture.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

// IPv4 (`ihl` words) or, for a `src` with a colon, IPv6; TCP SYN or 8 bytes of ports; `size` 0: headers only.
inline std::string Frame(const char* src, const char* dst, int protocol, uint16_t dport,
                         uint16_t sport = 40000, size_t size = 0, uint16_t fragment = 0, int ihl = 5) {
    const bool v6 = strchr(src, ':') != nullptr;
    const size_t transport = v6 ? 54 : 14 + 4 * ihl, end = transport + (protocol == IPPROTO_TCP ? 20 : 8);
    std::string frame(std::max(size, transport + 20), '\0');
    auto put = [&frame](size_t at, unsigned value) {
        frame[at] = static_cast<char>(value >> 8), frame[at + 1] = static_cast<char>(value);
    };
    put(0, 0xffff), put(2, 0xffff), put(4, 0xffff), put(12, v6 ? 0x86dd : 0x0800);
    if (v6) {
        put(14, 0x6000), put(18, frame.size() - 54), put(20, protocol << 8 | 64);
    } else {
        put(14, (0x40 | ihl) << 8), put(16, frame.size() - 14), put(20, fragment), put(22, protocol);
    }
    EXPECT_EQ(1, inet_pton(v6 ? AF_INET6 : AF_INET, src, &frame[v6 ? 22 : 26])) << src;
    EXPECT_EQ(1, inet_pton(v6 ? AF_INET6 : AF_INET, dst, &frame[v6 ? 38 : 30])) << dst;
    put(transport, sport), put(transport + 2, dport), put(transport + 12, 0x5002);
    frame.resize(size == 0 ? end : size);
    return frame;
}

// Fetching the module's logger attaches it to the common channel again: do so before capturing.
inline TestSupport::RecordingChannel& ModuleLogs(const std::string& level = "debug") {
    TestSupport::CaptureLogs({"portscan_module"}, level);
    Engine::PortScan::GetLoggerPtr();
    return TestSupport::CaptureLogs({"portscan_module"}, level);
}
