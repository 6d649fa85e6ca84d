#pragma once

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
    // True when attached; false leaves the previous filter in place.
    static bool LoadPortBpfRules(int fd, std::vector<long> ports);
    // Discards up to 301 frames already queued on `fd`.
    static void ClearSocketBuff(int fd);

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
};

}  // namespace Engine
