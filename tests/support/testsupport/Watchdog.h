#pragma once

#include <chrono>

#include <orv/sys/Timer.h>

namespace orv::sys {
class EventLoop;
}

namespace testsupport {

// Stops the loop once deadline passes, so that a loop that went wrong ends
// instead of hanging the suite; fired() tells whether it had to. Cancelled
// when the guard goes.
class Watchdog
{
public:
    Watchdog(orv::sys::EventLoop& loop, std::chrono::milliseconds deadline);
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    bool fired() const { return m_fired; }

private:
    orv::sys::Timer m_timer;
    bool m_fired = false;
};

}  // namespace testsupport
