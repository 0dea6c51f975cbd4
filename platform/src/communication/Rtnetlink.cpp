#include "Rtnetlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

namespace orv::communication::rtnl {

namespace {

// A dump the kernel marks as interrupted is simply asked for again.
constexpr int kDumpAttempts = 5;

struct LinkAttributes
{
    const nlattr* name = nullptr;
};

int linkAttribute(const nlattr* attr, void* data)
{
    auto* out = static_cast<LinkAttributes*>(data);
    if (mnl_attr_type_valid(attr, IFLA_MAX) < 0) {
        return MNL_CB_OK;
    }
    if (mnl_attr_get_type(attr) == IFLA_IFNAME && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) >= 0) {
        out->name = attr;
    }
    return MNL_CB_OK;
}

struct AddressAttributes
{
    const nlattr* local = nullptr;
    const nlattr* address = nullptr;
};

int addressAttribute(const nlattr* attr, void* data)
{
    auto* out = static_cast<AddressAttributes*>(data);
    if (mnl_attr_type_valid(attr, IFA_MAX) < 0) {
        return MNL_CB_OK;
    }
    const auto type = mnl_attr_get_type(attr);
    if ((type == IFA_LOCAL || type == IFA_ADDRESS) && mnl_attr_get_payload_len(attr) == sizeof(in_addr)) {
        (type == IFA_LOCAL ? out->local : out->address) = attr;
    }
    return MNL_CB_OK;
}

struct SocketCloser
{
    void operator()(mnl_socket* socket) const { mnl_socket_close(socket); }
};

}  // namespace

bool parseLink(const nlmsghdr* nlh, Netadapter& adapter)
{
    if ((nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) ||
        nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifinfomsg))) {
        return false;
    }
    const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    LinkAttributes attributes;
    if (mnl_attr_parse(nlh, sizeof(*info), linkAttribute, &attributes) < 0 || attributes.name == nullptr ||
        info->ifi_index <= 0) {
        return false;
    }
    adapter.setName(mnl_attr_get_str(attributes.name));
    adapter.setInterfaceIndex(static_cast<unsigned>(info->ifi_index));
    adapter.setLinkType(info->ifi_type);
    adapter.setUp((info->ifi_flags & IFF_UP) != 0);
    return true;
}

bool parseIpv4Address(const nlmsghdr* nlh, unsigned& index, Ipv4Address& address)
{
    if ((nlh->nlmsg_type != RTM_NEWADDR && nlh->nlmsg_type != RTM_DELADDR) ||
        nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifaddrmsg))) {
        return false;
    }
    const auto* info = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(nlh));
    if (info->ifa_family != AF_INET || info->ifa_prefixlen > 32) {
        return false;
    }
    AddressAttributes attributes;
    if (mnl_attr_parse(nlh, sizeof(*info), addressAttribute, &attributes) < 0) {
        return false;
    }
    // On point-to-point links IFA_ADDRESS is the peer; IFA_LOCAL is ours.
    const nlattr* attr = attributes.local != nullptr ? attributes.local : attributes.address;
    if (attr == nullptr) {
        return false;
    }
    char text[INET_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET, mnl_attr_get_payload(attr), text, sizeof text) == nullptr) {
        return false;
    }
    index = info->ifa_index;
    address.address = text;
    address.mask = prefixToMask(info->ifa_prefixlen);
    return true;
}

std::string prefixToMask(unsigned prefixLength)
{
    if (prefixLength > 32) {
        prefixLength = 32;
    }
    const std::uint32_t mask = prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - prefixLength);
    in_addr raw{};
    raw.s_addr = htonl(mask);
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &raw, text, sizeof text);
    return text;
}

int requestDump(mnl_socket* socket, std::uint16_t type, std::uint32_t seq)
{
    char request[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = mnl_nlmsg_put_header(request);
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    nlh->nlmsg_seq = seq;
    if (type == RTM_GETLINK) {
        auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
        info->ifi_family = AF_UNSPEC;
    } else {
        auto* info = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifaddrmsg)));
        info->ifa_family = AF_INET;
    }
    if (mnl_socket_sendto(socket, nlh, nlh->nlmsg_len) < 0) {
        return -errno;
    }
    return 0;
}

