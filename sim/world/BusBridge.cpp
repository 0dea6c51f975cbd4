#include "BusBridge.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace tsdsim {

namespace {

constexpr const char* kBridgeName = "bus";

void writeSysctl(const char* path, const char* value)
{
    const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        const ssize_t n = ::write(fd, value, std::strlen(value));
        (void)n;
        ::close(fd);
    }
}

nlmsghdr* linkRequest(char* buffer, std::uint16_t type, std::uint16_t flags, unsigned sequence, int index,
                      unsigned char family = AF_UNSPEC)
{
    nlmsghdr* nlh = mnl_nlmsg_put_header(buffer);
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    nlh->nlmsg_seq = sequence;
    auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg)));
    info->ifi_family = family;
    info->ifi_index = index;
    return nlh;
}

struct LinkAnswer
{
    int index = -1;
    bool haveStats = false;
    rtnl_link_stats64 stats{};
};

int linkAttribute(const nlattr* attr, void* data)
{
    auto* answer = static_cast<LinkAnswer*>(data);
    if (mnl_attr_get_type(attr) == IFLA_STATS64 && mnl_attr_get_payload_len(attr) >= sizeof(rtnl_link_stats64)) {
        std::memcpy(&answer->stats, mnl_attr_get_payload(attr), sizeof(rtnl_link_stats64));
        answer->haveStats = true;
    }
    return MNL_CB_OK;
}

int linkMessage(const nlmsghdr* nlh, void* data)
{
    if (nlh->nlmsg_type != RTM_NEWLINK || nlh->nlmsg_len < mnl_nlmsg_size(sizeof(ifinfomsg))) {
        return MNL_CB_OK;
    }
    auto* answer = static_cast<LinkAnswer*>(data);
    answer->index = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh))->ifi_index;
    mnl_attr_parse(nlh, sizeof(ifinfomsg), linkAttribute, answer);
    // A single link was asked for: no end-of-dump follows.
    return MNL_CB_STOP;
}

int dumpMessage(const nlmsghdr* nlh, void* data)
{
    LinkAnswer answer;
    linkMessage(nlh, &answer);
    if (answer.index > 0 && answer.haveStats) {
        BusBridge::Counters& c = (*static_cast<std::map<int, BusBridge::Counters>*>(data))[answer.index];
        c.fromModule = answer.stats.rx_packets;
        c.toModule = answer.stats.tx_packets;
    }
    return MNL_CB_OK;
}

}  // namespace

BusBridge::BusBridge()
{
    // A thread of its own moves into a new network namespace, so that the
    // rtnetlink socket it opens there acts on that namespace from then on;
    // the rest of the simulator never leaves its own.
    std::string failure;
    std::thread maker([&] {
        if (::unshare(CLONE_NEWNET) < 0) {
            failure = std::string("unshare: ") + std::strerror(errno);
            return;
        }
        m_netns = ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        if (m_netns < 0) {
            failure = std::string("open the bus namespace: ") + std::strerror(errno);
            return;
        }
        // The bridge and its ports would otherwise send router solicitations
        // and listener reports onto the bus.
        writeSysctl("/proc/sys/net/ipv6/conf/all/disable_ipv6", "1");
        writeSysctl("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
        m_socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
        if (m_socket == nullptr || mnl_socket_bind(m_socket, 0, MNL_SOCKET_AUTOPID) < 0) {
            failure = std::string("rtnetlink: ") + std::strerror(errno);
        }
    });
    maker.join();
    if (failure.empty()) {
        m_portId = mnl_socket_get_portid(m_socket);
        char buffer[MNL_SOCKET_BUFFER_SIZE];
        nlmsghdr* nlh = linkRequest(buffer, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, ++m_sequence, 0);
        mnl_attr_put_strz(nlh, IFLA_IFNAME, kBridgeName);
        nlattr* info = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
        mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "bridge");
        nlattr* data = mnl_attr_nest_start(nlh, IFLA_INFO_DATA);
        mnl_attr_put_u8(nlh, IFLA_BR_MCAST_SNOOPING, 0);
        mnl_attr_put_u32(nlh, IFLA_BR_STP_STATE, 0);
        mnl_attr_nest_end(nlh, data);
        mnl_attr_nest_end(nlh, info);
        if (!request(nlh, "create the bridge") || (m_bridge = linkIndex(kBridgeName)) < 0 || !setUp(m_bridge)) {
            failure = m_error;
        }
    }
    if (!failure.empty()) {
        if (m_socket != nullptr) {
            mnl_socket_close(m_socket);
        }
        if (m_netns >= 0) {
            ::close(m_netns);
        }
        throw std::runtime_error("tsdsim: bus: " + failure);
    }
}

BusBridge::~BusBridge()
{
    mnl_socket_close(m_socket);
    ::close(m_netns);
}

