#pragma once

#include <chrono>
#include <functional>

namespace orv::sys {
class EventLoop;
}

namespace testsupport {

// Runs loop until condition holds (checked every few ms) or timeout passes;
// the result tells which.
bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& condition,
              std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Runs loop for a fixed time, for checks that something does NOT happen.
void runFor(orv::sys::EventLoop& loop, std::chrono::milliseconds period);

}  // namespace testsupport
