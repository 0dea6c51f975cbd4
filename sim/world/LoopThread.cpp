#include "tsdsim/LoopThread.h"

#include <pthread.h>

#include <condition_variable>
#include <mutex>

namespace tsdsim {

LoopThread::LoopThread()
{
    // The timer registered itself while no thread ran the loop yet; from here
    // on only the loop's thread touches the loop.
    m_thread = std::thread([this] {
        // Named, so that a look at the process (top -H, the benchmark's CPU
        // accounting) tells the simulator's own work from the daemons'.
        ::pthread_setname_np(::pthread_self(), "tsdsim-io");
        m_loop.execute();
    });
}

LoopThread::~LoopThread()
{
    m_loop.stop();
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

void LoopThread::invoke(const std::function<void()>& fn)
{
    if (m_loop.isInLoopThread()) {
        fn();
        return;
    }
    std::mutex mutex;
    std::condition_variable ran;
    bool done = false;
    m_loop.post([&] {
        fn();
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
        ran.notify_one();
    });
    std::unique_lock<std::mutex> lock(mutex);
    ran.wait(lock, [&done] { return done; });
}

int LoopThread::addFd(int fd, std::uint32_t events, FdCallback callback)
{
    int result = 0;
    invoke([&] { result = m_loop.addFd(fd, events, std::move(callback)); });
    return result;
}

void LoopThread::removeFd(int fd)
{
    invoke([&] { m_loop.removeFd(fd); });
}

void LoopThread::after(std::chrono::milliseconds delay, std::function<void()> fn)
{
    const Clock::time_point due = Clock::now() + delay;
    auto add = [this, due, fn = std::move(fn)]() mutable {
        // upper_bound keeps entries of equal due time in the order given.
        m_due.emplace_hint(m_due.upper_bound(due), due, std::move(fn));
        arm();
    };
    if (m_loop.isInLoopThread()) {
        add();
    } else {
        m_loop.post(std::move(add));
    }
}

void LoopThread::arm()
{
    if (m_due.empty()) {
        return;
    }
    // Rounded up: a timer that fires early would find nothing due yet.
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_due.begin()->first - Clock::now());
    m_timer.set(left.count() < 0 ? std::chrono::milliseconds(0) : left, false, [this](bool fired) {
        if (fired) {
            runDue();
        }
    });
}

void LoopThread::runDue()
{
    // One at a time out of the map before it runs: a function may add more.
    while (!m_due.empty() && m_due.begin()->first <= Clock::now()) {
        std::function<void()> fn = std::move(m_due.begin()->second);
        m_due.erase(m_due.begin());
        fn();
    }
    arm();
}

}  // namespace tsdsim
