#pragma once

#include <chrono>
#include <functional>

namespace orv::sys {

class EventLoop;

// A timerfd registered on an EventLoop. The callback runs on the loop's
// thread: with true when the period elapsed, with false when cancel() stops a
// pending timer. Destroying a Timer cancels it silently (no callback).
class Timer
{
public:
    using Callback = std::function<void(bool fired)>;

    explicit Timer(EventLoop& loop);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Arms the timer: after period (ms), once when repeat is false, every
    // period when it is true. A set() on a pending timer replaces its period
    // and callback without calling the old callback. The callback may call
    // set() or cancel() on its own timer. Returns 0 or a negative errno.
    int set(std::chrono::milliseconds period, bool repeat, Callback callback);

    // Stops a pending timer and calls its callback with false. Does nothing on
    // a timer that is not pending (never set, expired one-shot, or cancelled).
    void cancel();

    // True between set() and the expiry of a one-shot timer or cancel().
    bool isPending() const;

private:
    EventLoop& m_loop;
    int m_fd = -1;
    bool m_pending = false;
    bool m_repeat = false;
    Callback m_callback;

    void onReadable();
};

}  // namespace orv::sys
