#pragma once

#include <json/value.h>

#include <string>
#include <string_view>

namespace vela {

// JSON text in and out for the bus. Every frame and every printed value goes
// through these two functions, so all participants agree on one compact form.

// Deepest nesting of arrays and objects a frame may carry; deeper documents are
// refused instead of exhausting the stack of the parser.
constexpr unsigned kMaxJsonDepth = 64;

// Parses exactly one JSON document (trailing text is an error). Never throws:
// returns false and a one-line reason in error for bad or too deeply nested
// input. When out is not null it receives the value; offsets of the values in
// out (getOffsetStart/Limit) refer to text.
bool parseJson(std::string_view text, Json::Value* out, std::string* error);

// Appends value as compact JSON (no blanks, object keys sorted). Numbers
// written as reals use the shortest text that reads back to the same double
// and keep a fraction or exponent so that they stay reals; NaN and infinities,
// which JSON cannot express, become null.
void appendCompact(std::string& out, const Json::Value& value);
std::string toCompact(const Json::Value& value);

// Appends s as a quoted JSON string.
void appendQuoted(std::string& out, std::string_view s);

}  // namespace vela
