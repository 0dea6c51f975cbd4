#pragma once

#include <signal.h>

#include <functional>
#include <initializer_list>

namespace orv::sys {
class EventLoop;
}

namespace orv::services {

// Delivers signals as ordinary events of the loop: the signals are blocked
// and read from a signalfd, so no work ever runs in a signal handler and a
// signal that arrives while a rescan or a write is under way waits for it.
// Owns the signalfd; the old signal mask comes back with the destructor.
// Block before any thread starts: the mask is per thread.
class SignalWatch
{
public:
    using Callback = std::function<void(int signo)>;

    SignalWatch(orv::sys::EventLoop& loop, std::initializer_list<int> signals, Callback callback);
    ~SignalWatch();
    SignalWatch(const SignalWatch&) = delete;
    SignalWatch& operator=(const SignalWatch&) = delete;

    // False when the signalfd could not be made; errno tells why.
    bool ok() const { return m_fd >= 0; }

    // Blocks the signals at once, so that one arriving while the daemon is
    // still setting up waits for the watch instead of ending the process.
    static void blockEarly(std::initializer_list<int> signals);

private:
    orv::sys::EventLoop& m_loop;
    Callback m_callback;
    sigset_t m_oldMask;
    int m_fd = -1;

    void onReadable();
};

}  // namespace orv::services
