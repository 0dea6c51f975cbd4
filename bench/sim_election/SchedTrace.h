#pragma once

// When each daemon ran, when it was ready to run but had to wait for a CPU,
// and when a child of it (a time-service script the daemon runs and waits
// for) lived, from the kernel's scheduler events (sched_switch, sched_wakeup
// of the processes named "tsd", their forks and the children's exits)
// recorded into a tracing instance of the bench's own while an election runs. On a module each daemon has a processor to itself;
// here 64 of them share two with everything else on the machine, so the time
// a daemon waited for a CPU is the simulation's crowding, not the daemon's
// work.
//
// Needs tracefs at /sys/kernel/tracing (the bench mounts it in a mount
// namespace of its own when the host has not). Time stamps come from the
// monotonic clock, as steady_clock's do.
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "ChainCapture.h"

namespace simbench {

class SchedTrace
{
public:
    SchedTrace() = default;
    ~SchedTrace();
    SchedTrace(const SchedTrace&) = delete;
    SchedTrace& operator=(const SchedTrace&) = delete;

    // Starts recording; false with error set when tracing is not available.
    bool start(std::string& error);
    // Stops recording and reads what was recorded.
    void stop();
    // Events lost to a full buffer (the split is then incomplete).
    unsigned long lost() const { return m_lost; }

    struct Split
    {
        double runningMs = 0;
        double waitingMs = 0;   // runnable, but not on a CPU
        double childrenMs = 0;  // a child of it (a script) lived
    };
    // Of [from, to], how long process pid ran, how long it waited for a CPU
    // and how long a child of it lived.
    Split split(pid_t pid, Clock::time_point from, Clock::time_point to) const;

private:
    struct Interval
    {
        double from;  // seconds of the monotonic clock
        double to;
        bool running;  // else waiting for a CPU
    };

    void parse(const std::string& text);

    std::string m_dir;  // the tracing instance
    struct Child
    {
        pid_t parent;
        double forked;
        double exited;  // -1 while it lives
    };

    std::map<pid_t, std::vector<Interval>> m_intervals;
    std::map<pid_t, Child> m_children;
    unsigned long m_lost = 0;
};

}  // namespace simbench
