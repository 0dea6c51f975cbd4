#pragma once

#include <functional>
#include <memory>
#include <string>

namespace orv::sys {
class EventLoop;
}

namespace orv::communication {

class NetadapterList;

// Follows the kernel's links and IPv4 addresses over an rtnetlink socket
// (libmnl) on the event loop and mirrors them into a shared NetadapterList.
//
// start() first reports what is present (LINK_ADDED for every link, then
// ADDRESS_ADDED for every IPv4 address), then COMPLETE, then live changes.
// A link is reported LINK_ADDED when it appears or comes up, LINK_REMOVED
// when it goes down or disappears. The list is updated before the callback for
// additions and after it for removals, so that the callback can still look up
// the adapter that is going away.
class Netlink
{
public:
    enum event_t
    {
        LINK_ADDED = 0,
        LINK_REMOVED = 1,
        ADDRESS_ADDED = 2,
        ADDRESS_REMOVED = 3,
        COMPLETE = 4
    };
    // (event, interface index, dotted IPv4 address text or "" for link events)
    using Callback = std::function<void(event_t, unsigned int, const std::string&)>;

    Netlink(NetadapterList& adapters, orv::sys::EventLoop& loop);
    ~Netlink();
    Netlink(const Netlink&) = delete;
    Netlink& operator=(const Netlink&) = delete;

    // Opens the socket, subscribes to link and IPv4 address groups and queues
    // the initial dump. 0 or a negative errno.
    int start(Callback callback);
    void stop();

    // How often the kernel dropped notifications because they came faster
    // than the loop read them; each time a fresh dump caught up, reporting
    // only what had changed.
    unsigned overruns() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace orv::communication
