#pragma once

#include "BrokerCore.h"
#include "BrokerSink.h"

#include <orv/sys/Timer.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace orv::sys {
class EventLoop;
}

namespace vela {

class FrameConnection;

// The broker on an EventLoop: the listening socket, one FrameConnection per
// peer, and the timer that expires unanswered set requests. The message
// handling itself is BrokerCore's.
class Broker : private BrokerSink
{
public:
    struct Options
    {
        std::string address = "127.0.0.1";
        std::uint16_t port = 11122;  // 0: any free port (see port())
        std::chrono::milliseconds setTimeout = std::chrono::seconds(5);
        // A peer whose unread output grows beyond this is disconnected, so
        // that it cannot hold the broker's memory hostage (bytes).
        std::size_t maxBacklog = 64 * 1024 * 1024;
        bool quiet = false;  // no per-connection log lines
    };

    Broker(orv::sys::EventLoop& loop, Options options);
    ~Broker() override;
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    // Binds and listens. 0 or a negative errno.
    int start();
    // The port listened on (the chosen one when Options::port was 0).
    std::uint16_t port() const { return m_port; }
    const BrokerCore& core() const { return m_core; }

private:
    orv::sys::EventLoop& m_loop;
    Options m_options;
    BrokerCore m_core;
    int m_listenFd = -1;
    std::uint16_t m_port = 0;
    ConnId m_nextConn = 1;
    std::unordered_map<ConnId, std::unique_ptr<FrameConnection>> m_conns;
    orv::sys::Timer m_setTimer;
    // Out of fds, accept fails while the listening socket stays readable;
    // listening pauses instead of spinning.
    orv::sys::Timer m_acceptPause;

    void onAccept();
    void onClosed(ConnId conn, int err);
    void armSetTimer();

    void send(ConnId conn, std::string payload) override;
    void closeAfterFlush(ConnId conn) override;
    void log(const std::string& line) override;
};

}  // namespace vela
