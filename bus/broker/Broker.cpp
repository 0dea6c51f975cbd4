#include "Broker.h"

#include "Frame.h"
#include "FrameConnection.h"
#include "Protocol.h"
#include "Socket.h"

#include <orv/sys/EventLoop.h>

#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vela {

namespace {

// How often waiting set requests and silent new connections are checked
// against their deadline while any exist (ms); an expiry may come this much
// late.
constexpr std::chrono::milliseconds kSweep(100);
// Reads (64 KiB each) of one peer per wake-up while no reader is behind.
constexpr int kReadsPerWakeup = 16;
// Accepts per wake-up, so that a connection storm cannot starve the peers
// already connected.
constexpr int kAcceptsPerWakeup = 64;
// Peers whose user is unknown share one count of the per-user quota.
constexpr std::int64_t kUnknownUser = -1;

}  // namespace

Broker::Broker(orv::sys::EventLoop& loop, Options options)
    : m_loop(loop),
      m_options(std::move(options)),
      m_core(*this, m_options.limits),
      m_log(m_options.limits.logRate, m_options.limits.logBurst),
      m_sweep(loop),
      m_acceptPause(loop)
{
}

Broker::~Broker()
{
    m_conns.clear();
    for (const Listener& l : m_listeners) {
        m_loop.removeFd(l.fd);
        ::close(l.fd);
    }
    if (!m_unixPathMade.empty()) {
        ::unlink(m_unixPathMade.c_str());
    }
}

int Broker::start()
{
    fitConnectionsToFdLimit();
    if (!m_options.inheritedFds.empty()) {
        for (int fd : m_options.inheritedFds) {
            int rc = socket::adoptFd(fd);
            if (rc < 0) {
                return rc;
            }
            const bool unix = socket::localName(fd).rfind("unix", 0) == 0;
            rc = addListener(fd, unix);
            if (rc < 0) {
                return rc;
            }
        }
    } else {
        int fd = socket::listenTcp(m_options.address, m_options.port);
        if (fd < 0) {
            return fd;
        }
        int rc = addListener(fd, false);
        if (rc < 0) {
            ::close(fd);
            return rc;
        }
        if (!m_options.unixPath.empty()) {
            fd = socket::listenUnix(m_options.unixPath);
            if (fd < 0) {
                return fd;
            }
            rc = addListener(fd, true);
            if (rc < 0) {
                ::close(fd);
                return rc;
            }
            m_unixPathMade = m_options.unixPath;
        }
    }
    for (const Listener& l : m_listeners) {
        if (!l.unix) {
            m_port = socket::localPort(l.fd);
            break;
        }
    }
    return 0;
}

std::vector<std::string> Broker::listening() const
{
    std::vector<std::string> out;
    for (const Listener& l : m_listeners) {
        out.push_back(socket::localName(l.fd));
    }
    return out;
}

int Broker::addListener(int fd, bool unix)
{
    const std::size_t index = m_listeners.size();
    int rc = m_loop.addFd(fd, EPOLLIN, [this, index](std::uint32_t) { onAccept(m_listeners[index]); });
    if (rc < 0) {
        return rc;
    }
    m_listeners.push_back(Listener{fd, unix});
    return 0;
}

void Broker::fitConnectionsToFdLimit()
{
    const Limits& limits = m_options.limits;
    m_maxConnections = limits.maxConnections;
    m_maxPerUser = std::min(limits.maxConnectionsPerUser, limits.maxConnections);
    rlimit lim;
    if (::getrlimit(RLIMIT_NOFILE, &lim) < 0 || lim.rlim_cur == RLIM_INFINITY) {
        return;
    }
    const std::size_t room = lim.rlim_cur > kReservedFds ? static_cast<std::size_t>(lim.rlim_cur) - kReservedFds : 1;
    if (m_maxConnections <= room) {
        return;
    }
    // The per-user share shrinks in step, so that one user still cannot take
    // every connection there is room for.
    m_maxPerUser = std::max<std::size_t>(1, m_maxPerUser * room / m_maxConnections);
    m_maxConnections = room;
    log("max-connections " + std::to_string(limits.maxConnections) + " lowered to " +
        std::to_string(m_maxConnections) + " and max-connections-per-user to " + std::to_string(m_maxPerUser) +
        ": the file descriptor limit is " + std::to_string(lim.rlim_cur));
}

