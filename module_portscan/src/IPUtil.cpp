#include "IPUtil.h"

#include "PortScanModule.h"
#include "framework/ConfigManager.h"
#include "sdk/SafeC.h"
#include "sdk/StrUtils.h"

#include <Poco/NumberParser.h>
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace Engine {

namespace {

constexpr unsigned int kAllOnes = 0xFFFFFFFFu;
// Normalised IPv6 text of the loopback address.
const char kIpv6Loopback[] = "00000000000000000000000000000001";
// Bytes of an IPv6 address.
constexpr int kIpv6Bytes = 16;
// Longest IPv6 text from_string reads.
constexpr unsigned char kMaxIpv6TextIndex = 39;

// Trimmed copy of `text`, split at its first '/': the address part and, when there is a slash,
// the text behind it.
bool SplitAtSlash(const char* text, std::string& address, std::string& suffix) {
    std::string trimmed = boost::algorithm::trim_copy(std::string(text));
    size_t slash = trimmed.find('/');
    address = trimmed.substr(0, slash);
    if (slash == std::string::npos) {
        suffix.clear();
        return false;
    }
    suffix = trimmed.substr(slash + 1);
    return true;
}

// The n high bits set, n in 0..32.
unsigned int HighBits(long n) {
    return n <= 0 ? 0u : (n >= 32 ? kAllOnes : kAllOnes << (32 - n));
}

std::vector<std::string> SplitList(const char* text) {
    std::vector<std::string> pieces;
    const std::string whole(text);
    boost::algorithm::split(pieces, whole, boost::is_any_of(","));
    for (auto& piece : pieces) {
        boost::algorithm::trim(piece);
    }
    return pieces;
}

bool IsIpv4Start(const std::string& piece) {
    return !piece.empty() && piece[0] >= '0' && piece[0] <= '9';
}

// Admits digits, ':', letters up to 'f' of both cases and whatever lies between them in code order.
bool IsIpv6Start(const std::string& piece) {
    return !piece.empty() && piece[0] >= '0' && piece[0] <= 'f';
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Address text

namespace {

// Whether `family`'s inet_pton accepts the trimmed text up to its first '/'.
bool IsAddressOf(int family, const char* text) {
    if (text == nullptr) {
        return false;
    }
    std::string address;
    std::string prefix;
    SplitAtSlash(text, address, prefix);
    in6_addr value;  // room for either family
    return inet_pton(family, address.c_str(), &value) > 0;
}

}  // namespace

bool IPUtil::is_ipv4_format(const char* text) {
    return IsAddressOf(AF_INET, text);
}

bool IPUtil::is_ipv6_format(const char* text) {
    return IsAddressOf(AF_INET6, text);
}

bool IPUtil::is_valid_ip(const char* text) const {
    return text != nullptr && inet_addr(text) != INADDR_NONE;
}

bool IPUtil::transfor_ip(const char* text, bool isStart, unsigned int* out) {
    if (text == nullptr || out == nullptr) {
        return false;
    }
    std::string address;
    std::string mask;
    bool hasMask = SplitAtSlash(text, address, mask);

    in_addr_t value = inet_addr(address.c_str());
    if (value == INADDR_NONE) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "can not trans [%s] to ip", address);
        return false;
    }
    unsigned int host = ntohl(value);
    if (!hasMask) {
        *out = host;
        return true;
    }

    int bits = 0;
    if (!parse_mask(mask.c_str(), mask.size(), bits)) {
        return false;
    }
    if (bits == 32) {
        *out = host;
    } else if (bits == 0) {
        // A /0 block deliberately starts at 0.0.0.1.
        *out = isStart ? 1u : kAllOnes;
    } else {
        unsigned int high = HighBits(bits);
        *out = isStart ? (host & high) : (host | ~high);
    }
    return true;
}

bool parse_mask(const char* text, unsigned long length, int& bits) {
    static const char kFullMask[] = "255.255.255.255";
    if (text == nullptr) {
        return false;
    }
    if (length <= 2) {
        int value = 0;
        if (sscanf_s(text, "%d", &value) != 1) {
            PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "can not trans mask [%s]", std::string(text));
            return false;
        }
        if (static_cast<unsigned int>(value) > 32) {
            PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "invalid mask [%s]", std::string(text));
            return false;
        }
        bits = value;
        return true;
    }

    in_addr_t value = inet_addr(text);
    if (value == INADDR_NONE) {
        // inet_addr cannot tell the full mask from its error value.
        if (strcmp(text, kFullMask) == 0) {
            bits = 32;
            return true;
        }
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "can not trans [%s] to mask", std::string(text));
        return false;
    }
    unsigned int host = ntohl(value);
    int count = 0;
    // Leading ones only: bits below the first zero are ignored.
    while (count < 32 && (host & (0x80000000u >> count)) != 0) {
        ++count;
    }
    bits = count;
    return true;
}

