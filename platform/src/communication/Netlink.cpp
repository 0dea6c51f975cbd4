// One rtnetlink socket carries both the dumps and the live notifications, so
// that they arrive in the order the kernel produced them. The first dump
// reports everything present; after it the shared list is the reference:
// events are derived by comparing each message with the list (a link that is
// new or comes up is an addition, one that goes down or is deleted a
// removal), which also absorbs duplicate notifications.
//
// When the kernel drops notifications because the socket overflowed
// (ENOBUFS), a further dump reconciles the list with the kernel and reports
// the differences, so no change is lost for good.
#include "orv/communication/Netlink.h"

#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <set>
#include <utility>
#include <vector>

#include "Rtnetlink.h"
#include "orv/communication/NetadapterList.h"
#include "orv/sys/EventLoop.h"

namespace orv::communication {

namespace {

// Room for bursts of notifications (a chain of modules powering up).
constexpr int kSocketBufferBytes = 1 << 20;
constexpr unsigned kMaxRefusedDumps = 3;

}  // namespace

struct Netlink::Impl
{
    // Order of a synchronisation: links first, then their addresses.
    enum class Phase
    {
        Idle,
        DumpingLinks,
        DumpingAddresses,
        Live
    };

    NetadapterList& adapters;
    orv::sys::EventLoop& loop;
    mnl_socket* socket = nullptr;
    int fd = -1;
    unsigned portid = 0;
    Callback callback;
    Phase phase = Phase::Idle;
    std::uint32_t seq = 0;
    bool initial = false;        // the first dump after start(): report everything
    bool resyncPending = false;  // notifications were lost during a dump
    unsigned overruns = 0;
    unsigned refusedDumps = 0;  // in a row
    // Bumped by stop(): a callback that stops the monitor ends the processing
    // of the buffer it came from.
    std::uint64_t generation = 0;
    std::set<unsigned> seenLinks;
    std::set<std::pair<unsigned, std::string>> seenAddresses;
    std::set<unsigned> reportedLinks;
    std::set<std::pair<unsigned, std::string>> reportedAddresses;
    std::vector<char> buffer;

    Impl(NetadapterList& a, orv::sys::EventLoop& l) : adapters(a), loop(l) {}

    void close()
    {
        if (socket != nullptr) {
            loop.removeFd(fd);
            mnl_socket_close(socket);
            socket = nullptr;
            fd = -1;
        }
        phase = Phase::Idle;
        ++generation;
    }

    bool dumping() const { return phase == Phase::DumpingLinks || phase == Phase::DumpingAddresses; }

    // Returns false when the callback stopped the monitor.
    bool report(event_t event, unsigned index, const std::string& address)
    {
        const std::uint64_t before = generation;
        if (callback) {
            callback(event, index, address);
        }
        return generation == before;
    }

    int requestDump(std::uint16_t type, Phase next)
    {
        if (int rc = rtnl::requestDump(socket, type, ++seq); rc < 0) {
            return rc;
        }
        phase = next;
        return 0;
    }

    int startSync()
    {
        seenLinks.clear();
        seenAddresses.clear();
        resyncPending = false;
        return requestDump(RTM_GETLINK, Phase::DumpingLinks);
    }

    bool onLink(const nlmsghdr* nlh, bool fromDump)
    {
        Netadapter adapter;
        if (!rtnl::parseLink(nlh, adapter)) {
            return true;
        }
        const unsigned index = adapter.getInterfaceIndex();
        const bool known = adapters.contains(index);
        if (nlh->nlmsg_type == RTM_DELLINK) {
            if (!known) {
                return true;
            }
            // Removal: the callback still finds the adapter.
            const bool goOn = report(LINK_REMOVED, index, "");
            adapters.removeAdapter(index);
            reportedLinks.erase(index);
            return goOn;
        }
        // Whatever a dump in progress learns, from itself or from a
        // notification that overtook it, counts as present.
        if (dumping()) {
            seenLinks.insert(index);
        }
        adapter.readSysfsIdentity();
        bool wasUp = false;
        if (known) {
            const Netadapter previous = adapters.getAdapterByInterfaceIndex(index);
            wasUp = previous.isUp();
            for (const Ipv4Address& address : previous.getIpv4Addresses()) {
                adapter.addIpv4Address(address);
            }
        }
        const bool firstReport = initial && fromDump && reportedLinks.count(index) == 0;
        if (firstReport || !known || (!wasUp && adapter.isUp())) {
            adapters.updateAdapter(adapter);
            reportedLinks.insert(index);
            return report(LINK_ADDED, index, "");
        }
        if (wasUp && !adapter.isUp()) {
            const bool goOn = report(LINK_REMOVED, index, "");
            adapters.updateAdapter(adapter);
            return goOn;
        }
        // Renames, carrier, MTU and the like: no event, but keep the copy current.
        adapters.updateAdapter(adapter);
        return true;
    }

    bool onAddress(const nlmsghdr* nlh, bool fromDump)
    {
        unsigned index = 0;
        Ipv4Address address;
        if (!rtnl::parseIpv4Address(nlh, index, address) || !adapters.contains(index)) {
            return true;
        }
        const bool present = adapters.getAdapterByInterfaceIndex(index).hasIpv4Address(address.address);
        const auto key = std::make_pair(index, address.address);
        if (nlh->nlmsg_type == RTM_DELADDR) {
            if (!present) {
                return true;
            }
            const bool goOn = report(ADDRESS_REMOVED, index, address.address);
            adapters.removeAddress(index, address.address);
            reportedAddresses.erase(key);
            return goOn;
        }
        if (dumping()) {
            seenAddresses.insert(key);
        }
        adapters.addAddress(index, address);
        const bool firstReport = initial && fromDump && reportedAddresses.count(key) == 0;
        if (firstReport || !present) {
            reportedAddresses.insert(key);
            return report(ADDRESS_ADDED, index, address.address);
        }
        return true;
    }

