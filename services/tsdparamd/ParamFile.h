#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>

namespace orv::services {

// The value "sync/param" has when no file gives one: what tsd assumes
// before it hears anything, with the time source "Ptp".
Json::Value builtinParams();

// The keys of request replace those of base; everything else of base stays.
// A request that is not an object changes nothing (the rules refuse it).
Json::Value mergeParams(const Json::Value& base, const Json::Value& request);

// Largest parameter file read; the real ones hold four short keys.
constexpr std::size_t kMaxParamFileBytes = 64 * 1024;

enum class ParamFileStatus
{
    Read,     // value holds the file's JSON
    Missing,  // no file at path
    Bad,      // unreadable, too large or not one JSON document; reason says which
};

// Reads a parameter file (one JSON document, strict: no comments, no
// duplicate keys, nothing after it).
ParamFileStatus readParamFile(const std::string& path, Json::Value& value, std::string& reason);

// How the keeper stores a value: compact JSON and a line end.
std::string paramFileText(const Json::Value& value);

}  // namespace orv::services
