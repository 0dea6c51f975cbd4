#include "Options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <vector>

namespace tsdctl {

namespace {

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out)
{
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    out = std::strtoul(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && out <= max;
}

// Seconds as a plain decimal number, at most a day: a longer time-out is a
// typo, and a watch that long is better left to --count or Ctrl-C.
bool parseSeconds(const std::string& text, double& out)
{
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(out) && out <= 86400;
}

}  // namespace

const char* usageText()
{
    return "usage: tsdctl [--address A] [--port P] [--json] COMMAND\n"
           "  status                            the state of tsd on this module, once\n"
           "  watch [--count N] [--for SECONDS] every change of it, with a timestamp\n"
           "options: --address A (bus, default 127.0.0.1), --port P (default 11122),\n"
           "         --json, --timeout SECONDS (to reach the bus; default 3),\n"
           "         --help, --version\n"
           "status exits 0 ok, 1 warning, 2 critical (no tsd states on the bus),\n"
           "3 unknown (bus not reachable, usage error)\n";
}

bool parseOptions(int argc, const char* const* argv, Options& out, std::string& error)
{
    std::vector<std::string> operands;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        std::string v;
        auto value = [&]() {
            if (i + 1 >= argc) {
                error = "option " + arg + " needs a value";
                return false;
            }
            v = argv[++i];
            return true;
        };
        unsigned long n = 0;
        if (arg == "--address") {
            if (!value()) {
                return false;
            }
            out.address = v;
        } else if (arg == "--port") {
            if (!value()) {
                return false;
            }
            if (!parseUnsigned(v, 65535, n) || n == 0) {
                error = "bad port '" + v + "'";
                return false;
            }
            out.port = static_cast<unsigned>(n);
        } else if (arg == "--count") {
            if (!value()) {
                return false;
            }
            if (!parseUnsigned(v, 1000000000UL, n) || n == 0) {
                error = "bad count '" + v + "'";
                return false;
            }
            out.count = static_cast<long>(n);
        } else if (arg == "--for" || arg == "--timeout") {
            double seconds = 0;
            if (!value()) {
                return false;
            }
            if (!parseSeconds(v, seconds) || (arg == "--timeout" && seconds <= 0)) {
                error = "bad number of seconds '" + v + "'";
                return false;
            }
            (arg == "--for" ? out.forSeconds : out.timeout) = seconds;
        } else if (arg == "--json") {
            out.json = true;
        } else if (arg == "--help" || arg == "-h") {
            out.help = true;
            return true;
        } else if (arg == "--version") {
            out.version = true;
            return true;
        } else if (arg.size() > 1 && arg[0] == '-') {
            error = "unknown option " + arg;
            return false;
        } else {
            operands.push_back(arg);
        }
    }
    if (operands.size() != 1) {
        error = operands.empty() ? "no command" : "one command only";
        return false;
    }
    out.command = operands.front();
    if (out.command != "status" && out.command != "watch") {
        error = "unknown command '" + out.command + "'";
        return false;
    }
    if (out.command != "watch" && (out.count >= 0 || out.forSeconds >= 0)) {
        error = "--count and --for belong to watch";
        return false;
    }
    return true;
}

}  // namespace tsdctl
