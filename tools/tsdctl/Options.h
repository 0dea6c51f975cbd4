#pragma once

#include <string>

namespace tsdctl {

// The command line of tsdctl, checked but not executed.
struct Options
{
    std::string address = "127.0.0.1";
    unsigned port = 11122;
    std::string command;     // status, watch
    bool json = false;       // one JSON object (status) or one per line (watch)
    double timeout = 3;      // seconds to reach the bus and read the daemon's states
    long count = -1;         // watch: end after this many changes; -1: never
    double forSeconds = -1;  // watch: end after this many seconds; -1: never
    bool help = false;
    bool version = false;
};

// Fills out from argv; options may stand anywhere. False with a message in
// error for unknown options, bad numbers, a missing or unknown command.
bool parseOptions(int argc, const char* const* argv, Options& out, std::string& error);

const char* usageText();

}  // namespace tsdctl
