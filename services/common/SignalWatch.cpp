#include "SignalWatch.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include <orv/sys/EventLoop.h>

namespace orv::services {

SignalWatch::SignalWatch(orv::sys::EventLoop& loop, std::initializer_list<int> signals, Callback callback)
    : m_loop(loop), m_callback(std::move(callback))
{
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signo : signals) {
        sigaddset(&mask, signo);
    }
    sigprocmask(SIG_BLOCK, &mask, &m_oldMask);
    m_fd = ::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
    if (m_fd < 0) {
        return;
    }
    const int rc = m_loop.addFd(m_fd, EPOLLIN, [this](std::uint32_t) { onReadable(); });
    if (rc < 0) {
        ::close(m_fd);
        m_fd = -1;
        errno = -rc;
    }
}

void SignalWatch::blockEarly(std::initializer_list<int> signals)
{
    sigset_t mask;
    sigemptyset(&mask);
    for (const int signo : signals) {
        sigaddset(&mask, signo);
    }
    sigprocmask(SIG_BLOCK, &mask, nullptr);
}

SignalWatch::~SignalWatch()
{
    if (m_fd >= 0) {
        m_loop.removeFd(m_fd);
        ::close(m_fd);
    }
    sigprocmask(SIG_SETMASK, &m_oldMask, nullptr);
}

void SignalWatch::onReadable()
{
    signalfd_siginfo info;
    // Several signals may wait; each is handled in the order it came.
    while (::read(m_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (m_callback) {
            m_callback(static_cast<int>(info.ssi_signo));
        }
    }
}

}  // namespace orv::services
