#include "Rtnetlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

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

int forwardMessage(const nlmsghdr* nlh, void* data)
{
    (*static_cast<const MessageHandler*>(data))(nlh);
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

int dump(mnl_socket* socket, std::uint16_t type, std::uint32_t seq, const MessageHandler& handler)
{
    if (int rc = requestDump(socket, type, seq); rc < 0) {
        return rc;
    }
    std::vector<char> buffer(kReceiveBufferSize);
    const unsigned portid = mnl_socket_get_portid(socket);
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(socket, buffer.data(), buffer.size());
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        const int ret = mnl_cb_run(buffer.data(), static_cast<std::size_t>(n), seq, portid, forwardMessage,
                                   const_cast<MessageHandler*>(&handler));
        if (ret == MNL_CB_STOP) {
            return 0;
        }
        if (ret < 0) {
            return errno != 0 ? -errno : -EPROTO;
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
