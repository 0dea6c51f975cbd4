#include "testsupport/TimeScale.h"

#include <cstdlib>

#ifndef TSD_TEST_TIME_SCALE_DEFAULT
#define TSD_TEST_TIME_SCALE_DEFAULT 1
#endif

namespace testsupport {

namespace {

constexpr long kMaxScale = 100;

int readScale()
{
    if (const char* text = std::getenv("TSD_TEST_TIME_SCALE")) {
        char* end = nullptr;
        const long value = std::strtol(text, &end, 10);
        if (end != text && *end == '\0' && value >= 1 && value <= kMaxScale) {
            return static_cast<int>(value);
        }
    }
    return TSD_TEST_TIME_SCALE_DEFAULT;
}

}  // namespace

bool sanitizedBuild()
{
#ifdef TSD_TEST_SANITIZED
    return true;
#else
    return false;
#endif
}

int timeScale()
{
    static const int scale = readScale();
    return scale;
}

}  // namespace testsupport
