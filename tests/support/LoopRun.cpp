#include "testsupport/LoopRun.h"

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>

namespace testsupport {

bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& condition,
              std::chrono::milliseconds timeout)
{
    if (condition()) {
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool met = false;
    orv::sys::Timer poll(loop);
    poll.set(std::chrono::milliseconds(2), true, [&](bool fired) {
        if (!fired) {
            return;
        }
        if (condition()) {
            met = true;
            loop.stop();
        } else if (std::chrono::steady_clock::now() >= deadline) {
            loop.stop();
        }
    });
    loop.execute();
    poll.cancel();
    return met;
}

void runFor(orv::sys::EventLoop& loop, std::chrono::milliseconds period)
{
    orv::sys::Timer stop(loop);
    stop.set(period, false, [&](bool fired) {
        if (fired) {
            loop.stop();
        }
    });
    loop.execute();
}

}  // namespace testsupport
