#include "SocketUtil.h"

#include "IPUtil.h"
#include "PortScanModule.h"
#include "sdk/SafeC.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/inet_diag.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace Engine {

namespace {

// Immediate attempts for socket creation, binding and interrupted netlink calls.
constexpr int kRetryTimes = 10;
// Classic BPF jump offsets are one byte wide: no jump reaches further than this.
constexpr size_t kMaxJumpOffset = 255;
// "reportable_sources_only": instructions of the IPv4 source-range tests (three masks and compares).
constexpr size_t kSourceRangeTestLength = 8;
// The private IPv4 ranges the module reports, as (network, mask), in the order they are tested.
constexpr uint32_t kReportableRanges[][2] = {
    {0x0a000000, 0xff000000}, {0xac100000, 0xfff00000}, {0xc0a80000, 0xffff0000}};
// Bytes of an admitted frame that the filter keeps: Ethernet, IPv4 and TCP/UDP headers.
constexpr unsigned int kSnapLength = 60;
// Upper bound of frames that one ClearSocketBuff call discards.
constexpr int kMaxClearedFrames = 301;
// Shortest frame the parser reads: Ethernet (14), minimal IPv4 (20) and UDP (8) headers.
constexpr unsigned long kMinFrameLength = 42;
// Receive buffers of the two netlink conversations.
constexpr size_t kNetlinkBufferSize = 8192;

// Frame offsets (Ethernet header included).
constexpr size_t kIhlOffset = 14;
// Bytes read behind the start of the transport header: both ports, and for TCP up to its flag byte.
constexpr size_t kPortBytes = 4;
constexpr size_t kTcpBytesRead = 14;
constexpr size_t kProtocolOffset = 23;
constexpr size_t kSourceOffset = 26;
constexpr size_t kDestinationOffset = 30;

sock_filter Statement(uint16_t code, uint32_t constant) {
    return sock_filter{code, 0, 0, constant};
}

// Offsets are stored in the 8 bits that classic BPF has for them; the caller keeps them in range.
sock_filter Jump(uint16_t code, uint32_t constant, size_t jumpTrue, size_t jumpFalse) {
    return sock_filter{code, static_cast<uint8_t>(jumpTrue), static_cast<uint8_t>(jumpFalse), constant};
}

uint16_t ReadPort(const char* at) {
    uint16_t value = 0;
    memcpy(&value, at, sizeof(value));
    return ntohs(value);
}

// The first 32-bit word of a route attribute; a shorter payload reads as far as it goes.
unsigned int FirstWord(const rtattr* attribute) {
    unsigned int word = 0;
    size_t available = RTA_PAYLOAD(attribute);
    memcpy(&word, RTA_DATA(attribute), available < sizeof(word) ? available : sizeof(word));
    return word;
}

// A message header naming the netlink peer `address`, over the one buffer `vector`.
msghdr NetlinkMessage(sockaddr_nl* address, iovec* vector) {
    msghdr message;
    memset_s(&message, sizeof(message), 0, sizeof(message));
    message.msg_name = address;
    message.msg_namelen = sizeof(sockaddr_nl);
    message.msg_iov = vector;
    message.msg_iovlen = 1;
    return message;
}

}  // namespace

namespace {

// A packet socket for frames of `etherType` (ten immediate attempts); `fd` gets the descriptor or -1.
void CreatePacketSocket(int& fd, uint16_t etherType) {
    for (int left = kRetryTimes; left > 0; --left) {
        fd = socket(AF_PACKET, SOCK_RAW, htons(etherType));
        if (fd >= 0) {
            return;
        }
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] CreateSocket return ERR! Retry (%d) times", left);
    }
}

}  // namespace

void SocketUtil::CreateRawSocket(int& fd) {
    CreatePacketSocket(fd, ETH_P_IP);
}

int SocketUtil::BindPort(int fd, std::string interfaceName) {
    sockaddr_ll address;
    memset_s(&address, sizeof(address), 0, sizeof(address));
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interfaceName.c_str()));

    int result = -1;
    for (int left = kRetryTimes; left > 0; --left) {
        result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        if (result >= 0) {
            break;
        }
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] BindPort return ERR! Retry (%d) times", left);
    }
    return result;
}

