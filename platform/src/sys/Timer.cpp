#include "orv/sys/Timer.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "orv/sys/EventLoop.h"

namespace orv::sys {

namespace {

timespec toTimespec(std::chrono::milliseconds period)
{
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(period.count() / 1000);
    ts.tv_nsec = static_cast<long>((period.count() % 1000) * 1000000);
    return ts;
}

}  // namespace

Timer::Timer(EventLoop& loop) : m_loop(loop)
{
    // The fd stays registered for the life of the timer; a disarmed timerfd
    // never becomes readable, so an idle timer costs no wake-ups.
    m_fd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (m_fd >= 0 && m_loop.addFd(m_fd, EPOLLIN, [this](std::uint32_t) { onReadable(); }) != 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

Timer::~Timer()
{
    if (m_fd >= 0) {
        m_loop.removeFd(m_fd);
        ::close(m_fd);
    }
}

int Timer::set(std::chrono::milliseconds period, bool repeat, Callback callback)
{
    if (m_fd < 0) {
        return -EBADF;
    }
    if (period.count() < 0) {
        return -EINVAL;
    }
    itimerspec setting{};
    setting.it_value = toTimespec(period);
    if (period.count() == 0) {
        // An all-zero it_value would disarm the timerfd; due at once instead.
        setting.it_value.tv_nsec = 1;
    }
    if (repeat) {
        setting.it_interval = setting.it_value;
    }
    // Re-arming also discards an expiry that is counted but not yet read, so a
    // replaced period never fires late for the old setting.
    if (::timerfd_settime(m_fd, 0, &setting, nullptr) != 0) {
        return -errno;
    }
    m_pending = true;
    m_repeat = repeat;
    m_callback = std::move(callback);
    return 0;
}

void Timer::cancel()
{
    if (!m_pending) {
        return;
    }
    const itimerspec disarm{};
    ::timerfd_settime(m_fd, 0, &disarm, nullptr);
    m_pending = false;
    // A copy: the callback may set() this timer again, which replaces m_callback.
    const Callback callback = m_callback;
    if (callback) {
        callback(false);
    }
}

bool Timer::isPending() const
{
    return m_pending;
}

void Timer::onReadable()
{
    std::uint64_t expirations = 0;
    if (::read(m_fd, &expirations, sizeof expirations) != static_cast<ssize_t>(sizeof expirations)) {
        // EAGAIN: re-armed or cancelled after the event was queued this round.
        return;
    }
    if (!m_pending) {
        return;
    }
    if (!m_repeat) {
        m_pending = false;
    }
    // A copy: the callback may set() this timer again or even destroy it; nothing
    // below touches the object afterwards.
    const Callback callback = m_callback;
    if (callback) {
        callback(true);
    }
}

}  // namespace orv::sys
