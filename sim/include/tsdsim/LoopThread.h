#pragma once

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <thread>

namespace tsdsim {

// The simulator's I/O thread: one thread running a liborv EventLoop. The
// relay of every simulated bus and the monitors of every module (bus
// observers, syslog sockets, publisher acknowledgements) run on it, so the
// thread that drives the world, a test body or the tsdsim main loop, never
// has to pump anything.
//
// The loop belongs to its thread. Every function here may be called from any
// thread: it hands the work to the loop with EventLoop::post and waits for
// it, or, called from a callback on the loop's thread, acts at once.
// Callbacks run one at a time and must not block.
class LoopThread
{
public:
    using FdCallback = orv::sys::EventLoop::FdCallback;
    using Clock = std::chrono::steady_clock;

    LoopThread();
    // Stops the loop and joins its thread; functions still waiting in after()
    // are dropped unrun.
    ~LoopThread();
    LoopThread(const LoopThread&) = delete;
    LoopThread& operator=(const LoopThread&) = delete;

    // Runs fn on the loop's thread and returns once it has run. Whatever
    // callback was running when invoke() was called has returned by then.
    void invoke(const std::function<void()>& fn);

    // Watches fd (not owned) for events (an EPOLL* mask). 0 or a negative errno.
    int addFd(int fd, std::uint32_t events, FdCallback callback);
    // Once this returns, no callback of fd is running or will run: the owner
    // may close fd and free what the callback uses.
    void removeFd(int fd);

    // Runs fn on the loop's thread once delay (ms) has passed; functions due at
    // the same time run in the order they were given.
    void after(std::chrono::milliseconds delay, std::function<void()> fn);

private:
    // Loop thread only: arms the timer for the earliest due function.
    void arm();
    void runDue();

    orv::sys::EventLoop m_loop;
    // One timer serves every after(): it is armed for the earliest entry.
    orv::sys::Timer m_timer{m_loop};
    std::multimap<Clock::time_point, std::function<void()>> m_due;  // loop thread only
    std::thread m_thread;
};

}  // namespace tsdsim