bool transfor_ip6(const char* text, bool isStart, std::string& out) {
    if (text == nullptr) {
        return false;
    }
    std::string address;
    std::string prefix;
    bool hasPrefix = SplitAtSlash(text, address, prefix);
    long n = hasPrefix ? strtol(prefix.c_str(), nullptr, 10) : 128;

    unsigned char bytes[kIpv6Bytes];
    if (n == 128) {
        std::string normal;
        if (!IPUtil::format_ipv6(address.c_str(), normal, bytes, kIpv6Bytes)) {
            return false;
        }
        out = normal;
        return true;
    }
    if (n < 0 || n > 128) {
        return false;
    }

    unsigned int maskWords[4] = {kAllOnes, kAllOnes, kAllOnes, kAllOnes};
    sockaddr_in6 socketAddress;
    memset_s(&socketAddress, sizeof(socketAddress), 0, sizeof(socketAddress));
    if (inet_pton(AF_INET6, address.c_str(), &socketAddress.sin6_addr) <= 0) {
        return false;
    }

    long q = n / 32;
    long r = n % 32;
    if (r == 0 && isStart) {
        q -= 1;
    }
    // The first address of a /0 block is refused; its last address works.
    if (q < 0) {
        return false;
    }

    unsigned int word = 0;
    memcpy(&word, &socketAddress.sin6_addr.s6_addr[q * 4], sizeof(word));
    word = ntohl(word);
    if (isStart) {
        unsigned int mask = (r == 0) ? kAllOnes : HighBits(r);
        word &= mask;
        maskWords[q] = mask;
    } else {
        unsigned int low = (r == 0) ? kAllOnes : ~HighBits(r);
        word |= low;
        maskWords[q] = low;
    }
    word = htonl(word);
    memcpy(&socketAddress.sin6_addr.s6_addr[q * 4], &word, sizeof(word));

    char buffer[INET6_ADDRSTRLEN];
    memset_s(buffer, sizeof(buffer), 0, sizeof(buffer));
    std::string rendered;
    BuildIP6Str(isStart, rendered, socketAddress, buffer, maskWords, static_cast<int>(q + 1));

    std::string normal;
    if (!IPUtil::format_ipv6(rendered.c_str(), normal, bytes, kIpv6Bytes)) {
        return false;
    }
    out = normal;
    return true;
}

std::string& BuildIP6Str(bool isStart, std::string& out, sockaddr_in6& address, char* buffer,
                         unsigned int* words, int index) {
    const unsigned int fill = isStart ? 0u : kAllOnes;
    for (int i = (index < 0 ? 0 : index); i < 4; ++i) {
        memcpy(&address.sin6_addr.s6_addr[i * 4], &fill, sizeof(fill));
        words[i] = fill;
    }
    if (inet_ntop(AF_INET6, &address.sin6_addr, buffer, INET6_ADDRSTRLEN) == nullptr) {
        out.clear();
        return out;
    }
    out = buffer;
    return out;
}