void Broker::pauseAccepting()
{
    for (const Listener& l : m_listeners) {
        m_loop.modifyFd(l.fd, 0);
    }
    m_acceptPause.set(std::chrono::seconds(1), false, [this](bool fired) {
        if (fired) {
            for (const Listener& l : m_listeners) {
                m_loop.modifyFd(l.fd, EPOLLIN);
            }
        }
    });
}

void Broker::onAccept(const Listener& listener)
{
    for (int i = 0; i < kAcceptsPerWakeup; ++i) {
        int fd = socket::acceptTcp(listener.fd);
        if (fd < 0) {
            const int err = -fd;
            if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
                log(std::string("accept: ") + std::strerror(err) + "; not accepting for a second");
                pauseAccepting();
            } else if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR && err != ECONNABORTED) {
                log(std::string("accept: ") + std::strerror(err));
            }
            return;
        }
        if (m_conns.size() >= m_maxConnections) {
            turnAway(fd, "too many connections (max-connections " + std::to_string(m_maxConnections) + ")");
            continue;
        }
        const PeerIdentity identity = listener.unix ? unixPeerIdentity(fd) : m_tcpLookup.identify(fd);
        const std::int64_t user = identity.known ? static_cast<std::int64_t>(identity.uid) : kUnknownUser;
        if (m_perUser[user] >= m_maxPerUser) {
            turnAway(fd, "too many connections of " + identity.describe() + " (max-connections-per-user " +
                             std::to_string(m_maxPerUser) + ")");
            continue;
        }
        const int sendBuffer = static_cast<int>(m_options.limits.sendBufferBytes);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
        const Grants grants = m_options.acl.grantsFor(identity);
        const ConnId id = m_nextConn++;
        const std::string description = socket::peerName(fd) + ", " + identity.describe();
        auto conn = std::make_unique<FrameConnection>(
            m_loop, fd, kMaxFrameSize,
            [this, id](std::string_view payload) {
                m_core.frame(id, payload);
                armSweep();
            },
            [this, id](std::uint32_t length) { m_core.badFrame(id, length); },
            [this, id](int err) { onClosed(id, err); });
        conn->shareBacklog(&m_totalBacklog);
        // While readers are behind, writers are read more slowly, so that a
        // burst of changes cannot outrun the fetchers that do read; one that
        // does not read at all still reaches its limit and goes.
        conn->setReadBudget([this] {
            return m_totalBacklog > m_options.limits.maxBacklogBytes / 2 ? 1 : kReadsPerWakeup;
        });
        m_conns.emplace(id, Peer{std::move(conn), user});
        ++m_perUser[user];
        m_core.connected(id, description, grants);
        armSweep();
        if (!identity.known) {
            log("peer #" + std::to_string(id) + " (" + description +
                "): its user is not known, so it may do only what the policy lets everyone fetch");
        }
        if (!m_options.quiet) {
            log("peer #" + std::to_string(id) + " (" + description + ") connected; may " + grants.describe());
        }
    }
}

