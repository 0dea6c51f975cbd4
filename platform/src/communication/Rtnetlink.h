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
