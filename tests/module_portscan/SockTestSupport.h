#pragma once

// Helpers shared by the socket-layer and address-utility tests: a log tap on the two loggers the
// code writes to, and a builder for Ethernet/IPv4/TCP/UDP/ICMP frames.

#include "PortScanModule.h"
#include "sdk/LoggerUtils.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace SockTest {

struct LoggedLine {
    std::string text;
    int priority;
    std::string file;
};

class CaptureChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(
            {msg.getText(), msg.getPriority(),
             msg.getSourceFile() == nullptr ? std::string() : std::string(msg.getSourceFile())});
    }
    std::vector<LoggedLine> Lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<LoggedLine> m_lines;
};

// Routes the root logger and the module logger into two capture channels at debug level for the
// lifetime of the object, and restores them afterwards.
class LogTap {
public:
    LogTap() : m_root(new CaptureChannel), m_module(new CaptureChannel) {
        SDK::LogSettings settings;
        settings.level = "debug";
        settings.console = false;
        std::string error;
        SDK::LoggerUtils::GetInstance()->Configure(settings, error);
        m_rootLogger = Engine::PortScan::GetRootLoggerPtr();
        m_moduleLogger = Engine::PortScan::GetLoggerPtr();
        Install(m_rootLogger, m_root, m_rootSaved, m_rootLevel);
        Install(m_moduleLogger, m_module, m_moduleSaved, m_moduleLevel);
    }
    ~LogTap() {
        if (m_rootLogger != nullptr) {
            m_rootLogger->setChannel(m_rootSaved);
            m_rootLogger->setLevel(m_rootLevel);
        }
        if (m_moduleLogger != nullptr) {
            m_moduleLogger->setChannel(m_moduleSaved);
            m_moduleLogger->setLevel(m_moduleLevel);
        }
    }
    LogTap(const LogTap&) = delete;
    LogTap& operator=(const LogTap&) = delete;

    bool Ready() const { return m_rootLogger != nullptr && m_moduleLogger != nullptr; }
    std::vector<LoggedLine> Root() { return m_root->Lines(); }
    std::vector<LoggedLine> Module() { return m_module->Lines(); }
    void Clear() {
        m_root->Clear();
        m_module->Clear();
    }
    static std::vector<std::string> Texts(const std::vector<LoggedLine>& lines) {
        std::vector<std::string> texts;
        for (const auto& line : lines) {
            texts.push_back(line.text);
        }
        return texts;
    }

private:
    static void Install(Poco::Logger* logger, const Poco::AutoPtr<CaptureChannel>& channel,
                        Poco::AutoPtr<Poco::Channel>& saved, int& level) {
        if (logger == nullptr) {
            return;
        }
        saved = logger->getChannel();
        level = logger->getLevel();
        logger->setChannel(channel);
        logger->setLevel(Poco::Message::PRIO_DEBUG);
    }

    Poco::AutoPtr<CaptureChannel> m_root;
    Poco::AutoPtr<CaptureChannel> m_module;
    Poco::Logger* m_rootLogger = nullptr;
    Poco::Logger* m_moduleLogger = nullptr;
    Poco::AutoPtr<Poco::Channel> m_rootSaved;
    Poco::AutoPtr<Poco::Channel> m_moduleSaved;
    int m_rootLevel = Poco::Message::PRIO_INFORMATION;
    int m_moduleLevel = Poco::Message::PRIO_INFORMATION;
};

// One frame as the capture socket sees it: Ethernet II, IPv4 (with `ihl` words of header, options
// filled with NOPs) and a TCP, UDP or ICMP header followed by `payload` bytes.
struct FrameFields {
    std::string src = "10.0.0.5";
    std::string dst = "10.0.0.1";
    uint8_t protocol = IPPROTO_TCP;
    uint16_t srcPort = 40000;
    uint16_t dstPort = 22;
    uint8_t tcpFlags = 0x02;
    uint8_t ihl = 5;
    uint16_t fragment = 0;  // flags and fragment offset, host order
    uint16_t id = 1;
    size_t payload = 0;
    uint16_t etherType = 0x0800;
    uint8_t dstMac[6] = {0x02, 0, 0, 0, 0, 0x01};
};

