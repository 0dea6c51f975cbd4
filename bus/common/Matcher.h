#pragma once

#include <vela/PeerAsync.h>

#include <json/value.h>

#include <string_view>

namespace vela {

// True when path passes every non-empty criterion of m.
bool matches(const matcher_t& m, std::string_view path);

// The matcher as it travels in a fetch request: an object with the non-empty
// criteria under the names equals, startsWith, endsWith, contains, equalsNot.
Json::Value matcherToJson(const matcher_t& m);
// Reads a matcher back; false (and a reason) when a member is not a string or
// an unknown member appears, so a typo cannot silently widen a fetch.
bool matcherFromJson(const Json::Value& json, matcher_t& m, std::string* error);

}  // namespace vela
