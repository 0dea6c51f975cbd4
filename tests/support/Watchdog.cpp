#include "testsupport/Watchdog.h"

#include <orv/sys/EventLoop.h>

namespace testsupport {

Watchdog::Watchdog(orv::sys::EventLoop& loop, std::chrono::milliseconds deadline) : m_timer(loop)
{
    m_timer.set(deadline, false, [this, &loop](bool fired) {
        m_fired = fired;
        loop.stop();
    });
}

}  // namespace testsupport
