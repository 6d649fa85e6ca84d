#pragma once

#include <linux/filter.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <string>
#include <vector>

namespace Engine {

// One captured TCP or UDP packet as the task sees it.
struct PacketNode {
    in_addr localAddress;       // destination address (this host), network order
    unsigned short localPort;   // destination port, host order
    in_addr remoteAddress;      // source address (the prober), network order
    unsigned short remotePort;  // source port, host order
    int type;                   // 0 TCP, 1 UDP
    std::string flag;           // TCP flag text ("SYN", "SYN,ACK", ...); empty for UDP
    // Frames of the IPv6 capture socket only: the two IPv4 addresses above stay zero.
    bool isIpv6 = false;
    in6_addr localAddress6{};   // destination address (this host)
    in6_addr remoteAddress6{};  // source address (the prober)
};

// One IPv4 route of the kernel's main table.
struct RouteTable {
    int dstLen;            // destination prefix length
    int ifIndex;           // output interface index (RTA_OIF)
    int metrics;           // first word of RTA_METRICS, 0 when absent
    std::string ifName;    // name of ifIndex
    unsigned int dst;      // destination, network order; 0 for the default route
    unsigned int gateway;  // gateway, network order; 0 when absent
};

// The capture socket and its kernel filter, the packet parser, and the two netlink conversations
// (route dump, socket diagnostics). Stateless; descriptors belong to the caller.
class SocketUtil {
public:
    // Opens the AF_PACKET capture socket (ten immediate attempts); `fd` gets the descriptor or -1.
    static void CreateRawSocket(int& fd);
    // Binds `fd` to the named interface (ten immediate attempts); the last bind result.
    static int BindPort(int fd, std::string interfaceName);
    // Builds and attaches the classic BPF filter for `ports` and the host's local IPv4 addresses.
    // True when attached; false leaves the previous filter in place (also when the lists do not fit,
    // see MaxFilterPorts).
    static bool LoadPortBpfRules(int fd, std::vector<long> ports, bool reportableSourcesOnly = false);
    // The most watched ports the IPv4 filter holds next to `addressCount` local addresses: its
    // longest jump (ports + 2 x addresses + 10) must fit the 8-bit offset. 0 when even no port fits.
    // With `reportableSourcesOnly` ("reportable_sources_only") the filter also tests the source for
    // the private ranges the module reports (10/8, 172.16/12, 192.168/16), eight more instructions
    // on its longest jump.
    static std::size_t MaxFilterPorts(std::size_t addressCount, bool reportableSourcesOnly = false);
    // Discards up to 301 frames already queued on `fd`.
    static void ClearSocketBuff(int fd);

    // IPv6 capture (task policy "ipv6"): a second packet socket, for ETH_P_IPV6 frames, with the
    // same attempts and log lines as CreateRawSocket.
    static void CreateRawSocket6(int& fd);
    // The IPv6 filter: IPv6 frames whose next header (directly after the fixed header) is TCP or
    // UDP, destination one of `addresses`, source none of them, destination port one of `ports`
    // (any when `ports` is empty); admitted frames are cut to the Ethernet, IPv6 and TCP headers.
    // No address admits nothing. False, with an error line, when a jump offset would not fit its
    // 8 bits or the program exceeds the kernel's length limit.
    // With `reportableSourcesOnly` the source must also be unique-local (fc00::/7) or link-local
    // (fe80::/10).
    static bool BuildPort6BpfProgram(const std::vector<in6_addr>& addresses, const std::vector<long>& ports,
                                     std::vector<sock_filter>& program, bool reportableSourcesOnly = false);
    // Builds the IPv6 filter for `ports` and the host's IPv6 addresses (::1 excluded) and attaches
    // it. True when attached. False when the filter cannot be built (the previous one stays) or the
    // kernel refuses it: then the socket may be left with a drop-all filter or none, and the caller
    // must not keep capturing on it.
    static bool LoadPort6BpfRules(int fd, std::vector<long> ports, bool reportableSourcesOnly = false);
    // Whether the kernel takes that IPv6 filter within net.core.optmem_max. It charges a filter in
    // its converted form, a size only it knows, so the filter is attached to a throwaway local
    // socket, which is charged alike. `addressCount` gets the host's IPv6 address count. True also
    // when the filter cannot be built (that has its own error line) or no socket can be opened.
    static bool Port6FilterFitsOptionMemory(const std::vector<long>& ports, bool reportableSourcesOnly,
                                            std::size_t& addressCount);
    // Fills `node` (isIpv6 set) from an IPv6 Ethernet frame of `length` received bytes. False, with
    // `node` untouched, for a short frame, a frame that is not IPv6, or a next header other than TCP
    // or UDP (extension headers included).
    static bool ParsePacket6(const char* frame, unsigned long length, PacketNode* node);

    // Fills `node` from an Ethernet frame of `length` bytes. True for a TCP or UDP frame.
    static bool ParsePacket(char* frame, unsigned long length, PacketNode* node);
    // The flag text of a TCP header: SYN, RST, PSH, ACK, URG in that order, comma-separated.
    static std::string GetTcpFlag(const tcphdr* header);

    // Sends an IPv4 route dump request on the NETLINK_ROUTE socket `fd`; the sendmsg result.
    static int SendNetlinkMsg(int fd, sockaddr_nl* address);
    // Reads one reply buffer, appending one record per main-table route. Always true.
    static bool RecvNetlinkMsg(int fd, sockaddr_nl* address, std::vector<RouteTable>& table);

    // Sends a socket-diagnostics dump request for local IPv4 sockets of `protocol` (1 UDP, else
    // TCP) bound to `port`. True when sent.
    static bool SendNetlinkMsgQuery(int sockfd, unsigned short port, int protocol, int msgType);
    // The same request for the sockets of address `family` (AF_INET or AF_INET6).
    static bool SendNetlinkMsgQuery(int sockfd, unsigned short port, int protocol, int msgType, int family);
    // Reads the reply: `result` 0 when such a socket exists, 1 when none. True when `result` holds.
    static bool RecvNetLinkMsgQuery(int sockfd, int& result, int protocol);
    // Classifies the first reply header of `length` received bytes.
    static bool CheckHeader(const nlmsghdr* header, int length, int& result);

    // "dual_stack_occupancy": one batch of a socket-diagnostics reply about IPv6 sockets. Sets `found`
    // when a record is a socket that an IPv4 packet reaches: bound to :: or to an IPv4-mapped
    // address, and not IPV6_V6ONLY (INET_DIAG_SKV6ONLY; a record without it counts). Returns 1 when
    // the reply goes on in a further batch, 0 when it ended (NLMSG_DONE), -1 on an error or a record
    // that does not fit.
    static int ScanDualStackReply(const char* data, std::size_t length, bool& found);
    // Queries the IPv6 sockets on `port` for ScanDualStackReply: `result` 0 when one takes IPv4
    // packets, 1 when none does. False when the query failed.
    static bool QueryDualStackPort(unsigned short port, int protocol, int& result);

    // "follow_address_changes": a non-blocking netlink socket that hears of every IPv4 and IPv6
    // address added or removed; -1 (with an error line) when it cannot be made.
    static int OpenAddressWatch();
    // Reads what waits on the watch socket; true when an address was added or removed (or notices
    // were lost), so the filters must be built again.
    static bool TakeAddressChanges(int fd);
};

}  // namespace Engine