void Broker::turnAway(int fd, const std::string& reason)
{
    log("turned away a connection from " + socket::peerName(fd) + ": " + reason);
    std::string frame;
    appendFrame(frame, protocol::error(Json::Value(), protocol::kLimitReached, "limit reached: " + reason));
    // Whatever the peer sent already is read first: closing a socket with
    // unread input resets it, and the reset could overtake the answer.
    char sink[4096];
    for (int i = 0; i < 16 && ::recv(fd, sink, sizeof sink, MSG_DONTWAIT) > 0; ++i) {
    }
    ::send(fd, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    ::shutdown(fd, SHUT_WR);
    ::close(fd);
}

void Broker::onClosed(ConnId conn, int err)
{
    if (!m_options.quiet) {
        log("peer #" + std::to_string(conn) + " disconnected" +
            (err < 0 ? std::string(": ") + std::strerror(-err) : std::string()));
    }
    auto it = m_conns.find(conn);
    if (it == m_conns.end()) {
        return;
    }
    // Destroying the connection inside its own handler is allowed: it
    // touches nothing of itself afterwards.
    std::unique_ptr<FrameConnection> doomed = std::move(it->second.conn);
    auto count = m_perUser.find(it->second.user);
    if (count != m_perUser.end() && --count->second == 0) {
        m_perUser.erase(count);
    }
    m_conns.erase(it);
    m_core.disconnected(conn);
    armSweep();
}

void Broker::armSweep()
{
    if (!m_core.hasDeadlines() || m_sweep.isPending()) {
        return;
    }
    m_sweep.set(kSweep, true, [this](bool fired) {
        if (!fired) {
            return;
        }
        FrameConnection::Batch batch;
        m_core.expire(BrokerCore::Clock::now());
        if (!m_core.hasDeadlines()) {
            m_sweep.cancel();
        }
    });
}

void Broker::send(ConnId conn, std::string payload)
{
    auto it = m_conns.find(conn);
    if (it == m_conns.end()) {
        return;
    }
    FrameConnection& c = *it->second.conn;
    if (c.aborted()) {
        return;
    }
    const Limits& limits = m_options.limits;
    const std::size_t size = kFrameHeaderSize + payload.size();
    if (c.backlog() + size > limits.maxBacklogBytes) {
        log("peer #" + std::to_string(conn) + " reads too slowly (" + std::to_string(c.backlog()) +
            " bytes unread, max-backlog-bytes " + std::to_string(limits.maxBacklogBytes) + "), disconnecting");
        c.abort(-ENOBUFS);
        return;
    }
    // Together the readers may not hold more than the total either: the
    // slowest of them goes first, this one included.
    while (m_totalBacklog + size > limits.maxTotalBacklogBytes) {
        ConnId slowest = conn;
        std::size_t largest = c.backlog() + size;
        for (const auto& [other, peer] : m_conns) {
            if (other != conn && !peer.conn->aborted() && peer.conn->backlog() > largest) {
                slowest = other;
                largest = peer.conn->backlog();
            }
        }
        log("peers hold " + std::to_string(m_totalBacklog) + " bytes unread (max-total-backlog-bytes " +
            std::to_string(limits.maxTotalBacklogBytes) + "); disconnecting peer #" + std::to_string(slowest) +
            ", the slowest reader");
        m_conns.at(slowest).conn->abort(-ENOBUFS);
        if (slowest == conn) {
            return;
        }
    }
    c.send(payload);
}

void Broker::closeAfterFlush(ConnId conn)
{
    auto it = m_conns.find(conn);
    if (it != m_conns.end()) {
        it->second.conn->closeAfterFlush();
    }
}

void Broker::log(const std::string& line)
{
    if (!m_log.admit()) {
        return;
    }
    if (const std::uint64_t dropped = m_log.takeSuppressed()) {
        std::fprintf(stderr, "velad: %llu log lines not written (log-rate)\n",
                     static_cast<unsigned long long>(dropped));
    }
    std::fprintf(stderr, "velad: %s\n", escapeLogText(line, m_options.limits.logLineMax).c_str());
}

std::size_t Broker::backlog(ConnId conn) const
{
    auto it = m_conns.find(conn);
    return it == m_conns.end() ? 0 : it->second.conn->backlog();
}

void Broker::wantDrain(ConnId conn, std::size_t mark)
{
    auto it = m_conns.find(conn);
    if (it == m_conns.end()) {
        return;
    }
    it->second.conn->wantDrain(mark, [this, conn] {
        FrameConnection::Batch batch;
        m_core.drained(conn);
    });
}

}  // namespace vela
