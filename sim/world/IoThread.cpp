#include "tsdsim/IoThread.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <stdexcept>

namespace tsdsim {

IoThread::IoThread()
{
    m_epoll = ::epoll_create1(EPOLL_CLOEXEC);
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_epoll < 0 || m_wakeFd < 0) {
        throw std::runtime_error("tsdsim: cannot create the IO thread's epoll set");
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = m_wakeFd;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_wakeFd, &ev);
    m_thread = std::thread([this] { run(); });
}

IoThread::~IoThread()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    wake();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    ::close(m_wakeFd);
    ::close(m_epoll);
}

int IoThread::addFd(int fd, std::uint32_t events, FdCallback callback)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev) < 0) {
        return -errno;
    }
    m_callbacks[fd] = std::make_shared<FdCallback>(std::move(callback));
    return 0;
}

void IoThread::removeFd(int fd)
{
    // Taking the dispatch lock first means no callback of fd is running once
    // we return (unless we are that callback, which the recursive lock allows).
    std::lock_guard<std::recursive_mutex> dispatch(m_dispatch);
    std::lock_guard<std::mutex> lock(m_mutex);
    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, fd, nullptr);
    m_callbacks.erase(fd);
}

void IoThread::sync()
{
    std::lock_guard<std::recursive_mutex> dispatch(m_dispatch);
}

void IoThread::after(std::chrono::milliseconds delay, std::function<void()> fn)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_timed.push(Timed{Clock::now() + delay, m_seq++, std::move(fn)});
    }
    wake();
}

void IoThread::wake()
{
    std::uint64_t one = 1;
    ssize_t n = ::write(m_wakeFd, &one, sizeof one);
    (void)n;
}

void IoThread::run()
{
    constexpr int kMaxEvents = 64;
    epoll_event events[kMaxEvents];
    for (;;) {
        int timeoutMs = -1;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_stop) {
                return;
            }
            if (!m_timed.empty()) {
                auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(m_timed.top().due - Clock::now());
                timeoutMs = left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
            }
        }
        int n = ::epoll_wait(m_epoll, events, kMaxEvents, timeoutMs);
        if (n < 0 && errno != EINTR) {
            return;
        }
        for (int i = 0; i < n; ++i) {
            int fd = events[i].data.fd;
            if (fd == m_wakeFd) {
                std::uint64_t v;
                while (::read(m_wakeFd, &v, sizeof v) > 0) {
                }
                continue;
            }
            std::lock_guard<std::recursive_mutex> dispatch(m_dispatch);
            std::shared_ptr<FdCallback> cb;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                auto it = m_callbacks.find(fd);
                if (it == m_callbacks.end()) {
                    continue;  // removed earlier in this round
                }
                cb = it->second;
            }
            (*cb)(events[i].events);
        }
        // Timed callbacks that are due, in order of their due time.
        for (;;) {
            std::function<void()> fn;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_stop || m_timed.empty() || m_timed.top().due > Clock::now()) {
                    break;
                }
                fn = m_timed.top().fn;
                m_timed.pop();
            }
            std::lock_guard<std::recursive_mutex> dispatch(m_dispatch);
            fn();
        }
    }
}

}  // namespace tsdsim
