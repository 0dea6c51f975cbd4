#include "ServiceLog.h"

#include <syslog.h>

namespace orv::services {
namespace {
bool g_debug = false;
}

void openServiceLog(const char* program, bool debug)
{
    g_debug = debug;
    ::openlog(program, LOG_PID, LOG_DAEMON);
    ::setlogmask(debug ? LOG_UPTO(LOG_DEBUG) : LOG_UPTO(LOG_INFO));
}

bool isDebug()
{
    return g_debug;
}

}  // namespace orv::services
