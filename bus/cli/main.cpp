// vela: the command-line client of the bus. Parses the command line, runs one
// Command on an EventLoop and exits with its status; SIGINT and SIGTERM end
// any command with status 0.
#include "CliOptions.h"
#include "Command.h"
#include "JsonText.h"
#include "StopOnSignals.h"

#include <orv/sys/EventLoop.h>

#include <signal.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using vela::cli::CliOptions;

}  // namespace

int main(int argc, char** argv)
{
    CliOptions options;
    std::string error;
    if (!vela::cli::parseCliOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "vela: %s\n%s", error.c_str(), vela::cli::usageText());
        return 2;
    }
    if (options.help) {
        std::fputs(vela::cli::usageText(), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("vela %s\n", TSD_VERSION);
        return 0;
    }
    Json::Value setValue;
    if (options.command == "set" && !vela::parseJson(options.args[1], &setValue, &error)) {
        std::fprintf(stderr, "vela: invalid JSON value: %s\n", error.c_str());
        return 1;
    }

    // SIGPIPE stays at its default: `vela watch | head -1` must end when its
    // reader does. The bus socket never raises it (MSG_NOSIGNAL).
    orv::sys::EventLoop loop;
    vela::StopOnSignals stopOnSignals(loop);

    vela::cli::Command command(loop, options);
    const std::string arg0 = options.args.empty() ? std::string() : options.args[0];
    if (options.command == "get") {
        command.get(arg0);
    } else if (options.command == "list") {
        command.list(arg0);
    } else if (options.command == "set") {
        command.set(arg0, setValue);
    } else if (options.command == "watch") {
        command.watch(arg0);
    } else if (command.own() < 0) {
        return 1;
    }
    int rc = loop.execute();
    if (rc < 0) {
        std::fprintf(stderr, "vela: event loop failed: %s\n", std::strerror(-rc));
        return 1;
    }
    return command.status();
}
