#include "FrameConnection.h"

#include <orv/sys/EventLoop.h>

#include <malloc.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace vela {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;
// Reads per wake-up: bounds the time one busy peer holds the loop, so the
// others keep being served.
constexpr int kReadsPerEvent = 16;
// A frame at least this large (bytes) is parsed into a tree many times its
// size; once it has been handled, that memory and the grown buffers go back
// to the system, so one large value does not leave a peak behind for good.
constexpr std::size_t kLargeFrame = 256 * 1024;
// An emptied send buffer keeps its allocation up to this size (bytes).
constexpr std::size_t kKeptOutput = 256 * 1024;

thread_local int t_batchDepth = 0;
thread_local std::vector<FrameConnection*> t_dirty;

}  // namespace

FrameConnection::Batch::Batch()
{
    ++t_batchDepth;
}

FrameConnection::Batch::~Batch()
{
    if (--t_batchDepth == 0) {
        flushBatch();
    }
}

void FrameConnection::flushBatch()
{
    std::vector<FrameConnection*> dirty;
    dirty.swap(t_dirty);
    for (FrameConnection* c : dirty) {
        c->m_dirty = false;
        c->writeNow();
    }
}

FrameConnection::FrameConnection(orv::sys::EventLoop& loop, int fd, std::size_t maxFrameSize,
                                 FrameHandler onFrame, BadFrameHandler onBadFrame, CloseHandler onClose)
    : m_loop(loop),
      m_fd(fd),
      m_decoder(maxFrameSize),
      m_onFrame(std::move(onFrame)),
      m_onBadFrame(std::move(onBadFrame)),
      m_onClose(std::move(onClose)),
      m_alive(std::make_shared<bool>(true))
{
    m_events = EPOLLIN;
    int rc = m_loop.addFd(m_fd, m_events, [this](std::uint32_t events) { onEvents(events); });
    if (rc < 0) {
        abort(rc);
    }
}

FrameConnection::~FrameConnection()
{
    *m_alive = false;
    consumed(backlog());
    if (m_dirty) {
        t_dirty.erase(std::find(t_dirty.begin(), t_dirty.end(), this));
    }
    m_loop.removeFd(m_fd);
    ::close(m_fd);
}

void FrameConnection::send(std::string_view payload)
{
    if (m_failure != 0 || m_closing) {
        return;
    }
    const bool wasEmpty = backlog() == 0;
    appendFrame(m_out, payload);
    if (m_sharedBacklog) {
        *m_sharedBacklog += kFrameHeaderSize + payload.size();
    }
    if (t_batchDepth > 0) {
        if (!m_dirty) {
            m_dirty = true;
            t_dirty.push_back(this);
        }
        return;
    }
    if (wasEmpty && !m_writeOnNextTurn) {
        writeNow();
    } else {
        // Writable is reported at once: the loop writes on its next turn.
        updateInterest();
    }
}

void FrameConnection::writeNow()
{
    if (m_failure != 0) {
        return;
    }
    const int err = writeOut();
    if (err < 0) {
        abort(err);
        return;
    }
    updateInterest();
}

void FrameConnection::shareBacklog(std::size_t* total)
{
    m_sharedBacklog = total;
    if (m_sharedBacklog) {
        *m_sharedBacklog += backlog();
    }
}

void FrameConnection::wantDrain(std::size_t mark, DrainHandler handler)
{
    m_drainMark = mark;
    m_onDrain = std::move(handler);
    // Writable is reported at once when the backlog is small already, so
    // the loop comes back to call the handler in either case.
    updateInterest();
}

void FrameConnection::consumed(std::size_t n)
{
    m_outOffset += n;
    if (m_sharedBacklog) {
        *m_sharedBacklog -= n;
    }
}

void FrameConnection::closeAfterFlush()
{
    m_closing = true;
    m_reading = false;
    // Writable is reported at once when nothing is queued, so the loop comes
    // back to report the close in either case.
    m_loop.modifyFd(m_fd, EPOLLOUT);
    m_events = EPOLLOUT;
}

