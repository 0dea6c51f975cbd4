// The answer back-off of the fuzz targets. A module waits up to 199 ms before
// it answers a start or resync, on purpose in its only thread; at that pace a
// fuzzer would try a handful of inputs per second. This definition of
// nanosleep, linked into the target, takes the place of the C library's: it
// records the wait the code asked for and returns at once. Nothing else in a
// fuzz target needs to sleep.
#include <ctime>

#include "Record.h"

extern "C" int nanosleep(const struct timespec* requested, struct timespec* remaining)
{
    if (requested != nullptr) {
        fuzzsupport::record().sleepsMs.push_back(requested->tv_sec * 1000L + requested->tv_nsec / 1000000L);
    }
    if (remaining != nullptr) {
        remaining->tv_sec = 0;
        remaining->tv_nsec = 0;
    }
    return 0;
}
