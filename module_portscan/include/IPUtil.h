#pragma once

#include "SocketUtil.h"

#include <netinet/in.h>

#include <string>
#include <vector>

namespace Engine {

// Inclusive IPv4 range; numbers with the first octet most significant.
struct IP_RANGE {
    unsigned int start;
    unsigned int end;
};

// Inclusive IPv6 range; each end is 32 lowercase hexadecimal digits.
struct IP6_RANGE {
    std::string start;
    std::string end;
};

// Address texts, white-list ranges, and this host's own and master addresses.
class IPUtil {
public:
    // Address text.
    static bool is_ipv4_format(const char* text);
    static bool is_ipv6_format(const char* text);
    bool is_valid_ip(const char* text) const;
    static bool transfor_ip(const char* text, bool isStart, unsigned int* out);
    static bool format_ipv6(const char* text, std::string& out, unsigned char* bytes, int size);

    // White-list ranges.
    static bool parse_ip_ranges(const char* text, std::vector<IP_RANGE>& ranges);
    static bool parse_ip6_ranges(const char* text, std::vector<IP6_RANGE>& ranges);
    static bool is_ip_in_range(const char* ip, const std::vector<IP_RANGE>& ranges);
    static bool is_iplist_in_range(const std::vector<std::string>& ips, const std::vector<IP_RANGE>& ranges,
                                   std::string& hit);
    static bool is_ip6_in_range(const char* ip, const std::vector<IP6_RANGE>& ranges);
    static bool IsWhiteIpList(const char* ip, const std::vector<IP_RANGE>& ranges);

    // Local addresses and the master interface.
    static bool GetMasterIpList(std::vector<unsigned int>& list);
    static bool GetRouteTable(std::vector<RouteTable>& table);
    static bool GetInterfaceName(std::vector<unsigned int> ips, const std::vector<RouteTable>& routes,
                                 std::string& name);
    static bool CheckIpNet(const unsigned int& ip, unsigned int net, int prefixLen);
    static bool IsIntraIpList(in_addr address);
    static bool FindIP(const std::vector<in_addr>& list, in_addr address);
    static bool get_local_ip_list_hl(std::vector<unsigned int>& list, bool skipLoopback);
    static bool GetLocalhostIp(std::vector<unsigned int>& list);
    static bool get_local_ip_list(std::vector<std::string>& list, bool skipLoopback);
    static bool getipv4(const char* host, std::vector<std::string>& list);
    static bool is_localhost_ip(const std::string& address);

    // IPv6 capture.
    // This host's IPv6 addresses in getifaddrs order, ::1 left out (link-local ones are kept: a
    // neighbour reaches them). False, with the IPv4 list's error line, when the list cannot be read.
    static bool GetLocalhostIp6(std::vector<in6_addr>& list);
    // Private for IPv6: unique-local (fc00::/7) or link-local (fe80::/10).
    static bool IsIntraIp6List(const in6_addr& address);
    // The white-list test for an IPv6 source, with IsWhiteIpList's hit line.
    static bool IsWhiteIp6List(const char* ip, const std::vector<IP6_RANGE>& ranges);
    // The RFC 5952 text of `address` (inet_ntop).
    static std::string Ip6Text(const in6_addr& address);
};

// IPv6 and mask helpers behind the IPUtil conversions.
bool parse_mask(const char* text, unsigned long length, int& bits);
bool transfor_ip6(const char* text, bool isStart, std::string& out);
std::string& BuildIP6Str(bool isStart, std::string& out, sockaddr_in6& address, char* buffer,
                         unsigned int* words, int index);
bool from_string(const char* text, unsigned char* bytes, int size);
void colon_amount(const char* text, unsigned char& gapOffset, unsigned char maxLength);
unsigned char ascii_to_hex(unsigned char c);
void convert_unchar_to_str(char* out, int outSize, const unsigned char* bytes, int count);

}  // namespace Engine
