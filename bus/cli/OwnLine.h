#pragma once

#include <json/value.h>

#include <string>

namespace vela::cli {

// One line of `vela own` input: "add PATH JSON", "change PATH JSON" or
// "remove PATH". Blanks separate the words; the JSON is the rest of the line
// and may contain blanks itself.
struct OwnLine
{
    enum class Op
    {
        kNone,  // blank line or comment (#...): nothing to do, nothing printed
        kAdd,
        kChange,
        kRemove
    };
    Op op = Op::kNone;
    std::string path;
    Json::Value value;
};

// False with a reason for anything else, including invalid JSON.
bool parseOwnLine(const std::string& line, OwnLine& out, std::string& error);

}  // namespace vela::cli
