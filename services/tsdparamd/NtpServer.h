#pragma once

#include <string_view>

namespace orv::services {

// Whether text may stand as the module's NTP server (the one line tsd writes
// for the NTP start script): an IPv6 literal, 2 to 45 of 0-9 a-f A-F ':' '.'
// with at least one ':', or else an IPv4 literal or host name, 1 to 253 of
// A-Z a-z 0-9 '-' '.', made of labels of 1 to 63 characters separated by
// single dots, none starting or ending with '-', one trailing dot allowed.
// Nothing else: no blanks, no options, no zone index, no brackets, so the
// value can never become two words or a flag in the script. The NTP start
// script applies the same rule.
bool isNtpServer(std::string_view text);

}  // namespace orv::services
