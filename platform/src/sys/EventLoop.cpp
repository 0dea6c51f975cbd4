// The loop keeps one registration record per watched fd and hands epoll a
// serial number instead of the fd. A callback may remove (and re-add) any fd
// while a round of events is being dispatched: events still queued for the old
// registration then carry a serial that no longer exists and are dropped,
// rather than being delivered to whatever now uses the same fd number.
//
// One eventfd wakes the loop for both stop() and post(). A posted function is
// queued before the eventfd is written, and the loop drains the eventfd
// before it takes the queue, so no function can be queued without a wake-up
// still pending for it.
#include "orv/sys/EventLoop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

namespace orv::sys {

namespace {
constexpr int kMaxEventsPerRound = 64;
// The serial of the wake-up eventfd; registrations count up from 1.
constexpr std::uint64_t kWakeSerial = 0;

// Names the calling thread as the loop's for as long as execute() runs.
class LoopThreadMark
{
public:
    explicit LoopThreadMark(std::atomic<std::thread::id>& id) : m_id(id)
    {
        m_id.store(std::this_thread::get_id());
    }
    ~LoopThreadMark() { m_id.store(std::thread::id()); }
    LoopThreadMark(const LoopThreadMark&) = delete;
    LoopThreadMark& operator=(const LoopThreadMark&) = delete;

private:
    std::atomic<std::thread::id>& m_id;
};
}  // namespace

struct EventLoop::Impl
{
    int epollFd = -1;
    // The thread inside execute(); a default id while none is.
    std::atomic<std::thread::id> loopThread{};
    std::mutex postedMutex;  // guards posted
    std::deque<std::function<void()>> posted;
    std::uint64_t wakeups = 0;
    std::uint64_t nextSerial = 1;
    std::map<int, std::uint64_t> serialByFd;
    // shared_ptr: a callback that removes its own registration must not destroy
    // the std::function that is running.
    std::map<std::uint64_t, std::shared_ptr<FdCallback>> bySerial;

    // Runs the functions posted so far, one at a time without the lock (they
    // may post more; those wait for the next round). A stop() from one of them
    // puts the rest back at the front, for the next execute().
    void runPosted(const std::atomic<bool>& stopRequested)
    {
        std::deque<std::function<void()>> batch;
        {
            std::lock_guard<std::mutex> lock(postedMutex);
            batch.swap(posted);
        }
        while (!batch.empty()) {
            const std::function<void()> fn = std::move(batch.front());
            batch.pop_front();
            fn();
            if (stopRequested.load() && !batch.empty()) {
                std::lock_guard<std::mutex> lock(postedMutex);
                for (auto it = batch.rbegin(); it != batch.rend(); ++it) {
                    posted.push_front(std::move(*it));
                }
                return;
            }
        }
    }
};

// Lock-free, so that stop() may use them from a signal handler.
static_assert(std::atomic<bool>::is_always_lock_free, "stop() must be async-signal-safe");
static_assert(std::atomic<int>::is_always_lock_free, "stop() must be async-signal-safe");

namespace {
void drainWakeFd(int wakeFd)
{
    std::uint64_t count = 0;
    while (::read(wakeFd, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) {
    }
}
}  // namespace

void EventLoop::wake()
{
    // Only async-signal-safe operations: an atomic load and write(2).
    const int wakeFd = m_wakeFd.load();
    if (wakeFd < 0) {
        return;
    }
    const std::uint64_t one = 1;
    const int savedErrno = errno;
    [[maybe_unused]] const ssize_t written = ::write(wakeFd, &one, sizeof one);
    errno = savedErrno;
}

EventLoop::EventLoop() : m_impl(std::make_unique<Impl>())
{
    m_impl->epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    const int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_wakeFd.store(wakeFd);
    if (m_impl->epollFd >= 0 && wakeFd >= 0) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = kWakeSerial;
        ::epoll_ctl(m_impl->epollFd, EPOLL_CTL_ADD, wakeFd, &ev);
    }
}

EventLoop::~EventLoop()
{
    const int wakeFd = m_wakeFd.exchange(-1);
    if (wakeFd >= 0) {
        ::close(wakeFd);
    }
    if (m_impl->epollFd >= 0) {
        ::close(m_impl->epollFd);
    }
}

int EventLoop::execute()
{
    Impl& impl = *m_impl;
    const int wakeFd = m_wakeFd.load();
    if (impl.epollFd < 0 || wakeFd < 0) {
        return -EBADF;
    }
    const LoopThreadMark mark(impl.loopThread);
    epoll_event events[kMaxEventsPerRound];
    for (;;) {
        if (m_stopRequested.exchange(false)) {
            drainWakeFd(wakeFd);
            return 0;
        }
        impl.runPosted(m_stopRequested);
        if (m_stopRequested.exchange(false)) {
            drainWakeFd(wakeFd);
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
            if (serial == kWakeSerial) {
                // Drained before the queue is taken at the top of the loop.
                drainWakeFd(wakeFd);
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
    m_stopRequested.store(true);
    wake();
}

void EventLoop::post(std::function<void()> fn)
{
    {
        std::lock_guard<std::mutex> lock(m_impl->postedMutex);
        m_impl->posted.push_back(std::move(fn));
    }
    wake();
}

bool EventLoop::isInLoopThread() const
{
    return m_impl->loopThread.load() == std::this_thread::get_id();
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
