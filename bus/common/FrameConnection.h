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
// Sending never blocks: a frame is written at once when nothing is queued;
// whatever the socket does not take waits for EPOLLOUT. Frames sent while a
// Batch is open (every frame handler runs inside one) are written together
// when the outermost Batch closes, so that a burst of input that fans out to
// many peers costs one write per peer, not one per frame. Any handler may
// destroy the connection; the connection touches nothing of itself after a
// handler that did.
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
    // The backlog fell below the mark given to wantDrain(). Called from the
    // loop only, never from inside send(), so the owner may send again.
    using DrainHandler = std::function<void()>;
    // How many reads (64 KiB each) one wake-up may do; asked before each
    // burst of reading.
    using ReadBudget = std::function<int()>;

    // Defers the writes of every connection of this thread until the
    // outermost Batch ends. Batches nest.
    class Batch
    {
    public:
        Batch();
        ~Batch();
        Batch(const Batch&) = delete;
        Batch& operator=(const Batch&) = delete;
    };

    FrameConnection(orv::sys::EventLoop& loop, int fd, std::size_t maxFrameSize, FrameHandler onFrame,
                    BadFrameHandler onBadFrame, CloseHandler onClose);
    ~FrameConnection();
    FrameConnection(const FrameConnection&) = delete;
    FrameConnection& operator=(const FrameConnection&) = delete;

    // Queues one frame. Ignored once the connection failed or is closing.
    void send(std::string_view payload);
    // Frames sent outside a Batch wait for the loop's next turn instead of
    // being written at once, so that a caller that sends many frames in one
    // go (an owner changing a state in a tight loop) costs one write, not
    // one per frame. The delay is one turn of an idle loop.
    void setWriteOnNextTurn(bool on) { m_writeOnNextTurn = on; }
    // Lets the owner slow the reading down (at least one read per wake-up),
    // e.g. while the output produced by what was read cannot get out.
    void setReadBudget(ReadBudget budget) { m_readBudget = std::move(budget); }
    // Bytes queued but not yet written.
    std::size_t backlog() const { return m_out.size() - m_outOffset; }
    // Keeps *total up to date with this connection's backlog (added on send,
    // taken off as bytes are written or dropped), so that an owner of many
    // connections knows their sum without asking each. total must outlive
    // the connection.
    void shareBacklog(std::size_t* total);
    // Calls handler once, from the loop, as soon as the backlog is below
    // mark: a producer that paused because the peer read slowly learns when
    // to go on. A later call replaces an earlier one.
    void wantDrain(std::size_t mark, DrainHandler handler);
    // Stops reading; reports the close (0) once everything queued is written.
    void closeAfterFlush();
    // Gives the connection up, e.g. because its peer reads too slowly; the
    // close handler runs from the loop with err. What was queued is dropped
    // at once.
    void abort(int err);
    bool aborted() const { return m_failure != 0; }
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
    bool m_dirty = false;  // queued in the open Batch
    bool m_writeOnNextTurn = false;
    int m_failure = 0;     // a negative errno waiting to be reported from the loop
    std::size_t* m_sharedBacklog = nullptr;
    std::size_t m_drainMark = 0;
    DrainHandler m_onDrain;
    ReadBudget m_readBudget;
    // Cleared by the destructor; a handler that destroyed the connection
    // leaves the dispatching code a way to notice.
    std::shared_ptr<bool> m_alive;

    void onEvents(std::uint32_t events);
    // Returns false when a handler destroyed the connection.
    bool readAll();
    // Writes what the socket takes and drops the written bytes; 0, or the
    // negative errno of a failed write.
    int writeOut();
    // From the loop: a failed write reports the close at once (false).
    bool flush();
    // From a sender: a failed write is handed to the loop (abort) instead of
    // being reported from inside the caller.
    void writeNow();
    static void flushBatch();
    void updateInterest();
    // Drops the first n queued bytes (written, or given up) from the count.
    void consumed(std::size_t n);
    // After a large frame: gives back the memory its buffers and its parse
    // took, instead of keeping a peak for the life of the process.
    void releaseAfterLargeFrame();
    void reportClose(int err);
};

}  // namespace vela