std::size_t SocketUtil::MaxFilterPorts(std::size_t addressCount, bool reportableSourcesOnly) {
    // The address tests, the header checks and the source ranges' tests.
    const std::size_t fixed = 2 * addressCount + 10 + (reportableSourcesOnly ? kSourceRangeTestLength : 0);
    return fixed >= kMaxJumpOffset ? 0 : kMaxJumpOffset - fixed;
}

bool SocketUtil::LoadPortBpfRules(int fd, std::vector<long> ports, bool reportableSourcesOnly) {
    std::vector<unsigned int> addresses;
    if (!IPUtil::GetLocalhostIp(addresses)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Can not get local ip list.");
        return false;
    }

    const size_t n = addresses.size();
    const size_t p = ports.size();
    // Past this bound the longest jumps would wrap and the program would admit or drop the wrong
    // frames, so no program is attached at all.
    const size_t s = reportableSourcesOnly ? kSourceRangeTestLength : 0;
    if (p > MaxFilterPorts(n, reportableSourcesOnly) || 2 * n + 10 + s > kMaxJumpOffset) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR,
                     "[SocketUtil] Too many ports or addresses for the filter (ports %z, addresses %z)", p,
                     n);
        return false;
    }

    std::vector<sock_filter> program;
    // `s` is 0 without the source-range tests: every offset is then the one the layout has always had.
    program.reserve(2 * n + p + 13 + s);
    program.push_back(Statement(BPF_LD | BPF_H | BPF_ABS, 12));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, p + 2 * n + 10 + s));
    program.push_back(Statement(BPF_LD | BPF_B | BPF_ABS, 23));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_TCP, 1, 0));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, p + 2 * n + 7 + s));
    program.push_back(Statement(BPF_LD | BPF_H | BPF_ABS, 20));
    program.push_back(Jump(BPF_JMP | BPF_JSET | BPF_K, 0x1fff, p + 2 * n + 5 + s, 0));
    program.push_back(Statement(BPF_LDX | BPF_B | BPF_MSH, 14));

    // Destination must be local: a hit jumps past the remaining tests to the source load.
    program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, 30));
    for (size_t i = 0; i < n; ++i) {
        size_t jumpFalse = (i + 1 == n) ? n + p + 3 + s : 0;
        program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, addresses[i], n - 1 - i, jumpFalse));
    }
    // Source must not be local: a hit drops.
    program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, 26));
    for (size_t i = 0; i < n; ++i) {
        program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, addresses[i], n + p + 1 - i + s, 0));
    }
    if (reportableSourcesOnly) {
        // The source (still in A) must be in a range the module reports: a hit jumps to the port load.
        for (size_t r = 0; r < std::size(kReportableRanges); ++r) {
            if (r > 0) {
                program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, 26));
            }
            program.push_back(Statement(BPF_ALU | BPF_AND | BPF_K, kReportableRanges[r][1]));
            const bool last = r + 1 == std::size(kReportableRanges);
            program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, kReportableRanges[r][0], last ? 0 : 3 * (2 - r),
                                   last ? p + 2 : 0));
        }
    }
    // Destination port must be watched: a hit jumps to the accept.
    program.push_back(Statement(BPF_LD | BPF_H | BPF_IND, 16));
    for (size_t j = 0; j < p; ++j) {
        size_t jumpFalse = (j + 1 == p) ? 1 : 0;
        program.push_back(
            Jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(ports[j]), p - 1 - j, jumpFalse));
    }
    program.push_back(Statement(BPF_RET | BPF_K, kSnapLength));
    program.push_back(Statement(BPF_RET | BPF_K, 0));

    sock_fprog filter;
    filter.len = static_cast<unsigned short>(program.size());
    filter.filter = program.data();
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) != 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Cant set filter");
        return false;
    }
    return true;
}

void SocketUtil::ClearSocketBuff(int fd) {
    pollfd entry;
    entry.fd = fd;
    entry.events = POLLIN;
    entry.revents = 0;
    char buffer[1000];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    for (int i = 0; i < kMaxClearedFrames; ++i) {
        if (poll(&entry, 1, 0) <= 0) {
            break;
        }
        // A one-byte read takes a whole frame off a packet socket.
        (void)recv(fd, buffer, 1, 0);
    }
}

