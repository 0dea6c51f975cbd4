#include "main/Debug.h"

#include <syslog.h>

#include <atomic>

namespace orv::tsd {
namespace {

// Written from signal context and read by the loop thread: a lock-free
// single-byte flag is all both sides may touch.
std::atomic<bool> g_debugMode{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the debug switch must be safe in a signal handler");

}  // namespace

void setDebugModeFlag(bool enabled)
{
    g_debugMode.store(enabled, std::memory_order_relaxed);
}

bool isDebugMode()
{
    return g_debugMode.load(std::memory_order_relaxed);
}

void debugLog(const std::string& text)
{
    syslog(LOG_DEBUG, "%s", text.c_str());
}

}  // namespace orv::tsd