bool IPUtil::format_ipv6(const char* text, std::string& out, unsigned char* bytes, int size) {
    if (!from_string(text, bytes, size)) {
        return false;
    }
    char hex[64];
    memset_s(hex, sizeof(hex), 0, sizeof(hex));
    convert_unchar_to_str(hex, sizeof(hex), bytes, size);
    out = hex;
    return true;
}

bool from_string(const char* text, unsigned char* bytes, int size) {
    if (text == nullptr || bytes == nullptr || size <= 0) {
        return false;
    }
    memset_s(bytes, static_cast<rsize_t>(size), 0, static_cast<rsize_t>(size));
    unsigned char gapOffset = 0;
    colon_amount(text, gapOffset, kMaxIpv6TextIndex);

    unsigned int accumulator = 0;
    int position = 0;
    int index = 0;
    do {
        const char c = text[index];
        if (c != ':' && c != '\0') {
            accumulator = (accumulator << 4) | ascii_to_hex(static_cast<unsigned char>(c));
        } else {
            // Stores never leave the caller's buffer, whatever the text holds.
            if (position >= 0 && position + 1 < size) {
                bytes[position] = static_cast<unsigned char>((accumulator >> 8) & 0xff);
                bytes[position + 1] = static_cast<unsigned char>(accumulator & 0xff);
            }
            accumulator = 0;
            if (gapOffset != 0 && index != 0 && text[index - 1] == ':') {
                position = gapOffset;
            } else {
                position += 2;
            }
            if (c == '\0') {
                break;
            }
        }
        ++index;
    } while (position < kIpv6Bytes && index <= kMaxIpv6TextIndex);
    return true;
}

void colon_amount(const char* text, unsigned char& gapOffset, unsigned char maxLength) {
    if (text == nullptr || text[0] == '\0') {
        return;
    }
    for (unsigned int i = 1; i <= maxLength && text[i] != '\0'; ++i) {
        if (text[i] != ':') {
            continue;
        }
        if (text[i - 1] == ':') {
            gapOffset = 14;
        } else if (gapOffset != 0) {
            gapOffset = static_cast<unsigned char>(gapOffset - 2);
        }
    }
}

unsigned char ascii_to_hex(unsigned char c) {
    const unsigned char lower = c | 0x20;
    if (lower >= '0' && lower <= '9') {
        return static_cast<unsigned char>(lower - '0');
    }
    if (lower >= 'a' && lower <= 'f') {
        return static_cast<unsigned char>(lower - 'a' + 10);
    }
    // Deliberately 1, not an error, for any other character.
    return 1;
}

void convert_unchar_to_str(char* out, int outSize, const unsigned char* bytes, int count) {
    if (out == nullptr || bytes == nullptr) {
        return;
    }
    int left = outSize;
    for (int i = 0; i < count && left >= 3; ++i) {
        snprintf_s(out + 2 * i, static_cast<rsize_t>(left), "%02x", static_cast<unsigned int>(bytes[i]));
        left -= 2;
    }
}

// ---------------------------------------------------------------------------------------------
// White-list ranges

namespace {

// The list syntax both white-list parsers share: comma-separated pieces, each "all", "a-b" or a
// single address or block. Pieces that `looksLike` refuses, or that `convert` (one side of a range
// to its first or last address) cannot read, are skipped.
template <typename Range, typename LooksLike, typename Convert>
bool ParseRangeList(const char* text, std::vector<Range>& ranges, const Range& all, LooksLike looksLike,
                    Convert convert) {
    ranges.clear();
    if (text == nullptr) {
        return false;
    }
    for (const auto& piece : SplitList(text)) {
        if (piece == "all") {
            ranges.push_back(all);
            continue;
        }
        if (!looksLike(piece)) {
            continue;
        }
        size_t dash = piece.find('-');
        std::string left = dash == std::string::npos ? piece : piece.substr(0, dash);
        std::string right = dash == std::string::npos ? piece : piece.substr(dash + 1);
        Range range{};
        if (convert(left, true, range.start) && convert(right, false, range.end)) {
            ranges.push_back(range);
        }
    }
    return !ranges.empty();
}

}  // namespace