bool SocketUtil::ParsePacket(char* frame, unsigned long length, PacketNode* node) {
    if (length < kMinFrameLength) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Incomplete header, packet corrupt.");
        return false;
    }

    const unsigned char protocol = static_cast<unsigned char>(frame[kProtocolOffset]);
    const size_t transport = kIhlOffset + 4 * (static_cast<unsigned char>(frame[kIhlOffset]) & 0x0f);
    // IP options can push the transport header past a short frame: refuse it rather than read
    // beyond `length` (the capture loop's 100-byte buffer always holds the furthest read, at 88).
    const size_t transportBytesRead = protocol == IPPROTO_TCP ? kTcpBytesRead : kPortBytes;
    if ((protocol == IPPROTO_TCP || protocol == IPPROTO_UDP) && transport + transportBytesRead > length) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Incomplete header, packet corrupt.");
        return false;
    }

    memcpy(&node->localAddress, frame + kDestinationOffset, sizeof(node->localAddress));
    memcpy(&node->remoteAddress, frame + kSourceOffset, sizeof(node->remoteAddress));
    if (protocol == IPPROTO_TCP) {
        node->localPort = ReadPort(frame + transport + 2);
        node->remotePort = ReadPort(frame + transport);
        node->type = 0;
        // Copy the 14 header bytes the flag text needs: the frame gives no alignment for tcphdr.
        tcphdr header;
        memset_s(&header, sizeof(header), 0, sizeof(header));
        memcpy(&header, frame + transport, kTcpBytesRead);
        node->flag = GetTcpFlag(&header);
    } else if (protocol == IPPROTO_UDP) {
        node->localPort = ReadPort(frame + transport + 2);
        node->remotePort = ReadPort(frame + transport);
        node->type = 1;
        node->flag.clear();
    } else {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Get unknown protocol packet.");
        return false;
    }

    Poco::Logger* logger = PortScan::GetRootLoggerPtr();
    if (logger != nullptr && logger->is(Poco::Message::PRIO_DEBUG)) {
        std::string local = inet_ntoa(node->localAddress);
        std::string remote = inet_ntoa(node->remoteAddress);
        PORTSCAN_ROOT_LOG(
            Poco::Message::PRIO_DEBUG,
            "[SocketUtil] GET PACKET localAddress %s, RemoteAddress %s, LocalPort %d, RemotePort "
            "%d, type %d, flag is [%s]",
            local, remote, static_cast<int>(node->localPort), static_cast<int>(node->remotePort), node->type,
            node->flag);
    }
    return true;
}

std::string SocketUtil::GetTcpFlag(const tcphdr* header) {
    // Read as bytes: callers may hand in a header at any alignment.
    const unsigned char flags = reinterpret_cast<const unsigned char*>(header)[13];
    std::string text;
    if (flags & 0x02) {
        text += ",SYN";
    }
    if (flags & 0x04) {
        text += ",RST";
    }
    if (flags & 0x08) {
        text += ",PSH";
    }
    if (flags & 0x10) {
        text += ",ACK";
    }
    if (flags & 0x20) {
        text += ",URG";
    }
    if (!text.empty()) {
        text.erase(0, 1);
    }
    return text;
}

int SocketUtil::SendNetlinkMsg(int fd, sockaddr_nl* address) {
    struct {
        nlmsghdr header;
        rtgenmsg message;
    } request;
    memset_s(&request, sizeof(request), 0, sizeof(request));
    memset_s(address, sizeof(sockaddr_nl), 0, sizeof(sockaddr_nl));
    address->nl_family = AF_NETLINK;
    address->nl_pid = 0;
    address->nl_groups = 0;

    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtgenmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
    request.header.nlmsg_seq = 1;
    request.header.nlmsg_pid = static_cast<__u32>(getpid());
    request.message.rtgen_family = AF_INET;

    iovec vector;
    vector.iov_base = &request;
    vector.iov_len = request.header.nlmsg_len;
    msghdr message = NetlinkMessage(address, &vector);
    return static_cast<int>(sendmsg(fd, &message, 0));
}

