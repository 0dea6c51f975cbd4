#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orv::services {

// Text that came from the bus, a file or sysfs, made safe to show: bytes
// outside printable ASCII and the backslash are written as \n, \t, \\ or \xHH
// (lower-case hex), so that a log line or a refusal never carries a raw
// control byte and every byte can still be told apart.
std::string printable(std::string_view text);

// The same for text that may be long: at most maxBytes of the input are
// shown, followed by "..." when some were left out.
std::string printable(std::string_view text, std::size_t maxBytes);

}  // namespace orv::services