bool IPUtil::parse_ip_ranges(const char* text, std::vector<IP_RANGE>& ranges) {
    return ParseRangeList(text, ranges, IP_RANGE{0, kAllOnes}, IsIpv4Start,
                          [](const std::string& side, bool isStart, unsigned int& out) {
                              return transfor_ip(side.c_str(), isStart, &out);
                          });
}

bool IPUtil::parse_ip6_ranges(const char* text, std::vector<IP6_RANGE>& ranges) {
    return ParseRangeList(text, ranges, IP6_RANGE{std::string(32, '0'), std::string(32, 'f')}, IsIpv6Start,
                          [](const std::string& side, bool isStart, std::string& out) {
                              return transfor_ip6(side.c_str(), isStart, out);
                          });
}

bool IPUtil::is_ip_in_range(const char* ip, const std::vector<IP_RANGE>& ranges) {
    if (ip == nullptr) {
        return false;
    }
    in_addr_t value = inet_addr(ip);
    if (value == INADDR_NONE) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "local ip is invalid");
        return false;
    }
    unsigned int host = ntohl(value);
    for (const auto& range : ranges) {
        if (range.start <= host && host <= range.end) {
            return true;
        }
    }
    return false;
}

bool IPUtil::is_iplist_in_range(const std::vector<std::string>& ips, const std::vector<IP_RANGE>& ranges,
                                std::string& hit) {
    for (const auto& ip : ips) {
        if (is_ip_in_range(ip.c_str(), ranges)) {
            hit = ip;
            return true;
        }
    }
    return false;
}

bool IPUtil::is_ip6_in_range(const char* ip, const std::vector<IP6_RANGE>& ranges) {
    if (ip == nullptr || !is_ipv6_format(ip)) {
        return false;
    }
    std::string normal;
    unsigned char bytes[kIpv6Bytes];
    if (!format_ipv6(ip, normal, bytes, kIpv6Bytes)) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "can not trans [%s] to ipv6 128bit", std::string(ip));
        return false;
    }
    for (const auto& range : ranges) {
        if (range.start <= normal && normal <= range.end) {
            return true;
        }
    }
    return false;
}

bool IPUtil::IsWhiteIpList(const char* ip, const std::vector<IP_RANGE>& ranges) {
    if (ranges.empty() || ip == nullptr) {
        return false;
    }
    in_addr_t value = inet_addr(ip);
    if (value == INADDR_NONE) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "[IPUtil] local ip [%s] is invalid ip", std::string(ip));
        return false;
    }
    unsigned int host = ntohl(value);
    for (const auto& range : ranges) {
        if (range.start <= host && host <= range.end) {
            PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] white ip found (%s)", std::string(ip));
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------------------------------------
// Local addresses and the master interface

bool IPUtil::GetMasterIpList(std::vector<unsigned int>& list) {
    const std::vector<std::string> endpoints = Framework::ConfigManager::GetInstance()->GetConnectConfig();
    for (const auto& endpoint : endpoints) {
        const std::string host = SDK::StrUtils::Split(endpoint, ":").front();
        const std::vector<std::string> octets = SDK::StrUtils::Split(host, ".");
        if (octets.size() != 4) {
            return false;
        }
        unsigned int value[4] = {0, 0, 0, 0};
        for (size_t i = 0; i < 4; ++i) {
            // '.' cannot occur in a piece; naming it as the separator keeps ',' from being skipped.
            if (!Poco::NumberParser::tryParseUnsigned(octets[i], value[i], '.')) {
                return false;
            }
        }
        // Octets above 255 are not refused: they spill into the next octet.
        list.push_back((value[0] << 24) + (value[1] << 16) + (value[2] << 8) + value[3]);
    }
    return true;
}

bool IPUtil::GetRouteTable(std::vector<RouteTable>& table) {
    int fd = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
    if (fd < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[IPUtil] Create Socket err!\n");
        return false;
    }
    sockaddr_nl local;
    memset_s(&local, sizeof(local), 0, sizeof(local));
    local.nl_family = AF_NETLINK;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) < 0) {
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[IPUtil] Error in bind \n");
        close(fd);
        return false;
    }
    sockaddr_nl kernel;
    if (SocketUtil::SendNetlinkMsg(fd, &kernel) < 0) {
        // Without a request the receive would wait for ever; answer as a dump that found nothing.
        PORTSCAN_LOG(Poco::Message::PRIO_ERROR, "[IPUtil] Send route dump request err!");
        close(fd);
        return false;
    }
    bool received = SocketUtil::RecvNetlinkMsg(fd, &kernel, table);
    close(fd);
    // Inverted on purpose: a completed dump answers false (callers rely on it).
    return !received;
}

