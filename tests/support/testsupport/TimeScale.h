#pragma once

#include <chrono>

namespace testsupport {

// How many times longer than on a plain build a test may wait for something
// it expects. A build with the sanitizers runs every program several times
// slower; the deadlines that a slow but correct run can miss grow by this
// factor. Only a test's own deadlines for things that must happen use it:
// never a timer of the code under test, and never a period in which something
// must not happen (that would change what the test checks).
//
// The build sets the default (1, or 4 with the sanitizers); the environment
// variable TSD_TEST_TIME_SCALE, a whole number from 1 to 100, overrides it on
// a machine that is slower still.
int timeScale();

// True in the build with the sanitizers. Its allocator keeps freed blocks in
// a quarantine of up to 256 MiB and pads every block, so a process's RSS
// there says nothing about the program's own memory use: tests that bound
// the memory of a process check that bound in the plain build only (and
// still print their figures in both).
bool sanitizedBuild();

template <typename Rep, typename Period>
std::chrono::duration<Rep, Period> scaled(std::chrono::duration<Rep, Period> budget)
{
    return budget * timeScale();
}

}  // namespace testsupport
