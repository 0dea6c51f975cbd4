#pragma once

#include <string>

namespace orv::tsd {

// The process-wide debug switch: off at start, on with -d or SIGUSR1, off with
// SIGUSR2. A single byte, read without locking, written from signal context.
void setDebugModeFlag(bool enabled);
bool isDebugMode();

// Writes text to syslog at LOG_DEBUG. It does not test the switch: callers ask
// isDebugMode() first and only then compose the message, which is the cost.
void debugLog(const std::string& text);

}  // namespace orv::tsd