    // The end of a link dump: links the kernel no longer has go from the list.
    // A stale entry of the constructor's snapshot was never reported and goes
    // silently; any other is news (a notification was lost).
    bool finishLinks()
    {
        for (const Netadapter& adapter : adapters.getAdapters()) {
            const unsigned index = adapter.getInterfaceIndex();
            if (seenLinks.count(index) != 0) {
                continue;
            }
            if (reportedLinks.count(index) != 0 && !report(LINK_REMOVED, index, "")) {
                return false;
            }
            adapters.removeAdapter(index);
            reportedLinks.erase(index);
        }
        return requestDump(RTM_GETADDR, Phase::DumpingAddresses) == 0;
    }

    bool finishAddresses()
    {
        for (const Netadapter& adapter : adapters.getAdapters()) {
            for (const Ipv4Address& address : adapter.getIpv4Addresses()) {
                const auto key = std::make_pair(adapter.getInterfaceIndex(), address.address);
                if (seenAddresses.count(key) != 0) {
                    continue;
                }
                if (reportedAddresses.count(key) != 0 && !report(ADDRESS_REMOVED, key.first, key.second)) {
                    return false;
                }
                adapters.removeAddress(key.first, key.second);
                reportedAddresses.erase(key);
            }
        }
        phase = Phase::Live;
        refusedDumps = 0;
        if (initial) {
            initial = false;
            if (!report(COMPLETE, 0, "")) {
                return false;
            }
        }
        if (resyncPending) {
            return startSync() == 0;
        }
        return true;
    }

    // Handles one message; false when processing must end (stopped).
    bool onMessage(const nlmsghdr* nlh)
    {
        const bool fromDump =
            phase != Phase::Live && phase != Phase::Idle && nlh->nlmsg_seq == seq && nlh->nlmsg_pid == portid;
        switch (nlh->nlmsg_type) {
            case RTM_NEWLINK:
            case RTM_DELLINK:
                return onLink(nlh, fromDump);
            case RTM_NEWADDR:
            case RTM_DELADDR:
                return onAddress(nlh, fromDump);
            case NLMSG_DONE:
                if (!fromDump) {
                    return true;
                }
                return phase == Phase::DumpingLinks ? finishLinks() : finishAddresses();
            case NLMSG_ERROR:
                if (fromDump) {
                    // The dump was refused; ask again rather than stay
                    // unsynchronised, but do not insist against a kernel that
                    // keeps refusing: live notifications still arrive.
                    if (++refusedDumps <= kMaxRefusedDumps) {
                        return startSync() == 0;
                    }
                    phase = Phase::Live;
                }
                return true;
            default:
                return true;
        }
    }

    void onReadable()
    {
        const std::uint64_t myGeneration = generation;
        for (;;) {
            const long n = rtnl::receiveFromKernel(fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (n < 0) {
                if (n == -ENOBUFS || n == -ENOSPC) {
                    ++overruns;
                    // Notifications were dropped (by the kernel, or cut off
                    // here): compare with the kernel again.
                    if (phase == Phase::Live) {
                        startSync();
                    } else {
                        resyncPending = true;
                    }
                    continue;
                }
                return;  // EAGAIN, or an error that the next round reports again
            }
            bool stopped = false;
            rtnl::forEachMessage(buffer.data(), static_cast<std::size_t>(n), [&](const nlmsghdr* nlh) {
                stopped = !onMessage(nlh) || generation != myGeneration;
                return !stopped;
            });
            if (stopped) {
                return;
            }
        }
    }
};

Netlink::Netlink(NetadapterList& adapters, orv::sys::EventLoop& loop)
    : m_impl(std::make_unique<Impl>(adapters, loop))
{
}

Netlink::~Netlink()
{
    m_impl->close();
}

int Netlink::start(Callback callback)
{
    Impl& impl = *m_impl;
    if (impl.socket != nullptr) {
        return -EALREADY;
    }
    impl.socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (impl.socket == nullptr) {
        return -errno;
    }
    const int size = kSocketBufferBytes;
    const int fd = mnl_socket_get_fd(impl.socket);
    // SO_RCVBUFFORCE passes the system limit (root only); SO_RCVBUF is capped by it.
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    }
    if (mnl_socket_bind(impl.socket, RTMGRP_LINK | RTMGRP_IPV4_IFADDR, MNL_SOCKET_AUTOPID) != 0) {
        const int err = errno;
        mnl_socket_close(impl.socket);
        impl.socket = nullptr;
        return -err;
    }
    impl.fd = fd;
    impl.portid = mnl_socket_get_portid(impl.socket);
    impl.buffer.resize(rtnl::kReceiveBufferSize);
    impl.callback = std::move(callback);
    impl.initial = true;
    impl.reportedLinks.clear();
    impl.reportedAddresses.clear();
    int result = impl.loop.addFd(impl.fd, EPOLLIN, [&impl](std::uint32_t) { impl.onReadable(); });
    if (result == 0) {
        result = impl.startSync();
    }
    if (result != 0) {
        impl.close();
    }
    return result;
}

void Netlink::stop()
{
    m_impl->close();
}

unsigned Netlink::overruns() const
{
    return m_impl->overruns;
}

}  // namespace orv::communication
