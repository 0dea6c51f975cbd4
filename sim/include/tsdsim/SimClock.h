#pragma once

#include <chrono>

namespace tsdsim {

// The time base of everything a world records: seconds since the world
// began, on the monotonic clock. A small value; each part that stamps what it
// records keeps a copy of its world's clock.
class SimClock
{
public:
    using Clock = std::chrono::steady_clock;

    SimClock() : m_start(Clock::now()) {}

    Clock::time_point start() const { return m_start; }
    // Seconds since the start.
    double now() const { return std::chrono::duration<double>(Clock::now() - m_start).count(); }
    // Milliseconds since the epoch on the wall clock at the start, for what
    // programs of a module stamp with the wall clock (the recorder scripts).
    long long startEpochMs() const
    {
        const auto startWall =
            std::chrono::system_clock::now() -
            std::chrono::duration_cast<std::chrono::system_clock::duration>(Clock::now() - m_start);
        return std::chrono::duration_cast<std::chrono::milliseconds>(startWall.time_since_epoch()).count();
    }

private:
    Clock::time_point m_start;
};

}  // namespace tsdsim
