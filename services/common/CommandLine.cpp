#include "CommandLine.h"

#include <cerrno>
#include <cstdlib>

namespace orv::services {

bool parsePort(const char* text, unsigned& port)
{
    if (text == nullptr || *text < '0' || *text > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value == 0 || value > 65535) {
        return false;
    }
    port = static_cast<unsigned>(value);
    return true;
}

void printVersion(std::FILE* out, const char* program)
{
    std::fprintf(out, "%s %s\n", program, TSD_VERSION);
}

}  // namespace orv::services