bool SocketUtil::RecvNetlinkMsg(int fd, sockaddr_nl* address, std::vector<RouteTable>& table) {
    // Zeroed tail behind the receive area: a short last message still has a route header to read.
    alignas(nlmsghdr) char buffer[kNetlinkBufferSize + sizeof(rtmsg)];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    iovec vector;
    vector.iov_base = buffer;
    vector.iov_len = kNetlinkBufferSize;
    msghdr message = NetlinkMessage(address, &vector);

    // A failed receive walks the zeroed buffer, whose first length field ends the walk at once.
    ssize_t received = recvmsg(fd, &message, 0);
    long remaining = received > 0 ? static_cast<long>(received) : 0;

    const nlmsghdr* header = reinterpret_cast<const nlmsghdr*>(buffer);
    while (remaining >= static_cast<long>(sizeof(nlmsghdr)) && header->nlmsg_len >= sizeof(nlmsghdr) &&
           header->nlmsg_len <= static_cast<unsigned long>(remaining)) {
        char dstText[24];
        char oifText[16];
        char gatewayText[24];
        char metricsText[24];
        char dstLenText[16];
        memset_s(dstText, sizeof(dstText), 0, sizeof(dstText));
        memset_s(oifText, sizeof(oifText), 0, sizeof(oifText));
        memset_s(gatewayText, sizeof(gatewayText), 0, sizeof(gatewayText));
        memset_s(metricsText, sizeof(metricsText), 0, sizeof(metricsText));
        memset_s(dstLenText, sizeof(dstLenText), 0, sizeof(dstLenText));

        const rtmsg* route = reinterpret_cast<const rtmsg*>(NLMSG_DATA(header));
        const unsigned int step = NLMSG_ALIGN(header->nlmsg_len);
        if (!(route->rtm_family == AF_INET && route->rtm_table != RT_TABLE_MAIN)) {
            int attributeLength =
                static_cast<int>(header->nlmsg_len) - static_cast<int>(NLMSG_LENGTH(sizeof(rtmsg)));
            const rtattr* attribute = reinterpret_cast<const rtattr*>(reinterpret_cast<const char*>(header) +
                                                                      NLMSG_LENGTH(sizeof(rtmsg)));
            for (; RTA_OK(attribute, attributeLength); attribute = RTA_NEXT(attribute, attributeLength)) {
                switch (attribute->rta_type) {
                    case RTA_DST:
                        snprintf_s(dstText, sizeof(dstText), "%u", FirstWord(attribute));
                        break;
                    case RTA_OIF:
                        snprintf_s(oifText, sizeof(oifText), "%u", FirstWord(attribute));
                        break;
                    case RTA_GATEWAY:
                        snprintf_s(gatewayText, sizeof(gatewayText), "%u", FirstWord(attribute));
                        break;
                    case RTA_METRICS:
                        snprintf_s(metricsText, sizeof(metricsText), "%u", FirstWord(attribute));
                        break;
                    default:
                        break;
                }
            }
            snprintf_s(dstLenText, sizeof(dstLenText), "%d", static_cast<int>(route->rtm_dst_len));

            RouteTable record;
            record.dst = static_cast<unsigned int>(strtol(dstText, nullptr, 10));
            record.dstLen = static_cast<int>(strtol(dstLenText, nullptr, 10));
            record.gateway = static_cast<unsigned int>(strtol(gatewayText, nullptr, 10));
            record.ifIndex = static_cast<int>(strtol(oifText, nullptr, 10));
            record.metrics = static_cast<int>(strtol(metricsText, nullptr, 10));

            char name[IF_NAMESIZE];
            memset_s(name, sizeof(name), 0, sizeof(name));
            if (if_indextoname(static_cast<unsigned int>(record.ifIndex), name) == nullptr) {
                PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Do action (%s) fail!",
                             std::string("GetInterfaceName"));
                break;
            }
            record.ifName = name;
            table.push_back(record);
        }
        remaining -= static_cast<long>(step);
        header = reinterpret_cast<const nlmsghdr*>(reinterpret_cast<const char*>(header) + step);
    }
    return true;
}

bool SocketUtil::SendNetlinkMsgQuery(int sockfd, unsigned short port, int protocol, int msgType) {
    return SendNetlinkMsgQuery(sockfd, port, protocol, msgType, AF_INET);
}