bool forEachMessage(const void* datagram, std::size_t size, const std::function<bool(const nlmsghdr*)>& handler)
{
    const auto* at = static_cast<const char*>(datagram);
    std::size_t left = size;
    while (left >= sizeof(nlmsghdr)) {
        const auto* nlh = reinterpret_cast<const nlmsghdr*>(at);
        const std::size_t length = nlh->nlmsg_len;
        if (length < sizeof(nlmsghdr) || length > left) {
            return false;
        }
        if (!handler(nlh)) {
            return true;
        }
        // The last message of a datagram may lack its alignment padding.
        const std::size_t step = std::min<std::size_t>(NLMSG_ALIGN(length), left);
        at += step;
        left -= step;
    }
    return true;
}

int dumpReply(const void* datagram, std::size_t size, std::uint32_t seq, unsigned portid,
              const MessageHandler& handler)
{
    int result = 1;
    const bool wellFormed = forEachMessage(datagram, size, [&](const nlmsghdr* nlh) {
        // The same checks as libmnl's callback runner, which this replaces.
        if (nlh->nlmsg_pid != 0 && portid != 0 && nlh->nlmsg_pid != portid) {
            result = -ESRCH;
            return false;
        }
        if (nlh->nlmsg_seq != 0 && seq != 0 && nlh->nlmsg_seq != seq) {
            result = -EPROTO;
            return false;
        }
        if ((nlh->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            result = -EINTR;
            return false;
        }
        if (nlh->nlmsg_type >= NLMSG_MIN_TYPE) {
            handler(nlh);
            return true;
        }
        switch (nlh->nlmsg_type) {
            case NLMSG_ERROR: {
                if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(nlmsgerr))) {
                    result = -EBADMSG;
                    return false;
                }
                const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(nlh));
                // An error of 0 is an acknowledgement: the request is done.
                result = error->error == 0 ? 0 : (error->error < 0 ? error->error : -EPROTO);
                return false;
            }
            case NLMSG_DONE:
                result = 0;
                return false;
            default:  // NLMSG_NOOP, NLMSG_OVERRUN and the reserved types
                return true;
        }
    });
    return wellFormed ? result : -EBADMSG;
}

long receiveFromKernel(int fd, void* buffer, std::size_t size, int flags)
{
    for (;;) {
        sockaddr_nl from{};
        iovec part{buffer, size};
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        const ssize_t n = ::recvmsg(fd, &message, flags);
        if (n < 0) {
            return -errno;
        }
        if (message.msg_namelen != sizeof from || from.nl_pid != 0) {
            continue;
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            return -ENOSPC;
        }
        return static_cast<long>(n);
    }
}

int dump(mnl_socket* socket, std::uint16_t type, std::uint32_t seq, const MessageHandler& handler)
{
    if (int rc = requestDump(socket, type, seq); rc < 0) {
        return rc;
    }
    std::vector<char> buffer(kReceiveBufferSize);
    const unsigned portid = mnl_socket_get_portid(socket);
    for (;;) {
        const long n = receiveFromKernel(mnl_socket_get_fd(socket), buffer.data(), buffer.size(), 0);
        if (n == -EINTR) {
            continue;
        }
        if (n < 0) {
            return static_cast<int>(n);
        }
        const int ret = dumpReply(buffer.data(), static_cast<std::size_t>(n), seq, portid, handler);
        if (ret <= 0) {
            return ret;
        }
    }
}

int readAdapters(std::map<unsigned, Netadapter>& adapters)
{
    int result = -EINTR;
    for (int attempt = 0; attempt < kDumpAttempts && result == -EINTR; ++attempt) {
        std::unique_ptr<mnl_socket, SocketCloser> socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
        if (!socket) {
            return -errno;
        }
        if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
            return -errno;
        }
        std::map<unsigned, Netadapter> found;
        result = dump(socket.get(), RTM_GETLINK, 1, [&found](const nlmsghdr* nlh) {
            Netadapter adapter;
            if (parseLink(nlh, adapter)) {
                found[adapter.getInterfaceIndex()] = adapter;
            }
        });
        if (result != 0) {
            continue;
        }
        result = dump(socket.get(), RTM_GETADDR, 2, [&found](const nlmsghdr* nlh) {
            unsigned index = 0;
            Ipv4Address address;
            if (parseIpv4Address(nlh, index, address)) {
                const auto it = found.find(index);
                if (it != found.end()) {
                    it->second.addIpv4Address(address);
                }
            }
        });
        if (result == 0) {
            for (auto& entry : found) {
                entry.second.readSysfsIdentity();
            }
            adapters.swap(found);
        }
    }
    return result;
}

}  // namespace orv::communication::rtnl