void FrameConnection::abort(int err)
{
    if (m_failure != 0) {
        return;
    }
    m_failure = err < 0 ? err : -ECONNABORTED;
    m_reading = false;
    m_onDrain = nullptr;
    // Nothing is written after an abort: give the queued bytes up now, so
    // that they stop counting against the owner's memory at once.
    consumed(backlog());
    std::string().swap(m_out);
    m_outOffset = 0;
    // A shut-down socket reports EPOLLHUP at once, even when its send
    // buffer is full, so the close is reported from the loop and never from
    // inside the caller.
    ::shutdown(m_fd, SHUT_RDWR);
    m_loop.modifyFd(m_fd, EPOLLIN | EPOLLOUT);
    m_events = EPOLLIN | EPOLLOUT;
}

void FrameConnection::onEvents(std::uint32_t events)
{
    if (m_failure != 0) {
        reportClose(m_failure);
        return;
    }
    if (backlog() > 0 && (events & (EPOLLOUT | EPOLLERR | EPOLLHUP))) {
        if (!flush()) {
            return;
        }
    }
    if (m_reading && (events & (EPOLLIN | EPOLLERR | EPOLLHUP))) {
        if (!readAll()) {
            return;
        }
    } else if (!m_reading && (events & (EPOLLERR | EPOLLHUP)) && backlog() > 0) {
        reportClose(-EPIPE);
        return;
    }
    if (m_closing && backlog() == 0) {
        reportClose(0);
        return;
    }
    if (m_onDrain && backlog() < m_drainMark) {
        DrainHandler handler = std::move(m_onDrain);
        m_onDrain = nullptr;
        std::shared_ptr<bool> alive = m_alive;
        handler();
        if (!*alive) {
            return;
        }
    }
    updateInterest();
}

bool FrameConnection::readAll()
{
    std::shared_ptr<bool> alive = m_alive;
    Batch batch;
    char buf[kReadChunk];
    const int reads = m_readBudget ? std::max(1, m_readBudget()) : kReadsPerEvent;
    for (int i = 0; i < reads && m_reading; ++i) {
        ssize_t n = ::read(m_fd, buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            }
            reportClose(-errno);
            return false;
        }
        if (n == 0) {
            reportClose(0);
            return false;
        }
        m_decoder.feed(buf, static_cast<std::size_t>(n));
        std::string_view payload;
        while (m_reading) {
            FrameDecoder::Result r = m_decoder.next(payload);
            if (r == FrameDecoder::Result::kNeedMore) {
                break;
            }
            if (r == FrameDecoder::Result::kBadLength) {
                m_reading = false;
                m_onBadFrame(m_decoder.badLength());
                if (!*alive) {
                    return false;
                }
                break;
            }
            const bool large = payload.size() >= kLargeFrame;
            m_onFrame(payload);
            if (!*alive) {
                return false;
            }
            if (large) {
                releaseAfterLargeFrame();
            }
        }
        if (static_cast<std::size_t>(n) < sizeof buf) {
            break;
        }
    }
    return true;
}

bool FrameConnection::flush()
{
    const int err = writeOut();
    if (err < 0) {
        reportClose(err);
        return false;
    }
    return true;
}

int FrameConnection::writeOut()
{
    while (backlog() > 0) {
        ssize_t n = ::send(m_fd, m_out.data() + m_outOffset, backlog(), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                break;
            }
            return -errno;
        }
        consumed(static_cast<std::size_t>(n));
    }
    // Written bytes are dropped once they are most of the buffer, so a peer
    // that never quite catches up does not keep them in memory for ever.
    if (m_outOffset == m_out.size()) {
        if (m_out.capacity() > kKeptOutput) {
            std::string().swap(m_out);
        } else {
            m_out.clear();
        }
        m_outOffset = 0;
    } else if (m_outOffset > m_out.size() / 2) {
        m_out.erase(0, m_outOffset);
        m_outOffset = 0;
    }
    return 0;
}

void FrameConnection::updateInterest()
{
    if (m_failure != 0) {
        return;
    }
    std::uint32_t want =
        (m_reading ? EPOLLIN : 0u) | (backlog() > 0 || m_closing || m_onDrain ? EPOLLOUT : 0u);
    if (want != m_events) {
        m_loop.modifyFd(m_fd, want);
        m_events = want;
    }
}

void FrameConnection::releaseAfterLargeFrame()
{
    m_decoder.release();
    ::malloc_trim(0);
}

void FrameConnection::reportClose(int err)
{
    m_reading = false;
    m_loop.removeFd(m_fd);
    // The handler usually destroys this object, and with it m_onClose.
    CloseHandler handler = std::move(m_onClose);
    m_onClose = nullptr;
    if (handler) {
        handler(err);
    }
}

}  // namespace vela
