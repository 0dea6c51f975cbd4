#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

namespace tsdsim {

// One background thread with an epoll set and a queue of timed callbacks. The
// simulator's relay (the frames of every simulated bus) and its monitors (bus
// watchers, syslog sockets) run here, so the thread that drives the world, a
// test body or the tsdsim main loop, never has to pump anything.
//
// Every public function may be called from any thread. Callbacks run on the IO
// thread, one at a time, and must not block; they may call addFd, removeFd and
// after themselves. removeFd waits until a callback of that fd that is running
// right now has returned, so that the owner may close the fd and free its
// state afterwards.
class IoThread
{
public:
    using FdCallback = std::function<void(std::uint32_t events)>;
    using Clock = std::chrono::steady_clock;

    IoThread();
    ~IoThread();
    IoThread(const IoThread&) = delete;
    IoThread& operator=(const IoThread&) = delete;

    // Watches fd (not owned) for events (EPOLL* mask). Returns 0 or -errno.
    int addFd(int fd, std::uint32_t events, FdCallback callback);
    void removeFd(int fd);

    // Returns once no callback is running; one that starts afterwards sees
    // whatever the caller changed before.
    void sync();

    // Runs fn on the IO thread once delay (ms) has passed.
    void after(std::chrono::milliseconds delay, std::function<void()> fn);

private:
    struct Timed
    {
        Clock::time_point due;
        std::uint64_t seq;
        std::function<void()> fn;
        bool operator>(const Timed& o) const { return due != o.due ? due > o.due : seq > o.seq; }
    };

    void run();
    void wake();

    int m_epoll = -1;
    int m_wakeFd = -1;
    bool m_stop = false;
    std::mutex m_mutex;  // guards m_callbacks, m_timed, m_stop
    // Held while a callback runs, so that removeFd() from another thread can
    // wait for it.
    std::recursive_mutex m_dispatch;
    std::map<int, std::shared_ptr<FdCallback>> m_callbacks;
    std::priority_queue<Timed, std::vector<Timed>, std::greater<Timed>> m_timed;
    std::uint64_t m_seq = 0;
    std::thread m_thread;
};

}  // namespace tsdsim
