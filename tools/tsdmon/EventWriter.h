#pragma once

#include <cstdint>
#include <string>

#include "MonitorEvent.h"

// The two written forms of an event: a timestamped line for people and one
// JSON object per line for tools. Whatever came off the network is escaped
// before it is written, so a telegram cannot move the cursor of a terminal or
// break a JSON reader.
namespace tsdmon {

// Printable ASCII stays; every other byte is written \xNN and the backslash
// itself \\, so that the text reads back to the exact bytes.
std::string escapeBytes(const std::string& bytes);

// "2026-11-22 23:00:01.234", local time.
std::string localTime(std::int64_t wallMs);
// "2026-11-22T23:00:01.234Z".
std::string utcTime(std::int64_t wallMs);
// Tenths as a decimal, "12.5".
std::string tenths(unsigned value);

// One line; an event is never split.
std::string toText(const MonitorEvent& event);
// One JSON object without a newline.
std::string toJson(const MonitorEvent& event);

}  // namespace tsdmon
