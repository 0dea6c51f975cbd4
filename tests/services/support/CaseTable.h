#pragma once

#include <string>
#include <vector>

namespace servicetest {

// One line of the shared accept/refuse tables under tests/data: whether the
// value is accepted, the value, and for a refusal the token the refusal must
// name (as the refusal shows it: escaped).
struct TableCase
{
    int line = 0;
    bool accept = false;
    std::string value;  // unescaped: the bytes a client would send
    std::string token;  // as written in the table
};

// Reads a table ("accept"|"refuse", TAB, the value with \n \t \\ \xHH
// escapes; with refusalsNameToken, a refusal ends with TAB and the token);
// '#' lines and empty lines are skipped. An accepted value is the whole rest
// of its line, blanks and TABs included. A line that does not follow the
// format is a test failure.
std::vector<TableCase> readCaseTable(const std::string& path, bool refusalsNameToken);

// The value with its escapes turned into bytes.
std::string unescape(const std::string& text);

}  // namespace servicetest
