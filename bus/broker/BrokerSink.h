#pragma once

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
    // A line for the broker's log (already prefixed with the peer).
    virtual void log(const std::string& line) = 0;
};

}  // namespace vela
