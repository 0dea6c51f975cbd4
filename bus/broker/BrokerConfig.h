#pragma once

#include "Limits.h"

#include <string>
#include <string_view>

namespace vela {

// velad.conf: one quota per line, "NAME VALUE", e.g. "max-connections 128".
// Sizes take an optional binary suffix (K, M, G: 1024, 1024², 1024³);
// durations are whole milliseconds (names end in -ms); rates are decimal
// numbers. A name may appear once; names not listed keep their default.

// Reads text over the defaults in limits. False with "line N: reason" in
// error for an unknown name, a repeated one, or a value out of its range.
bool parseBrokerConfig(std::string_view text, Limits& limits, std::string& error);

// Reads the file at path. A missing file leaves the defaults when
// mayBeMissing, else it is an error. error names the file.
bool loadBrokerConfig(const std::string& path, bool mayBeMissing, Limits& limits, std::string& error);

// The file a broker reads when told nothing else.
constexpr const char* kDefaultBrokerConfigPath = "/etc/vela/velad.conf";

}  // namespace vela
