#pragma once

namespace orv::services {

// Syslog for a daemon beside tsd: the program's name and pid on every line,
// facility daemon. Without debug, LOG_DEBUG lines are masked out by syslog
// itself; callers still test isDebug() before composing a debug message,
// since formatting is the cost.
void openServiceLog(const char* program, bool debug);
bool isDebug();

}  // namespace orv::services