bool SocketUtil::SendNetlinkMsgQuery(int sockfd, unsigned short port, int protocol, int msgType, int family) {
    sockaddr_nl destination;
    memset_s(&destination, sizeof(destination), 0, sizeof(destination));
    destination.nl_family = AF_NETLINK;

    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message;
    memset_s(&message, sizeof(message), 0, sizeof(message));
    message.header.nlmsg_len = sizeof(message);
    message.header.nlmsg_type = static_cast<__u16>(msgType);
    message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ROOT | NLM_F_MATCH;
    message.request.sdiag_family = static_cast<__u8>(family);
    message.request.sdiag_protocol = (protocol == 1) ? IPPROTO_UDP : IPPROTO_TCP;
    // Every state except bit 13 (TCP_BOUND_INACTIVE), for either family: with that bit set the
    // kernel answers with every merely bound socket whatever its port, so one such socket would make
    // every watched port look taken and hide the scans on them.
    message.request.idiag_states = 0xFFFFDFFF;
    message.request.id.idiag_sport = htons(port);

    iovec vector;
    vector.iov_base = &message;
    vector.iov_len = sizeof(message);
    msghdr header = NetlinkMessage(&destination, &vector);

    for (int attempt = 0; attempt < kRetryTimes; ++attempt) {
        if (sendmsg(sockfd, &header, 0) >= 0) {
            return true;
        }
        if (errno != EINTR) {
            PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Send netlink msg err!");
            return false;
        }
    }
    return false;
}

bool SocketUtil::RecvNetLinkMsgQuery(int sockfd, int& result, int /*protocol*/) {
    result = 1;
    alignas(nlmsghdr) char buffer[kNetlinkBufferSize];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    sockaddr_nl source;
    memset_s(&source, sizeof(source), 0, sizeof(source));
    source.nl_family = AF_NETLINK;
    iovec vector;
    vector.iov_base = buffer;
    vector.iov_len = sizeof(buffer);
    msghdr header = NetlinkMessage(&source, &vector);

    for (int attempt = 0; attempt < kRetryTimes; ++attempt) {
        ssize_t count = recvmsg(sockfd, &header, 0);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Error in Recv msg in check port");
            return false;
        }
        if (count == 0) {
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Nothing return in check port");
            return false;
        }
        return CheckHeader(reinterpret_cast<const nlmsghdr*>(buffer), static_cast<int>(count), result);
    }
    // Interrupted every time: counted as an answer that found no socket.
    return true;
}

bool SocketUtil::CheckHeader(const nlmsghdr* header, int length, int& result) {
    const unsigned int received = static_cast<unsigned int>(length);
    if (header == nullptr || received <= 15 || header->nlmsg_len <= 15 || received < header->nlmsg_len) {
        PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[-] Nothing return in check port");
        return false;
    }
    switch (header->nlmsg_type) {
        case NLMSG_DONE:
            return true;
        case NLMSG_ERROR:
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[-] NLSMG ERROR");
            return false;
        case SOCK_DIAG_BY_FAMILY:
            result = 0;
            return true;
        default:
            PORTSCAN_LOG(Poco::Message::PRIO_DEBUG, "[-] Unexpected Type");
            return false;
    }
}

// ---------------------------------------------------------------------------------------------
// Dual-stack occupancy and address changes

namespace {

// Batches read for one dual-stack query: a port held by more sockets than fit is a port in use.
constexpr int kMaxDualStackBatches = 64;

// NLMSG_OK without its comparison of a signed with an unsigned length.
bool MessageFits(const nlmsghdr* header, int left) {
    return left >= static_cast<int>(sizeof(nlmsghdr)) && header->nlmsg_len >= sizeof(nlmsghdr) &&
           header->nlmsg_len <= static_cast<unsigned>(left);
}

bool TakesIpv4(const inet_diag_msg& record, int length) {
    const auto* address = reinterpret_cast<const in6_addr*>(record.id.idiag_src);
    if (!IN6_IS_ADDR_UNSPECIFIED(address) && !IN6_IS_ADDR_V4MAPPED(address)) {
        return false;  // bound to one IPv6 address: IPv4 never reaches it
    }
    const rtattr* attribute = reinterpret_cast<const rtattr*>(&record + 1);
    int left = length - static_cast<int>(NLMSG_LENGTH(sizeof(inet_diag_msg)));
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == INET_DIAG_SKV6ONLY && RTA_PAYLOAD(attribute) >= 1) {
            return *static_cast<const uint8_t*>(RTA_DATA(attribute)) == 0;
        }
    }
    return true;
}

}  // namespace