bool IPUtil::GetInterfaceName(std::vector<unsigned int> ips, const std::vector<RouteTable>& routes,
                              std::string& name) {
    if (ips.empty()) {
        return false;
    }
    for (const auto& route : routes) {
        // The default route's interface is the fall-back: prefix 0 matches only an equal address.
        if (route.dst == 0 && name.empty()) {
            name = route.ifName;
        }
        if (CheckIpNet(ips[0], route.dst, route.dstLen)) {
            name = route.ifName;
        }
    }
    return !name.empty();
}

bool IPUtil::CheckIpNet(const unsigned int& ip, unsigned int net, int prefixLen) {
    if (prefixLen > 32) {
        return false;
    }
    const unsigned int shift = static_cast<unsigned int>(32 - static_cast<long long>(prefixLen)) % 32;
    const unsigned int mask = kAllOnes >> shift;
    return (ip & mask) == (net & mask);
}

bool IPUtil::IsIntraIpList(in_addr address) {
    const unsigned int host = ntohl(address.s_addr);
    return (host >> 16) == 0xC0A8u || (host >= 0xAC100000u && host <= 0xAC1FFFFFu) || (host >> 24) == 10u;
}

bool IPUtil::FindIP(const std::vector<in_addr>& list, in_addr address) {
    for (const auto& entry : list) {
        if (entry.s_addr == address.s_addr) {
            return true;
        }
    }
    return false;
}

namespace {

// Calls `visit` with every address of `family` (as the sockaddr of that family) of this host's
// interfaces, in getifaddrs order. False, with the error line, when the interface list cannot be read.
template <typename Address, typename Visit>
bool ForEachLocalAddress(sa_family_t family, Visit visit) {
    ifaddrs* interfaces = nullptr;
    if (getifaddrs(&interfaces) != 0) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "get local ip list failed.");
        return false;
    }
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == family) {
            visit(*reinterpret_cast<const Address*>(entry->ifa_addr));
        }
    }
    freeifaddrs(interfaces);
    return true;
}

template <typename Visit>
bool ForEachLocalIpv4(Visit visit) {
    return ForEachLocalAddress<sockaddr_in>(AF_INET,
                                            [&](const sockaddr_in& address) { visit(address.sin_addr); });
}

}  // namespace

bool IPUtil::get_local_ip_list_hl(std::vector<unsigned int>& list, bool skipLoopback) {
    list.clear();
    return ForEachLocalIpv4([&](const in_addr& address) {
        const unsigned int host = ntohl(address.s_addr);
        // Only 127.0.0.0/24 counts as loopback here.
        if (!(skipLoopback && (host >> 8) == 0x7F0000u)) {
            list.push_back(host);
        }
    });
}