inline uint16_t Checksum(const uint8_t* data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2) {
        sum += static_cast<uint32_t>(data[i] << 8 | data[i + 1]);
    }
    if (length % 2 != 0) {
        sum += static_cast<uint32_t>(data[length - 1] << 8);
    }
    while (sum >> 16) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

inline std::vector<char> BuildFrame(const FrameFields& fields) {
    const size_t ipLength = 4u * fields.ihl;
    const size_t transportLength =
        fields.protocol == IPPROTO_TCP
            ? 20
            : (fields.protocol == IPPROTO_UDP || fields.protocol == IPPROTO_ICMP ? 8 : 0);
    std::vector<uint8_t> frame(14 + ipLength + transportLength + fields.payload, 0);
    memcpy(&frame[0], fields.dstMac, 6);
    const uint8_t srcMac[6] = {0x02, 0, 0, 0, 0, 0x02};
    memcpy(&frame[6], srcMac, 6);
    frame[12] = static_cast<uint8_t>(fields.etherType >> 8);
    frame[13] = static_cast<uint8_t>(fields.etherType & 0xff);

    uint8_t* ip = &frame[14];
    ip[0] = static_cast<uint8_t>(0x40 | (fields.ihl & 0x0f));
    const uint16_t total = static_cast<uint16_t>(ipLength + transportLength + fields.payload);
    ip[2] = static_cast<uint8_t>(total >> 8);
    ip[3] = static_cast<uint8_t>(total & 0xff);
    ip[4] = static_cast<uint8_t>(fields.id >> 8);
    ip[5] = static_cast<uint8_t>(fields.id & 0xff);
    ip[6] = static_cast<uint8_t>(fields.fragment >> 8);
    ip[7] = static_cast<uint8_t>(fields.fragment & 0xff);
    ip[8] = 64;
    ip[9] = fields.protocol;
    in_addr address;
    inet_pton(AF_INET, fields.src.c_str(), &address);
    memcpy(ip + 12, &address, 4);
    inet_pton(AF_INET, fields.dst.c_str(), &address);
    memcpy(ip + 16, &address, 4);
    for (size_t i = 20; i < ipLength; ++i) {
        ip[i] = 0x01;  // NOP option
    }
    const uint16_t checksum = Checksum(ip, ipLength);
    ip[10] = static_cast<uint8_t>(checksum >> 8);
    ip[11] = static_cast<uint8_t>(checksum & 0xff);

    uint8_t* transport = ip + ipLength;
    if (fields.protocol == IPPROTO_TCP || fields.protocol == IPPROTO_UDP) {
        transport[0] = static_cast<uint8_t>(fields.srcPort >> 8);
        transport[1] = static_cast<uint8_t>(fields.srcPort & 0xff);
        transport[2] = static_cast<uint8_t>(fields.dstPort >> 8);
        transport[3] = static_cast<uint8_t>(fields.dstPort & 0xff);
    }
    if (fields.protocol == IPPROTO_TCP) {
        transport[12] = 0x50;
        transport[13] = fields.tcpFlags;
        transport[14] = 0xff;  // window
    } else if (fields.protocol == IPPROTO_UDP) {
        const uint16_t udpLength = static_cast<uint16_t>(8 + fields.payload);
        transport[4] = static_cast<uint8_t>(udpLength >> 8);
        transport[5] = static_cast<uint8_t>(udpLength & 0xff);
    } else if (fields.protocol == IPPROTO_ICMP) {
        transport[0] = 8;  // echo request
    }
    return std::vector<char>(frame.begin(), frame.end());
}

inline unsigned int HostOrder(const char* dotted) {
    return ntohl(inet_addr(dotted));
}

}  // namespace SockTest
