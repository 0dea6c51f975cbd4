#include "Broker.h"

#include "FrameConnection.h"
#include "Socket.h"

#include <orv/sys/EventLoop.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vela {

namespace {

// How often waiting set requests are checked against their deadline while
// any exist (ms); the timeout error may come this much late.
constexpr std::chrono::milliseconds kSetSweep(100);

}  // namespace

Broker::Broker(orv::sys::EventLoop& loop, Options options)
    : m_loop(loop),
      m_options(std::move(options)),
      m_core(*this, m_options.setTimeout),
      m_setTimer(loop),
      m_acceptPause(loop)
{
}

Broker::~Broker()
{
    m_conns.clear();
    if (m_listenFd >= 0) {
        m_loop.removeFd(m_listenFd);
        ::close(m_listenFd);
    }
}

int Broker::start()
{
    int fd = socket::listenTcp(m_options.address, m_options.port);
    if (fd < 0) {
        return fd;
    }
    int rc = m_loop.addFd(fd, EPOLLIN, [this](std::uint32_t) { onAccept(); });
    if (rc < 0) {
        ::close(fd);
        return rc;
    }
    m_listenFd = fd;
    m_port = socket::localPort(fd);
    return 0;
}

void Broker::onAccept()
{
    // Accept a bounded number per wake-up so a connection storm cannot
    // starve the peers already connected.
    for (int i = 0; i < 64; ++i) {
        int fd = socket::acceptTcp(m_listenFd);
        if (fd < 0) {
            const int err = -fd;
            if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
                log(std::string("accept: ") + std::strerror(err) + "; not accepting for a second");
                m_loop.modifyFd(m_listenFd, 0);
                m_acceptPause.set(std::chrono::seconds(1), false, [this](bool fired) {
                    if (fired) {
                        m_loop.modifyFd(m_listenFd, EPOLLIN);
                    }
                });
            } else if (err != EAGAIN && err != EWOULDBLOCK && err != EINTR && err != ECONNABORTED) {
                log(std::string("accept: ") + std::strerror(err));
            }
            return;
        }
        const ConnId id = m_nextConn++;
        const std::string name = socket::peerName(fd);
        auto conn = std::make_unique<FrameConnection>(
            m_loop, fd, kMaxFrameSize,
            [this, id](std::string_view payload) {
                m_core.frame(id, payload);
                armSetTimer();
            },
            [this, id](std::uint32_t length) { m_core.badFrame(id, length); },
            [this, id](int err) { onClosed(id, err); });
        m_conns.emplace(id, std::move(conn));
        m_core.connected(id, name);
        if (!m_options.quiet) {
            log("peer #" + std::to_string(id) + " (" + name + ") connected");
        }
    }
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
    std::unique_ptr<FrameConnection> doomed = std::move(it->second);
    m_conns.erase(it);
    m_core.disconnected(conn);
    armSetTimer();
}

void Broker::armSetTimer()
{
    if (!m_core.hasPendingSets() || m_setTimer.isPending()) {
        return;
    }
    m_setTimer.set(kSetSweep, true, [this](bool fired) {
        if (!fired) {
            return;
        }
        m_core.expireSets(BrokerCore::Clock::now());
        if (!m_core.hasPendingSets()) {
            m_setTimer.cancel();
        }
    });
}

void Broker::send(ConnId conn, std::string payload)
{
    auto it = m_conns.find(conn);
    if (it == m_conns.end()) {
        return;
    }
    FrameConnection& c = *it->second;
    if (c.backlog() + payload.size() > m_options.maxBacklog) {
        log("peer #" + std::to_string(conn) + " reads too slowly (" + std::to_string(c.backlog()) +
            " bytes unread), disconnecting");
        c.abort(-ENOBUFS);
        return;
    }
    c.send(payload);
}

void Broker::closeAfterFlush(ConnId conn)
{
    auto it = m_conns.find(conn);
    if (it != m_conns.end()) {
        it->second->closeAfterFlush();
    }
}

void Broker::log(const std::string& line)
{
    std::fprintf(stderr, "velad: %s\n", line.c_str());
}

}  // namespace vela
