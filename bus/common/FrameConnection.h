#pragma once

#include "Frame.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace orv::sys {
class EventLoop;
}

namespace vela {

// One connected, non-blocking stream socket carrying frames, registered on an
// EventLoop. Owns the fd, the receive decoder and the send buffer.
//
// Sending never blocks: frames are appended to the buffer and written when
// the loop reports the socket writable, so that all frames produced in one
// dispatch round leave in one write. Any handler may destroy the connection;
// the connection touches nothing of itself after a handler that did.
class FrameConnection
{
public:
    // One frame's JSON text; valid during the call only.
    using FrameHandler = std::function<void(std::string_view payload)>;
    // The peer announced a length outside 1..maxFrameSize. Reading stops.
    using BadFrameHandler = std::function<void(std::uint32_t length)>;
    // The connection ended: 0 for an orderly end (EOF, or closeAfterFlush
    // done), else a negative errno. Called once; the owner should destroy
    // the connection.
    using CloseHandler = std::function<void(int error)>;

    FrameConnection(orv::sys::EventLoop& loop, int fd, std::size_t maxFrameSize, FrameHandler onFrame,
                    BadFrameHandler onBadFrame, CloseHandler onClose);
    ~FrameConnection();
    FrameConnection(const FrameConnection&) = delete;
    FrameConnection& operator=(const FrameConnection&) = delete;

    // Queues one frame. Ignored once the connection failed or is closing.
    void send(std::string_view payload);
    // Bytes queued but not yet written.
    std::size_t backlog() const { return m_out.size() - m_outOffset; }
    // Stops reading; reports the close (0) once everything queued is written.
    void closeAfterFlush();
    // Gives the connection up, e.g. because its peer reads too slowly; the
    // close handler runs from the loop with err.
    void abort(int err);
    int fd() const { return m_fd; }

private:
    orv::sys::EventLoop& m_loop;
    int m_fd;
    FrameDecoder m_decoder;
    FrameHandler m_onFrame;
    BadFrameHandler m_onBadFrame;
    CloseHandler m_onClose;
    std::string m_out;
    std::size_t m_outOffset = 0;
    std::uint32_t m_events = 0;
    bool m_reading = true;
    bool m_closing = false;
    int m_failure = 0;  // a negative errno waiting to be reported from the loop
    // Cleared by the destructor; a handler that destroyed the connection
    // leaves the dispatching code a way to notice.
    std::shared_ptr<bool> m_alive;

    void onEvents(std::uint32_t events);
    // Returns false when a handler destroyed the connection.
    bool readAll();
    bool flush();
    void updateInterest();
    void reportClose(int err);
};

}  // namespace vela