bool IPUtil::GetLocalhostIp(std::vector<unsigned int>& list) {
    return get_local_ip_list_hl(list, true);
}

bool IPUtil::get_local_ip_list(std::vector<std::string>& list, bool skipLoopback) {
    list.clear();
    return ForEachLocalIpv4([&](const in_addr& address) {
        char text[16];
        memset_s(text, sizeof(text), 0, sizeof(text));
        if (inet_ntop(AF_INET, &address, text, sizeof(text)) == nullptr) {
            return;
        }
        if (!(skipLoopback && strncmp(text, "127.0.0.", 8) == 0)) {
            list.push_back(text);
        }
    });
}

bool IPUtil::getipv4(const char* host, std::vector<std::string>& list) {
    const std::string name = host == nullptr ? std::string() : std::string(host);
    hostent* entry = host == nullptr ? nullptr : gethostbyname(host);
    if (entry == nullptr) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "get host by name [%s] failed.", name);
        return false;
    }
    if (entry->h_addrtype != AF_INET) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "[%s] is not ipv4", name);
        return false;
    }
    for (char** address = entry->h_addr_list; *address != nullptr; ++address) {
        char text[16];
        memset_s(text, sizeof(text), 0, sizeof(text));
        if (inet_ntop(AF_INET, *address, text, sizeof(text)) != nullptr) {
            list.push_back(text);
        }
    }
    return true;
}

bool IPUtil::is_localhost_ip(const std::string& address) {
    if (address.find('#') != std::string::npos) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "invalid remote host [%s]", address);
        return false;
    }
    in6_addr ipv6;
    if (inet_addr(address.c_str()) == INADDR_NONE && inet_pton(AF_INET6, address.c_str(), &ipv6) < 1) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "invalid ip [%s]", address);
        return false;
    }
    // "localhost" never gets here (refused above); the comparison is kept as it always was.
    if (address == "127.0.0.1" || address == "localhost") {
        return true;
    }
    if (!is_ipv6_format(address.c_str())) {
        return false;
    }
    std::string normal;
    unsigned char bytes[kIpv6Bytes];
    if (!format_ipv6(address.c_str(), normal, bytes, kIpv6Bytes)) {
        PORTSCAN_ROOT_LOG(Poco::Message::PRIO_ERROR, "can not trans [%s] to ipv6 128bit", address);
        return false;
    }
    return normal == kIpv6Loopback;
}

// ---------------------------------------------------------------------------------------------
// IPv6 capture

bool IPUtil::GetLocalhostIp6(std::vector<in6_addr>& list) {
    list.clear();
    return ForEachLocalAddress<sockaddr_in6>(AF_INET6, [&](const sockaddr_in6& address) {
        if (!IN6_IS_ADDR_LOOPBACK(&address.sin6_addr)) {
            list.push_back(address.sin6_addr);
        }
    });
}

bool IPUtil::IsIntraIp6List(const in6_addr& address) {
    const uint8_t first = address.s6_addr[0];
    return (first & 0xFEu) == 0xFCu || (first == 0xFEu && (address.s6_addr[1] & 0xC0u) == 0x80u);
}

bool IPUtil::IsWhiteIp6List(const char* ip, const std::vector<IP6_RANGE>& ranges) {
    if (ranges.empty() || ip == nullptr || !is_ip6_in_range(ip, ranges)) {
        return false;
    }
    PORTSCAN_ROOT_LOG(Poco::Message::PRIO_DEBUG, "[PortScan] white ip found (%s)", std::string(ip));
    return true;
}

std::string IPUtil::Ip6Text(const in6_addr& address) {
    char text[INET6_ADDRSTRLEN];
    memset_s(text, sizeof(text), 0, sizeof(text));
    if (inet_ntop(AF_INET6, &address, text, sizeof(text)) == nullptr) {
        return std::string();
    }
    return text;
}

}  // namespace Engine