bool BusBridge::request(nlmsghdr* nlh, const char* what)
{
    return exchange(nlh, what, nullptr, nullptr);
}

bool BusBridge::exchange(nlmsghdr* nlh, const char* what, int (*callback)(const nlmsghdr*, void*), void* data)
{
    if (mnl_socket_sendto(m_socket, nlh, nlh->nlmsg_len) < 0) {
        m_error = std::string(what) + ": " + std::strerror(errno);
        return false;
    }
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(m_socket, buffer, sizeof buffer);
        if (n < 0) {
            m_error = std::string(what) + ": " + std::strerror(errno);
            return false;
        }
        const int rc = mnl_cb_run(buffer, static_cast<std::size_t>(n), nlh->nlmsg_seq, m_portId, callback, data);
        if (rc < 0) {
            m_error = std::string(what) + ": " + std::strerror(errno);
            return false;
        }
        if (rc == MNL_CB_STOP) {
            return true;
        }
    }
}

bool BusBridge::setUp(int index)
{
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_NEWLINK, NLM_F_ACK, ++m_sequence, index);
    auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    info->ifi_flags = IFF_UP;
    info->ifi_change = IFF_UP;
    return request(nlh, "set a bus port up");
}

int BusBridge::linkIndex(const std::string& name)
{
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_GETLINK, 0, ++m_sequence, 0);
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
    LinkAnswer answer;
    if (!exchange(nlh, "find a bus port", linkMessage, &answer)) {
        return -1;
    }
    return answer.index;
}

int BusBridge::addPort(int portId, int moduleNetnsFd, const std::string& ifname)
{
    const std::string name = "p" + std::to_string(portId);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, ++m_sequence, 0);
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
    mnl_attr_put_u32(nlh, IFLA_MASTER, static_cast<std::uint32_t>(m_bridge));
    nlattr* info = mnl_attr_nest_start(nlh, IFLA_LINKINFO);
    mnl_attr_put_strz(nlh, IFLA_INFO_KIND, "veth");
    nlattr* data = mnl_attr_nest_start(nlh, IFLA_INFO_DATA);
    nlattr* peer = mnl_attr_nest_start(nlh, VETH_INFO_PEER);
    mnl_nlmsg_put_extra_header(nlh, sizeof(ifinfomsg));
    mnl_attr_put_strz(nlh, IFLA_IFNAME, ifname.c_str());
    mnl_attr_put_u32(nlh, IFLA_NET_NS_FD, static_cast<std::uint32_t>(moduleNetnsFd));
    mnl_attr_nest_end(nlh, peer);
    mnl_attr_nest_end(nlh, data);
    mnl_attr_nest_end(nlh, info);
    if (!request(nlh, ("create " + ifname).c_str())) {
        return -1;
    }
    const int index = linkIndex(name);
    if (index < 0 || !setUp(index)) {
        if (index >= 0) {
            removePort(index);
        }
        return -1;
    }
    return index;
}

int BusBridge::movePort(int index, BusBridge& to, int portId)
{
    // Renamed on the way: the other bus numbers its ports itself.
    const std::string name = "p" + std::to_string(portId);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_NEWLINK, NLM_F_ACK, ++m_sequence, index);
    mnl_attr_put_u32(nlh, IFLA_NET_NS_FD, static_cast<std::uint32_t>(to.m_netns));
    mnl_attr_put_strz(nlh, IFLA_IFNAME, name.c_str());
    if (!request(nlh, "move a bus port")) {
        return -1;
    }
    // The kernel took it out of this bridge and set it down as it left.
    const int moved = to.linkIndex(name);
    if (moved < 0 || !to.setForwarding(moved, true) || !to.setUp(moved)) {
        m_error = to.error();
        if (moved >= 0) {
            to.removePort(moved);
        }
        return -1;
    }
    return moved;
}

bool BusBridge::removePort(int index)
{
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    return request(linkRequest(buffer, RTM_DELLINK, NLM_F_ACK, ++m_sequence, index), "delete a bus port");
}

bool BusBridge::setForwarding(int index, bool forwarding)
{
    // A port outside the bridge is cut off for good: its carrier coming back
    // would re-enable a merely disabled bridge port.
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_NEWLINK, NLM_F_ACK, ++m_sequence, index);
    mnl_attr_put_u32(nlh, IFLA_MASTER, forwarding ? static_cast<std::uint32_t>(m_bridge) : 0u);
    return request(nlh, forwarding ? "plug a bus port" : "cut a bus port");
}

bool BusBridge::allCounters(std::map<int, Counters>& out)
{
    // One dump for every port: a cabling change must not wait for one
    // request per module.
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = linkRequest(buffer, RTM_GETLINK, NLM_F_DUMP, ++m_sequence, 0);
    out.clear();
    return exchange(nlh, "read the bus ports' counters", dumpMessage, &out);
}

}  // namespace tsdsim
