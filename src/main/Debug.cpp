#include "main/Debug.h"

#include <syslog.h>
#include <csignal>

namespace orv::tsd {
namespace {

// Written from signal context and read by the loop thread: a lock-free
// single-byte flag is all both sides may touch.
volatile sig_atomic_t g_debugMode = 0;

}  // namespace

void setDebugModeFlag(bool enabled)
{
    g_debugMode = enabled ? 1 : 0;
}

bool isDebugMode()
{
    return g_debugMode != 0;
}

void debugLog(const std::string& text)
{
    syslog(LOG_DEBUG, "%s", text.c_str());
}

}  // namespace orv::tsd
