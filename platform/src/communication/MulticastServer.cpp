// One UDP socket per group and port. Membership is joined per interface with
// ip_mreqn by index; IP_MULTICAST_ALL is off so that the socket hears the
// group only where it joined, not wherever any socket of the host did. The
// outgoing interface and source address travel with each datagram (IP_PKTINFO
// on sendmsg), so one server can answer on whichever interface a request came in.
#include "orv/communication/MulticastServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "Rtnetlink.h"
#include "orv/communication/Netadapter.h"
#include "orv/communication/NetadapterList.h"
#include "orv/sys/EventLoop.h"

namespace orv::communication {

namespace {

constexpr unsigned kMaxPort = 65535;
constexpr unsigned kMaxTtl = 255;

int setIntOption(int fd, int level, int name, int value)
{
    if (::setsockopt(fd, level, name, &value, sizeof value) != 0) {
        return -errno;
    }
    return 0;
}

bool parseIpv4(const std::string& text, in_addr& address)
{
    return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

}  // namespace

MulticastServer::MulticastServer(NetadapterList& adapters, orv::sys::EventLoop& loop)
    : m_adapters(adapters), m_loop(loop)
{
}

MulticastServer::~MulticastServer()
{
    stop();
}

int MulticastServer::start(const std::string& groupAddress, unsigned port, ReceiveCallback callback)
{
    if (m_fd >= 0) {
        return -EALREADY;
    }
    in_addr group{};
    if (!parseIpv4(groupAddress, group) || !IN_MULTICAST(ntohl(group.s_addr))) {
        return -EINVAL;
    }
    if (port == 0 || port > kMaxPort) {
        return -EINVAL;
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -errno;
    }
    sockaddr_in bindAddress{};
    bindAddress.sin_family = AF_INET;
    bindAddress.sin_port = htons(static_cast<std::uint16_t>(port));
    // Bound to the group, so that unicast traffic to the same port stays out.
    bindAddress.sin_addr = group;
    int result = setIntOption(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    if (result == 0) {
        result = setIntOption(fd, IPPROTO_IP, IP_PKTINFO, 1);
    }
    if (result == 0) {
        result = setIntOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
    }
    if (result == 0) {
        result = setIntOption(fd, IPPROTO_IP, IP_MULTICAST_LOOP, m_multicastLoop ? 1 : 0);
    }
    if (result == 0 && ::bind(fd, reinterpret_cast<const sockaddr*>(&bindAddress), sizeof bindAddress) != 0) {
        result = -errno;
    }
    if (result == 0) {
        result = m_loop.addFd(fd, EPOLLIN, [this](std::uint32_t) { onReadable(); });
    }
    if (result != 0) {
        ::close(fd);
        return result;
    }
    m_fd = fd;
    m_group = groupAddress;
    m_port = port;
    m_callback = std::move(callback);
    m_sentTtl = -1;
    return 0;
}

void MulticastServer::stop()
{
    if (m_fd < 0) {
        return;
    }
    // The callback is kept: stop() may be called from inside it.
    m_loop.removeFd(m_fd);
    ::close(m_fd);
    m_fd = -1;
}

int MulticastServer::setMulticastLoop(bool enable)
{
    m_multicastLoop = enable;
    if (m_fd < 0) {
        return 0;
    }
    return setIntOption(m_fd, IPPROTO_IP, IP_MULTICAST_LOOP, enable ? 1 : 0);
}

int MulticastServer::findInterfaceByAddress(const std::string& interfaceAddress, unsigned& index) const
{
    in_addr parsed{};
    if (!parseIpv4(interfaceAddress, parsed)) {
        return -EINVAL;
    }
    for (const Netadapter& adapter : m_adapters.getAdapters()) {
        if (adapter.hasIpv4Address(interfaceAddress)) {
            index = adapter.getInterfaceIndex();
            return 0;
        }
    }
    // The shared list may not have caught up (no link monitor running yet):
    // ask the kernel, without touching the list that others rely on.
    std::map<unsigned, Netadapter> current;
    const int result = rtnl::readAdapters(current);
    if (result != 0) {
        return result;
    }
    for (const auto& entry : current) {
        if (entry.second.hasIpv4Address(interfaceAddress)) {
            index = entry.first;
            return 0;
        }
    }
    return -EADDRNOTAVAIL;
}

int MulticastServer::addInterface(const std::string& interfaceAddress)
{
    if (m_fd < 0) {
        return -EBADF;
    }
    unsigned index = 0;
    const int result = findInterfaceByAddress(interfaceAddress, index);
    if (result != 0) {
        return result;
    }
    return addInterface(static_cast<int>(index));
}

int MulticastServer::addInterface(int interfaceIndex)
{
    if (m_fd < 0) {
        return -EBADF;
    }
    if (interfaceIndex <= 0) {
        return -ENODEV;
    }
    ip_mreqn request{};
    parseIpv4(m_group, request.imr_multiaddr);
    request.imr_ifindex = interfaceIndex;
    if (::setsockopt(m_fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request) != 0) {
        // The kernel refuses a second join of the same group and interface;
        // for the caller that is success.
        return errno == EADDRINUSE ? 0 : -errno;
    }
    return 0;
}

int MulticastServer::dropInterface(int interfaceIndex)
{
    if (m_fd < 0 || interfaceIndex <= 0) {
        return 0;
    }
    ip_mreqn request{};
    parseIpv4(m_group, request.imr_multiaddr);
    request.imr_ifindex = interfaceIndex;
    if (::setsockopt(m_fd, IPPROTO_IP, IP_DROP_MEMBERSHIP, &request, sizeof request) != 0) {
        // Never joined (EADDRNOTAVAIL) or the interface is gone (ENODEV): the
        // membership the caller wants gone does not exist.
        if (errno == EADDRNOTAVAIL || errno == ENODEV || errno == ENOENT) {
            return 0;
        }
        return -errno;
    }
    return 0;
}

int MulticastServer::receiveTelegram(void* buffer, unsigned size, Netadapter& from, int& interfaceIndex)
{
    std::string senderAddress;
    return receiveTelegram(buffer, size, from, interfaceIndex, senderAddress);
}

int MulticastServer::receiveTelegram(void* buffer, unsigned size, Netadapter& from, int& interfaceIndex,
                                     std::string& senderAddress)
{
    ++m_receiveCalls;
    interfaceIndex = 0;
    senderAddress.clear();
    if (m_fd < 0) {
        return -EBADF;
    }
    iovec iov{};
    iov.iov_base = buffer;
    iov.iov_len = size;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
    sockaddr_in sender{};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    // MSG_TRUNC makes the kernel report the full length of a datagram that did
    // not fit, which is how an oversized one is recognised.
    const ssize_t n = ::recvmsg(m_fd, &message, MSG_TRUNC | MSG_DONTWAIT);
    if (n < 0) {
        return -errno;
    }
    if (static_cast<std::size_t>(n) > size || (message.msg_flags & MSG_TRUNC) != 0) {
        return -EMSGSIZE;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            interfaceIndex = info.ipi_ifindex;
        }
    }
    char senderText[INET_ADDRSTRLEN];
    if (message.msg_namelen >= sizeof sender && sender.sin_family == AF_INET &&
        ::inet_ntop(AF_INET, &sender.sin_addr, senderText, sizeof senderText) != nullptr) {
        senderAddress = senderText;
    }
    from = Netadapter();
    if (interfaceIndex > 0 && m_adapters.contains(static_cast<unsigned>(interfaceIndex))) {
        from = m_adapters.getAdapterByInterfaceIndex(static_cast<unsigned>(interfaceIndex));
    }
    return static_cast<int>(n);
}

int MulticastServer::send(unsigned interfaceIndex, std::uint32_t sourceAddress, const std::string& telegram,
                          unsigned ttl)
{
    if (m_fd < 0) {
        return -EBADF;
    }
    if (interfaceIndex == 0) {
        return -ENODEV;
    }
    if (ttl > kMaxTtl) {
        return -EINVAL;
    }
    if (m_sentTtl != static_cast<int>(ttl)) {
        const int result = setIntOption(m_fd, IPPROTO_IP, IP_MULTICAST_TTL, static_cast<int>(ttl));
        if (result != 0) {
            return result;
        }
        m_sentTtl = static_cast<int>(ttl);
    }
    sockaddr_in destination{};
    destination.sin_family = AF_INET;
    destination.sin_port = htons(static_cast<std::uint16_t>(m_port));
    parseIpv4(m_group, destination.sin_addr);

    iovec iov{};
    iov.iov_base = const_cast<char*>(telegram.data());
    iov.iov_len = telegram.size();
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &destination;
    message.msg_namelen = sizeof destination;
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&message);
    c->cmsg_level = IPPROTO_IP;
    c->cmsg_type = IP_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(interfaceIndex);
    info.ipi_spec_dst.s_addr = sourceAddress;
    std::memcpy(CMSG_DATA(c), &info, sizeof info);

