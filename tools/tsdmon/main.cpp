// tsdmon: watches the time-synchronisation telegrams of a module chain and
// shows the elections as they happen. It only listens; it never sends.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <orv/sys/EventLoop.h>

#include "Monitor.h"
#include "MonitorOptions.h"

namespace {

orv::sys::EventLoop* g_loop = nullptr;

// Only stops the loop (async-signal-safe); the rest of the ending happens
// after it returns.
void onStopSignal(int)
{
    if (g_loop != nullptr)
        g_loop->stop();
}

}  // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
    const tsdmon::ParsedOptions parsed = tsdmon::parseOptions(args);
    if (!parsed.error.empty()) {
        std::fprintf(stderr, "tsdmon: %s\nTry 'tsdmon --help'.\n", parsed.error.c_str());
        return tsdmon::Monitor::kExitUsage;
    }
    if (parsed.options.help) {
        std::fputs(tsdmon::usage().c_str(), stdout);
        return tsdmon::Monitor::kExitOk;
    }
    if (parsed.options.version) {
        std::puts("tsdmon " TSD_VERSION);
        return tsdmon::Monitor::kExitOk;
    }

    orv::sys::EventLoop loop;
    g_loop = &loop;
    struct sigaction action{};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    // A closed output is seen as EPIPE by the writer, not as a killing signal.
    ::signal(SIGPIPE, SIG_IGN);

    tsdmon::Monitor monitor(parsed.options, loop, STDOUT_FILENO);
    const int status = monitor.run();
    g_loop = nullptr;
    return status;
}
