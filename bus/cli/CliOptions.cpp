#include "CliOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

namespace vela::cli {

namespace {

bool parseUnsigned(const std::string& text, unsigned long max, unsigned long& out)
{
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    out = std::strtoul(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && out <= max;
}

bool parseSeconds(const std::string& text, double& out)
{
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && *end == '\0' && std::isfinite(out) && out >= 0;
}

}  // namespace

const char* usageText()
{
    return "usage: vela [--address A] [--port P] COMMAND\n"
           "  get PATH                          print the value of a state\n"
           "  list [PREFIX]                     print PATH<TAB>VALUE for every state under PREFIX\n"
           "  set PATH JSON                     ask the owner of PATH to set it; prints the answer\n"
           "  watch [PREFIX] [--count N] [--for SECONDS]\n"
           "                                    print every add/change/remove under PREFIX\n"
           "  own                               own states; stdin lines: add PATH JSON,\n"
           "                                    change PATH JSON, remove PATH\n"
           "options: --address A (default 127.0.0.1; a path beginning with / is the\n"
           "         broker's Unix socket), --port P (default 11122),\n"
           "         --timeout SECONDS (get, list, set; default 10), --trace, --version\n";
}

bool parseCliOptions(int argc, const char* const* argv, CliOptions& out, std::string& error)
{
    std::vector<std::string> operands;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string& v) {
            if (i + 1 >= argc) {
                error = "option " + arg + " needs a value";
                return false;
            }
            v = argv[++i];
            return true;
        };
        std::string v;
        unsigned long n = 0;
        if (arg == "--address") {
            if (!value(out.address)) {
                return false;
            }
        } else if (arg == "--port") {
            if (!value(v)) {
                return false;
            }
            if (!parseUnsigned(v, 65535, n) || n == 0) {
                error = "bad port '" + v + "'";
                return false;
            }
            out.port = static_cast<unsigned>(n);
        } else if (arg == "--count") {
            if (!value(v)) {
                return false;
            }
            if (!parseUnsigned(v, 1000000000UL, n) || n == 0) {
                error = "bad count '" + v + "'";
                return false;
            }
            out.count = static_cast<long>(n);
        } else if (arg == "--for" || arg == "--timeout") {
            double seconds = 0;
            if (!value(v)) {
                return false;
            }
            if (!parseSeconds(v, seconds)) {
                error = "bad number of seconds '" + v + "'";
                return false;
            }
            (arg == "--for" ? out.forSeconds : out.timeout) = seconds;
        } else if (arg == "--trace") {
            out.trace = true;
        } else if (arg == "--help" || arg == "-h") {
            out.help = true;
            return true;
        } else if (arg == "--version") {
            out.version = true;
            return true;
        } else if (arg == "--") {
            for (++i; i < argc; ++i) {
                operands.emplace_back(argv[i]);
            }
        } else if (arg.size() > 1 && arg[0] == '-' && arg[1] == '-') {
            error = "unknown option " + arg;
            return false;
        } else {
            operands.push_back(arg);
        }
    }
    if (operands.empty()) {
        error = "no command";
        return false;
    }
    out.command = operands.front();
    out.args.assign(operands.begin() + 1, operands.end());
    std::size_t minArgs = 0;
    std::size_t maxArgs = 0;
    if (out.command == "get") {
        minArgs = maxArgs = 1;
    } else if (out.command == "list" || out.command == "watch") {
        maxArgs = 1;
    } else if (out.command == "set") {
        minArgs = maxArgs = 2;
    } else if (out.command == "own") {
    } else {
        error = "unknown command '" + out.command + "'";
        return false;
    }
    if (out.args.size() < minArgs || out.args.size() > maxArgs) {
        error = "wrong number of operands for " + out.command;
        return false;
    }
    if (out.command != "watch" && (out.count >= 0 || out.forSeconds >= 0)) {
        error = "--count and --for belong to watch";
        return false;
    }
    return true;
}

}  // namespace vela::cli
