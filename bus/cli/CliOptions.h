#pragma once

#include <string>
#include <vector>

namespace vela::cli {

// The command line of vela, checked but not executed.
struct CliOptions
{
    std::string address = "127.0.0.1";
    unsigned port = 11122;
    std::string command;            // get, list, set, watch, own
    std::vector<std::string> args;  // the command's operands
    long count = -1;                // watch --count; -1: unlimited
    double forSeconds = -1;         // watch --for; -1: unlimited
    double timeout = 10;            // get/list/set: give up after this many seconds
    bool trace = false;             // log every frame to stderr
    bool help = false;
    bool version = false;           // print the version and exit
};

// Fills out from argv; options may stand anywhere. False with a message in
// error for unknown options, bad numbers or a wrong number of operands.
bool parseCliOptions(int argc, const char* const* argv, CliOptions& out, std::string& error);

const char* usageText();

}  // namespace vela::cli
