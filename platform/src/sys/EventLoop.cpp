// The loop keeps one registration record per watched fd and hands epoll a
// serial number instead of the fd. A callback may remove (and re-add) any fd
// while a round of events is being dispatched: events still queued for the old
// registration then carry a serial that no longer exists and are dropped,
// rather than being delivered to whatever now uses the same fd number.
#include "orv/sys/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <map>

namespace orv::sys {

namespace {
constexpr int kMaxEventsPerRound = 64;
// The serial of the stop eventfd; registrations count up from 1.
constexpr std::uint64_t kStopSerial = 0;
}  // namespace

struct EventLoop::Impl
{
    int epollFd = -1;
    std::uint64_t wakeups = 0;
    std::uint64_t nextSerial = 1;
    std::map<int, std::uint64_t> serialByFd;
    // shared_ptr: a callback that removes its own registration must not destroy
    // the std::function that is running.
    std::map<std::uint64_t, std::shared_ptr<FdCallback>> bySerial;
};

// Lock-free, so that stop() may use them from a signal handler.
static_assert(std::atomic<bool>::is_always_lock_free, "stop() must be async-signal-safe");
static_assert(std::atomic<int>::is_always_lock_free, "stop() must be async-signal-safe");

EventLoop::EventLoop() : m_impl(std::make_unique<Impl>())
{
    m_impl->epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    const int stopFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_stopFd.store(stopFd);
    if (m_impl->epollFd >= 0 && stopFd >= 0) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = kStopSerial;
        ::epoll_ctl(m_impl->epollFd, EPOLL_CTL_ADD, stopFd, &ev);
    }
}

EventLoop::~EventLoop()
{
    const int stopFd = m_stopFd.exchange(-1);
    if (stopFd >= 0) {
        ::close(stopFd);
    }
    if (m_impl->epollFd >= 0) {
        ::close(m_impl->epollFd);
    }
}

int EventLoop::execute()
{
    Impl& impl = *m_impl;
    const int stopFd = m_stopFd.load();
    if (impl.epollFd < 0 || stopFd < 0) {
        return -EBADF;
    }
    epoll_event events[kMaxEventsPerRound];
    for (;;) {
        if (m_stopRequested.exchange(false)) {
            std::uint64_t count = 0;
            while (::read(stopFd, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) {
            }
            return 0;
        }
        const int n = ::epoll_wait(impl.epollFd, events, kMaxEventsPerRound, -1);
        ++impl.wakeups;
        if (n < 0) {
            if (errno == EINTR) {
                // A signal handler may have called stop(); the check above sees it.
                continue;
            }
            return -errno;
        }
        for (int i = 0; i < n; ++i) {
            if (m_stopRequested.load()) {
                break;
            }
            const std::uint64_t serial = events[i].data.u64;
            if (serial == kStopSerial) {
                continue;
            }
            const auto it = impl.bySerial.find(serial);
            if (it == impl.bySerial.end()) {
                continue;  // removed earlier in this round
            }
            const std::shared_ptr<FdCallback> keep = it->second;
            (*keep)(events[i].events);
        }
    }
}

void EventLoop::stop()
{
    // Only async-signal-safe operations: atomic loads and stores and write(2).
    m_stopRequested.store(true);
    const int stopFd = m_stopFd.load();
    if (stopFd < 0) {
        return;
    }
    const std::uint64_t one = 1;
    const int savedErrno = errno;
    [[maybe_unused]] const ssize_t written = ::write(stopFd, &one, sizeof one);
    errno = savedErrno;
}

int EventLoop::addFd(int fd, std::uint32_t events, FdCallback callback)
{
    Impl& impl = *m_impl;
    if (fd < 0) {
        return -EBADF;
    }
    if (impl.serialByFd.count(fd) != 0) {
        return -EEXIST;
    }
    const std::uint64_t serial = impl.nextSerial++;
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = serial;
    if (::epoll_ctl(impl.epollFd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        return -errno;
    }
    impl.serialByFd[fd] = serial;
    impl.bySerial[serial] = std::make_shared<FdCallback>(std::move(callback));
    return 0;
}

int EventLoop::modifyFd(int fd, std::uint32_t events)
{
    Impl& impl = *m_impl;
    const auto it = impl.serialByFd.find(fd);
    if (it == impl.serialByFd.end()) {
        return -ENOENT;
    }
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = it->second;
    if (::epoll_ctl(impl.epollFd, EPOLL_CTL_MOD, fd, &ev) != 0) {
        return -errno;
    }
    return 0;
}

void EventLoop::removeFd(int fd)
{
    Impl& impl = *m_impl;
    const auto it = impl.serialByFd.find(fd);
    if (it == impl.serialByFd.end()) {
        return;
    }
    // Fails harmlessly when the caller closed fd already; the kernel dropped it then.
    ::epoll_ctl(impl.epollFd, EPOLL_CTL_DEL, fd, nullptr);
    impl.bySerial.erase(it->second);
    impl.serialByFd.erase(it);
}

std::uint64_t EventLoop::wakeups() const
{
    return m_impl->wakeups;
}

}  // namespace orv::sys
