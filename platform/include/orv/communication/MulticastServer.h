#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace orv::sys {
class EventLoop;
}

namespace orv::communication {

class Netadapter;
class NetadapterList;

// A UDP socket bound to one IPv4 multicast group and port, registered on the
// event loop. Group membership is per interface and per socket
// (IP_MULTICAST_ALL is off): the server hears the group only on the
// interfaces added to it. Every operation returns 0 (or a byte count) on
// success and a negative errno on failure; nothing throws.
class MulticastServer
{
public:
    // Called on the loop's thread when a datagram is waiting; it is expected
    // to call receiveTelegram(). The result is for the caller's own use. A
    // callback that reads nothing makes the server drop that datagram, so an
    // unread datagram cannot keep the loop spinning. The callback may stop()
    // the server but must not destroy it.
    using ReceiveCallback = std::function<int(MulticastServer&)>;

    MulticastServer(NetadapterList& adapters, orv::sys::EventLoop& loop);
    ~MulticastServer();
    MulticastServer(const MulticastServer&) = delete;
    MulticastServer& operator=(const MulticastServer&) = delete;

    // Opens the socket on group:port (dotted IPv4 group) and starts listening.
    // Negative on a bad group text, a port of 0 or above 65535, or a socket
    // error; a second start on a running server fails with -EALREADY.
    int start(const std::string& groupAddress, unsigned port, ReceiveCallback callback);
    void stop();
    bool isStarted() const { return m_fd >= 0; }

    // Whether this host's own sends come back to its sockets (IP_MULTICAST_LOOP).
    // Before start() the choice is kept and applied when the socket opens.
    int setMulticastLoop(bool enable);

    // Joins the group on the interface that has this IPv4 address, or on the
    // interface with this index. Joining twice is harmless (0).
    int addInterface(const std::string& interfaceAddress);
    int addInterface(int interfaceIndex);
    // Leaves the group on that interface; harmless (0) when never joined or
    // when the interface is gone.
    int dropInterface(int interfaceIndex);

    // Reads one datagram into buffer. Returns its length, 0 for an empty
    // datagram, or negative: -EAGAIN when nothing is waiting, -EMSGSIZE when the
    // datagram was longer than size (it is dropped). from receives a copy of
    // the adapter it came in on (IP_PKTINFO; an empty adapter when the index is
    // no longer known) and interfaceIndex that index.
    int receiveTelegram(void* buffer, unsigned size, Netadapter& from, int& interfaceIndex);
    // The same, and also the sender's IPv4 address as dotted text (empty when
    // nothing was read): a listener that wants to tell the modules on one
    // interface apart needs the source of each datagram.
    int receiveTelegram(void* buffer, unsigned size, Netadapter& from, int& interfaceIndex,
                        std::string& senderAddress);

    // Sends telegram to the group and port out of the given interface, with the
    // given multicast TTL (1 keeps it on the local link). Returns the bytes sent
    // or negative.
    int sendOverInterface(const Netadapter& adapter, const std::string& telegram, unsigned ttl);
    // The same, choosing the interface by one of its IPv4 addresses.
    int sendOverInterfaceByAddress(const std::string& interfaceAddress, const std::string& telegram,
                                   unsigned ttl);

    const std::string& groupAddress() const { return m_group; }
    unsigned port() const { return m_port; }

private:
    NetadapterList& m_adapters;
    orv::sys::EventLoop& m_loop;
    int m_fd = -1;
    std::string m_group;
    unsigned m_port = 0;
    ReceiveCallback m_callback;
    bool m_multicastLoop = true;
    int m_sentTtl = -1;                // IP_MULTICAST_TTL now set on the socket
    std::uint64_t m_receiveCalls = 0;  // lets onReadable() see whether the callback read

    void onReadable();
    // Index of the interface that has this IPv4 address: the shared list first,
    // then the kernel. 0 or a negative errno.
    int findInterfaceByAddress(const std::string& interfaceAddress, unsigned& index) const;
    int send(unsigned interfaceIndex, std::uint32_t sourceAddress, const std::string& telegram, unsigned ttl);
};

}  // namespace orv::communication
