#pragma once

#include "Acl.h"
#include "BrokerCore.h"
#include "BrokerSink.h"
#include "Limits.h"
#include "LogLimiter.h"
#include "TcpPeerLookup.h"

#include <orv/sys/Timer.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace orv::sys {
class EventLoop;
}

namespace vela {

class FrameConnection;

// The broker on an EventLoop: the listening sockets, one FrameConnection per
// peer, the peer's identity and rights learnt when it is accepted, the
// connection quotas, and the timer that expires unanswered set requests and
// silent new connections. The message handling itself is BrokerCore's.
class Broker : private BrokerSink
{
public:
    // File descriptors the broker keeps for itself besides its connections:
    // listening sockets, the socket-table lookup, epoll, its eventfd and
    // timers, standard streams, and the connection being turned away.
    static constexpr std::size_t kReservedFds = 16;

    struct Options
    {
        std::string address = "127.0.0.1";
        std::uint16_t port = 11122;  // 0: any free port (see port())
        // Also listen on a Unix socket at this path (empty: not).
        std::string unixPath;
        // Listening sockets handed over by the service manager (socket
        // activation). When any are given they are used instead of address,
        // port and unixPath; the broker then never binds a port itself, so the
        // port stays held while the broker restarts.
        std::vector<int> inheritedFds;
        Limits limits;
        Acl acl = Acl::shipped();
        bool quiet = false;  // no per-connection log lines
    };

    Broker(orv::sys::EventLoop& loop, Options options);
    ~Broker() override;
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Binds and listens (or takes the inherited sockets). 0 or a negative
    // errno.
    int start();
    // The TCP port listened on (the chosen one when Options::port was 0).
    std::uint16_t port() const { return m_port; }
    // "127.0.0.1:11122", "unix:/run/vela/bus.sock": one per listening socket.
    std::vector<std::string> listening() const;
    // Connections accepted at a time, in total and per user; below the
    // Limits when the process's fd limit leaves less room.
    std::size_t maxConnections() const { return m_maxConnections; }
    std::size_t maxConnectionsPerUser() const { return m_maxPerUser; }
    const BrokerCore& core() const { return m_core; }

private:
    struct Listener
    {
        int fd = -1;
        bool unix = false;
    };
    struct Peer
    {
        std::unique_ptr<FrameConnection> conn;
        std::int64_t user = 0;  // key of the per-user count
    };

    orv::sys::EventLoop& m_loop;
    Options m_options;
    BrokerCore m_core;
    TcpPeerLookup m_tcpLookup;
    LogLimiter m_log;
    std::vector<Listener> m_listeners;
    // The Unix socket file this broker made, removed again when it ends.
    std::string m_unixPathMade;
    std::uint16_t m_port = 0;
    std::size_t m_maxConnections = 0;
    std::size_t m_maxPerUser = 0;
    ConnId m_nextConn = 1;
    std::unordered_map<ConnId, Peer> m_conns;
    std::unordered_map<std::int64_t, std::size_t> m_perUser;
    std::size_t m_totalBacklog = 0;
    // Expires set requests and connections that do not say hello, while any
    // exist.
    orv::sys::Timer m_sweep;
    // Out of fds, accept fails while the listening socket stays readable;
    // listening pauses instead of spinning.
    orv::sys::Timer m_acceptPause;

    int addListener(int fd, bool unix);
    void onAccept(const Listener& listener);
    // Answers a connection the quotas leave no room for, and closes it.
    void turnAway(int fd, const std::string& reason);
    void onClosed(ConnId conn, int err);
    void armSweep();
    void pauseAccepting();
    // Lowers the connection quotas to what the fd limit leaves room for.
    void fitConnectionsToFdLimit();

    void send(ConnId conn, std::string payload) override;
    void closeAfterFlush(ConnId conn) override;
    void log(const std::string& line) override;
    std::size_t backlog(ConnId conn) const override;
    void wantDrain(ConnId conn, std::size_t mark) override;
};

}  // namespace vela
