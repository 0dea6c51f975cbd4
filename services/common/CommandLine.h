#pragma once

#include <cstdio>
#include <string>

namespace orv::services {

// The bus port every daemon on a module reaches velad on, unless told otherwise.
constexpr unsigned kDefaultBusPort = 11122;

// A TCP port from the command line: decimal 1..65535, nothing else.
bool parsePort(const char* text, unsigned& port);

// "<program> <version>" and a line end, for --version.
void printVersion(std::FILE* out, const char* program);

}  // namespace orv::services
