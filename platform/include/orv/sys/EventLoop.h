#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

namespace orv::sys {

// A single-threaded reactor on epoll. Every fd the program watches registers
// here with a callback; execute() dispatches them until stop().
//
// stop() is async-signal-safe (it only writes to an eventfd), so a signal
// handler may call it, and so may any callback. A stop() that comes before
// execute() makes the next execute() return at once. A loop with static
// storage may even be stopped after its destruction, as a handler that stays
// installed can do while the process exits: that stop() does nothing.
//
// Callbacks may add and remove registrations, their own included, while the
// loop dispatches; a registration removed during a dispatch round receives no
// further events of that round.
//
// Threads: everything but stop(), post() and isInLoopThread() belongs to the
// thread that runs execute() (or to the only thread, before it runs). Another
// thread that wants the loop to do something posts a function to it.
class EventLoop
{
public:
    // Called with the epoll event mask (EPOLLIN, EPOLLOUT, EPOLLERR, EPOLLHUP...).
    using FdCallback = std::function<void(std::uint32_t events)>;

    EventLoop();
    ~EventLoop();
    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    // Runs until stop(); returns 0, or a negative errno if epoll itself fails.
    int execute();

    // Makes execute() return after the callback now running (if any). Safe in
    // signal handlers.
    void stop();

    // Queues fn to run on the loop's thread; callable from any thread (not from
    // a signal handler: it takes a lock). The loop wakes through the same
    // eventfd as stop(), runs posted functions in the order they were posted,
    // between dispatch rounds, and stops after the one that calls stop(),
    // keeping the rest for the next execute(). Functions posted while no
    // execute() runs wait for the next one; those still queued when the loop
    // is destroyed are destroyed unrun.
    void post(std::function<void()> fn);

    // True on the thread that is inside execute() right now. Lets a caller
    // that may or may not be on the loop's thread decide between calling
    // directly and posting.
    bool isInLoopThread() const;

    // Watches fd for events (an EPOLL* mask). Returns 0 or a negative errno
    // (-EEXIST when fd is registered already). The loop does not own fd.
    int addFd(int fd, std::uint32_t events, FdCallback callback);
    // Changes the event mask of a registered fd. 0 or a negative errno.
    int modifyFd(int fd, std::uint32_t events);
    // Stops watching fd. Harmless for an fd that is not registered.
    void removeFd(int fd);

    // Number of epoll_wait wake-ups so far; lets tests prove that an idle loop
    // sleeps until its timers are due.
    std::uint64_t wakeups() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
    // Wakes execute() from epoll_wait: async-signal-safe, for stop().
    void wake();

    // What stop() touches lives here rather than in Impl, which the
    // destructor frees: the destructor only sets the fd to -1 (before it
    // closes it, so that a late stop() cannot write to a reused number).
    std::atomic<int> m_wakeFd{-1};
    std::atomic<bool> m_stopRequested{false};
};

}  // namespace orv::sys
