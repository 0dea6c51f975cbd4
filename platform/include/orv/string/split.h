#pragma once

#include <string>
#include <vector>

namespace orv::string {

// Splits text at every occurrence of delimiter. Empty fields are kept, so
// "a::b" gives {"a", "", "b"}, "a:" gives {"a", ""} and "" gives {""}: the
// number of fields is always the number of delimiters plus one. An empty
// delimiter returns the whole text as one field.
std::vector<std::string> split(std::string text, const std::string& delimiter);

}  // namespace orv::string