int SocketUtil::ScanDualStackReply(const char* data, std::size_t length, bool& found) {
    int left = static_cast<int>(length);
    for (const auto* header = reinterpret_cast<const nlmsghdr*>(data); MessageFits(header, left);
         header = NLMSG_NEXT(header, left)) {
        if (header->nlmsg_type == NLMSG_DONE) {
            return 0;
        }
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
            header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) {
            return -1;
        }
        const auto* record = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
        if (record->idiag_family == AF_INET6 && TakesIpv4(*record, static_cast<int>(header->nlmsg_len))) {
            found = true;
        }
    }
    return left == 0 ? 1 : -1;
}

bool SocketUtil::QueryDualStackPort(unsigned short port, int protocol, int& result) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Create Netlink sock err!");
        return false;
    }
    bool answered = SendNetlinkMsgQuery(fd, port, protocol, SOCK_DIAG_BY_FAMILY, AF_INET6);
    bool found = false;
    int more = answered ? 1 : -1;
    alignas(nlmsghdr) char buffer[kNetlinkBufferSize];
    for (int batch = 0; more == 1 && batch < kMaxDualStackBatches; ++batch) {
        const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        more = count <= 0 ? -1 : ScanDualStackReply(buffer, static_cast<std::size_t>(count), found);
    }
    close(fd);
    answered = found || more == 0;
    result = found ? 0 : 1;
    return answered;
}

int SocketUtil::OpenAddressWatch() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Create address watch socket err!");
        return -1;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[PortScan] Bind address watch socket err!");
        close(fd);
        return -1;
    }
    return fd;
}

