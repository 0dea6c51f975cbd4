#pragma once

// A fuzz target's assertion: a broken invariant must end the run with a
// crash that libFuzzer records together with the input that caused it,
// whatever the build type (assert() disappears in release builds).

#include <cstdio>
#include <cstdlib>

namespace fuzzsupport {

[[noreturn]] inline void fail(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", what, file, line);
    std::abort();
}

}  // namespace fuzzsupport

#define FUZZ_CHECK(condition)                                          \
    do {                                                               \
        if (!(condition))                                              \
            ::fuzzsupport::fail(#condition, __FILE__, __LINE__);       \
    } while (false)
