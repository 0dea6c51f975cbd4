#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vela {

// Identifies one peer connection on the broker; never reused while the broker
// runs.
using ConnId = std::uint64_t;

// Where BrokerCore puts its output. The broker's socket layer implements it;
// tests record the calls. Calls never re-enter BrokerCore.
class BrokerSink
{
public:
    virtual ~BrokerSink() = default;
    // Queues one frame payload for conn.
    virtual void send(ConnId conn, std::string payload) = 0;
    // Ends conn once everything queued for it is written; the socket layer
    // then reports BrokerCore::disconnected.
    virtual void closeAfterFlush(ConnId conn) = 0;
    // A line for the broker's log (already prefixed with the peer). The sink
    // escapes it and applies the broker-wide rate limit.
    virtual void log(const std::string& line) = 0;
    // Bytes queued for conn and not yet written.
    virtual std::size_t backlog(ConnId conn) const = 0;
    // Asks for BrokerCore::drained(conn) once conn's backlog is below mark,
    // from the socket layer's loop (not from inside this call).
    virtual void wantDrain(ConnId conn, std::size_t mark) = 0;
};

}  // namespace vela
