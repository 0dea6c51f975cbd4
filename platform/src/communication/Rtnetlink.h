#pragma once

// Small helpers around libmnl that NetadapterList and Netlink share: the
// translation of rtnetlink link and address messages into adapters and IPv4
// addresses, and a blocking dump of the kernel's tables.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "orv/communication/Netadapter.h"

struct mnl_socket;
struct nlmsghdr;

namespace orv::communication::rtnl {

// Large enough for any message the kernel puts in one dump datagram.
constexpr std::size_t kReceiveBufferSize = 64 * 1024;

// RTM_NEWLINK/RTM_DELLINK: name, index, ARPHRD type and IFF_UP. False when the
// message is not a usable link message.
bool parseLink(const nlmsghdr* nlh, Netadapter& adapter);

// RTM_NEWADDR/RTM_DELADDR of family AF_INET: interface index and the address
// with its mask. False for other families or unusable messages.
bool parseIpv4Address(const nlmsghdr* nlh, unsigned& index, Ipv4Address& address);

// Dotted mask text for a prefix length ("255.255.255.0" for 24).
std::string prefixToMask(unsigned prefixLength);

using MessageHandler = std::function<void(const nlmsghdr*)>;

// Hands the messages of one datagram to handler, in order, until it returns
// false. The walk ends at a message whose length field is shorter than a
// header or longer than what is left of the datagram; true when it reached the
// datagram's end (or the handler stopped it) without meeting one. libmnl's
// own walk reads a length field of 2^31 or more as negative, lets it pass and
// then steps by it: a crafted datagram would keep a reader on one message
// forever or send it far outside the datagram.
bool forEachMessage(const void* datagram, std::size_t size, const std::function<bool(const nlmsghdr*)>& handler);

// One datagram of the answer to a dump request of sequence seq on the socket
// with port id portid: hands every data message to handler. 1 when more
// datagrams follow, 0 when the dump is done (NLMSG_DONE or an acknowledgement),
// or a negative errno: the kernel's error, -EINTR when the kernel marks the
// dump as interrupted, -EPROTO or -ESRCH for a message of another request,
// -EBADMSG for a malformed message.
int dumpReply(const void* datagram, std::size_t size, std::uint32_t seq, unsigned portid,
              const MessageHandler& handler);

// Reads one datagram from the kernel into buffer: its size, or a negative
// errno (-ENOSPC when it did not fit). Datagrams that another process sent to
// the socket are dropped unread: only the kernel speaks for the links.
long receiveFromKernel(int fd, void* buffer, std::size_t size, int flags);

// Sends a dump request (RTM_GETLINK or RTM_GETADDR) on a blocking socket and
// hands every answer to handler until the dump is done. 0 or a negative errno
// (-EINTR when the kernel's tables changed during the dump).
int dump(mnl_socket* socket, std::uint16_t type, std::uint32_t seq, const MessageHandler& handler);

// Sends the dump request alone (RTM_GETLINK: every link; RTM_GETADDR: every
// IPv4 address); the answers are read by the caller. 0 or a negative errno.
int requestDump(mnl_socket* socket, std::uint16_t type, std::uint32_t seq);

// Reads every link with its IPv4 addresses and sysfs identity through a
// socket of its own. 0 or a negative errno.
int readAdapters(std::map<unsigned, Netadapter>& adapters);

}  // namespace orv::communication::rtnl