bool SocketUtil::TakeAddressChanges(int fd) {
    bool changed = false;
    alignas(nlmsghdr) char buffer[kNetlinkBufferSize];
    for (;;) {
        const ssize_t count = recv(fd, buffer, sizeof(buffer), 0);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            // ENOBUFS: notices were lost, so an address may have changed unseen.
            return changed || errno == ENOBUFS;
        }
        if (count == 0) {
            return changed;
        }
        int left = static_cast<int>(count);
        for (const auto* header = reinterpret_cast<const nlmsghdr*>(buffer); MessageFits(header, left);
             header = NLMSG_NEXT(header, left)) {
            changed = changed || header->nlmsg_type == RTM_NEWADDR || header->nlmsg_type == RTM_DELADDR;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// IPv6 capture

namespace {

// Frame offsets (Ethernet header included) of the fixed IPv6 header and the transport header that
// directly follows it.
constexpr uint32_t kIp6VersionOffset = 14;
constexpr uint32_t kIp6NextHeaderOffset = 20;
constexpr uint32_t kIp6SourceOffset = 22;
constexpr uint32_t kIp6DestinationOffset = 38;
constexpr uint32_t kIp6TransportOffset = 54;
// Bytes an admitted IPv6 frame keeps: Ethernet, fixed IPv6 and minimal TCP headers.
constexpr unsigned int kSnapLength6 = kIp6TransportOffset + 20;
// Shortest frames the IPv6 parser reads: up to the end of the UDP / minimal TCP header.
constexpr unsigned long kMinUdpFrame6 = kIp6TransportOffset + 8;
constexpr unsigned long kMinTcpFrame6 = kIp6TransportOffset + 20;
// Instructions of one address test: four word loads and compares, and the action on a match.
constexpr size_t kAddressTestLength = 9;
// "reportable_sources_only": instructions of the IPv6 source-range tests.
constexpr size_t kSourceRangeTestLength6 = 7;

// Word `index` (0..3) of `address` as a BPF word load sees it in the frame.
uint32_t AddressWord(const in6_addr& address, size_t index) {
    const uint8_t* bytes = &address.s6_addr[4 * index];
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

// Compares the 16 bytes at `offset` with `address`: on a match the test's last instruction,
// `onMatch`, runs; any other word goes on to the instruction after the test.
void AppendAddressTest(std::vector<sock_filter>& program, uint32_t offset, const in6_addr& address,
                       const sock_filter& onMatch) {
    for (size_t word = 0; word < 4; ++word) {
        program.push_back(Statement(BPF_LD | BPF_W | BPF_ABS, offset + 4 * static_cast<uint32_t>(word)));
        // Past the remaining loads and compares and the action.
        program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, AddressWord(address, word), 0, 7 - 2 * word));
    }
    program.push_back(onMatch);
}

}  // namespace

void SocketUtil::CreateRawSocket6(int& fd) {
    CreatePacketSocket(fd, ETH_P_IPV6);
}

bool SocketUtil::BuildPort6BpfProgram(const std::vector<in6_addr>& addresses, const std::vector<long>& ports,
                                      std::vector<sock_filter>& program, bool reportableSourcesOnly) {
    program.clear();
    const size_t n = addresses.size();
    const size_t p = ports.size();
    // The port tests jump to the shared accept, the only offsets that grow with a list; the address
    // tests jump only within their own nine instructions or with the 32-bit constant of BPF_JA.
    const size_t length =
        18 * n + p + (p == 0 ? 10 : 11) + (reportableSourcesOnly ? kSourceRangeTestLength6 : 0);
    if ((p > 0 && p - 1 > kMaxJumpOffset) || length > BPF_MAXINSNS) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR,
                     "[SocketUtil] Too many ports or addresses for the IPv6 filter (ports %z, addresses %z)",
                     p, n);
        return false;
    }
    const sock_filter drop = Statement(BPF_RET | BPF_K, 0);
    if (n == 0) {  // no destination can be local
        program.push_back(drop);
        return true;
    }
    program.reserve(length);
    program.push_back(Statement(BPF_LD | BPF_H | BPF_ABS, 12));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 1, 0));
    program.push_back(drop);
    // Only a TCP or UDP header directly after the fixed header: extension headers are not walked.
    program.push_back(Statement(BPF_LD | BPF_B | BPF_ABS, kIp6NextHeaderOffset));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_TCP, 2, 0));
    program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 1, 0));
    program.push_back(drop);

    // Destination must be local: a match jumps to the source tests, which start after the tests
    // and the drop that ends them.
    const size_t sourceTests = program.size() + kAddressTestLength * n + 1;
    for (const in6_addr& address : addresses) {
        const size_t action = program.size() + kAddressTestLength - 1;
        AppendAddressTest(program, kIp6DestinationOffset, address,
                          Statement(BPF_JMP | BPF_JA, static_cast<uint32_t>(sourceTests - action - 1)));
    }
    program.push_back(drop);
    // Source must not be local: a match drops.
    for (const in6_addr& address : addresses) {
        AppendAddressTest(program, kIp6SourceOffset, address, drop);
    }
    if (reportableSourcesOnly) {
        // The source must be unique-local (fc00::/7) or link-local (fe80::/10): a hit jumps to the
        // port load, anything else drops.
        program.push_back(Statement(BPF_LD | BPF_B | BPF_ABS, kIp6SourceOffset));
        program.push_back(Statement(BPF_ALU | BPF_AND | BPF_K, 0xfe));
        program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, 0xfc, 4, 0));
        program.push_back(Statement(BPF_LD | BPF_H | BPF_ABS, kIp6SourceOffset));
        program.push_back(Statement(BPF_ALU | BPF_AND | BPF_K, 0xffc0));
        program.push_back(Jump(BPF_JMP | BPF_JEQ | BPF_K, 0xfe80, 1, 0));
        program.push_back(drop);
    }
    // Destination port must be watched: a hit jumps to the accept.
    program.push_back(Statement(BPF_LD | BPF_H | BPF_ABS, kIp6TransportOffset + 2));
    for (size_t j = 0; j < p; ++j) {
        program.push_back(
            Jump(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(ports[j]), p - 1 - j, j + 1 == p ? 1 : 0));
    }
    program.push_back(Statement(BPF_RET | BPF_K, kSnapLength6));
    if (p > 0) {
        program.push_back(drop);
    }
    return true;
}