    const ssize_t n = ::sendmsg(m_fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0) {
        return -errno;
    }
    return static_cast<int>(n);
}

int MulticastServer::sendOverInterface(const Netadapter& adapter, const std::string& telegram, unsigned ttl)
{
    return send(adapter.getInterfaceIndex(), INADDR_ANY, telegram, ttl);
}

int MulticastServer::sendOverInterfaceByAddress(const std::string& interfaceAddress,
                                                const std::string& telegram, unsigned ttl)
{
    if (m_fd < 0) {
        return -EBADF;
    }
    unsigned index = 0;
    const int result = findInterfaceByAddress(interfaceAddress, index);
    if (result != 0) {
        return result;
    }
    in_addr source{};
    parseIpv4(interfaceAddress, source);
    return send(index, source.s_addr, telegram, ttl);
}

void MulticastServer::onReadable()
{
    const std::uint64_t before = m_receiveCalls;
    if (m_callback) {
        m_callback(*this);
    }
    if (m_fd >= 0 && m_receiveCalls == before) {
        // Nobody read: drop one datagram, or level-triggered epoll would call
        // back forever.
        char discard = 0;
        [[maybe_unused]] const ssize_t n = ::recv(m_fd, &discard, sizeof discard, MSG_DONTWAIT | MSG_TRUNC);
    }
}

}  // namespace orv::communication