bool SocketUtil::LoadPort6BpfRules(int fd, std::vector<long> ports, bool reportableSourcesOnly) {
    std::vector<in6_addr> addresses;
    if (!IPUtil::GetLocalhostIp6(addresses)) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Can not get local ip6 list.");
        return false;
    }
    std::vector<sock_filter> program;
    if (!BuildPort6BpfProgram(addresses, ports, program, reportableSourcesOnly)) {
        return false;
    }
    sock_fprog filter;
    filter.len = static_cast<unsigned short>(program.size());
    filter.filter = program.data();
    int result = setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter));
    if (result != 0 && errno == ENOMEM) {
        // The kernel charges the new filter before it frees the old one, so a reload needs room for
        // both. The old one gives way first to a one-instruction drop-all (or, failing that, to
        // none); whatever that admits is discarded by the ClearSocketBuff after every load.
        sock_filter dropAll = Statement(BPF_RET | BPF_K, 0);
        const sock_fprog placeholder{1, &dropAll};
        if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &placeholder, sizeof(placeholder)) != 0) {
            const int unused = 0;
            setsockopt(fd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof(unused));
        }
        result = setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter));
    }
    if (result != 0) {
        const int error = errno;
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[SocketUtil] Cant set ip6 filter");
        if (error == ENOMEM) {
            // The kernel charges a filter against net.core.optmem_max after converting it, which
            // multiplies its size: a host with many IPv6 addresses can exceed it.
            PORTSCAN_LOG(Poco::Message::PRIO_ERROR,
                         "[SocketUtil] The IPv6 filter for %z address(es) and %z port(s) exceeds "
                         "net.core.optmem_max; raise it or watch fewer ports",
                         addresses.size(), ports.size());
        }
        return false;
    }
    return true;
}

bool SocketUtil::Port6FilterFitsOptionMemory(const std::vector<long>& ports, bool reportableSourcesOnly,
                                             std::size_t& addressCount) {
    std::vector<in6_addr> addresses;
    IPUtil::GetLocalhostIp6(addresses);
    addressCount = addresses.size();
    std::vector<sock_filter> program;
    if (!BuildPort6BpfProgram(addresses, ports, program, reportableSourcesOnly)) {
        return true;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return true;
    }
    sock_fprog filter;
    filter.len = static_cast<unsigned short>(program.size());
    filter.filter = program.data();
    const bool fits =
        setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter)) == 0 || errno != ENOMEM;
    close(fd);
    return fits;
}

bool SocketUtil::ParsePacket6(const char* frame, unsigned long length, PacketNode* node) {
    if (length < kMinUdpFrame6) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Incomplete ip6 header, packet skipped.");
        return false;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(frame);
    if ((bytes[12] << 8 | bytes[13]) != ETH_P_IPV6 || (bytes[kIp6VersionOffset] >> 4) != 6) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Not an ip6 frame, packet skipped.");
        return false;
    }
    const int nextHeader = bytes[kIp6NextHeaderOffset];
    if (nextHeader != IPPROTO_TCP && nextHeader != IPPROTO_UDP) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG,
                          "[SocketUtil] ip6 next header (%d) is not TCP or UDP, packet skipped.", nextHeader);
        return false;
    }
    if (nextHeader == IPPROTO_TCP && length < kMinTcpFrame6) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[SocketUtil] Incomplete ip6 header, packet skipped.");
        return false;
    }

    node->isIpv6 = true;
    memcpy(&node->localAddress6, frame + kIp6DestinationOffset, sizeof(node->localAddress6));
    memcpy(&node->remoteAddress6, frame + kIp6SourceOffset, sizeof(node->remoteAddress6));
    node->remotePort = ReadPort(frame + kIp6TransportOffset);
    node->localPort = ReadPort(frame + kIp6TransportOffset + 2);
    if (nextHeader == IPPROTO_TCP) {
        node->type = 0;
        tcphdr header;
        memset_s(&header, sizeof(header), 0, sizeof(header));
        memcpy(&header, frame + kIp6TransportOffset, 14);
        node->flag = GetTcpFlag(&header);
    } else {
        node->type = 1;
        node->flag.clear();
    }

    Poco::Logger* logger = PortScan::GetRootLoggerPtr();
    if (logger != nullptr && logger->is(Poco::Message::PRIO_DEBUG)) {
        PORTSCAN_ROOT_LOG(
            Poco::Message::PRIO_DEBUG,
            "[SocketUtil] GET PACKET localAddress %s, RemoteAddress %s, LocalPort %d, RemotePort "
            "%d, type %d, flag is [%s]",
            IPUtil::Ip6Text(node->localAddress6), IPUtil::Ip6Text(node->remoteAddress6),
            static_cast<int>(node->localPort), static_cast<int>(node->remotePort), node->type, node->flag);
    }
    return true;
}

}  // namespace Engine
