// tsdctl: the operator's view of tsd on this module. Reads the daemon's
// states from the bus (never writes there) and the time services' pid files,
// and prints them in words or as JSON; `status` exits with the
// monitoring-plugin verdict, `watch` prints each change as it happens.
#include <orv/sys/EventLoop.h>

#include <StopOnSignals.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Options.h"
#include "Session.h"

int main(int argc, char** argv)
{
    tsdctl::Options options;
    std::string error;
    if (!tsdctl::parseOptions(argc, argv, options, error)) {
        std::fprintf(stderr, "tsdctl: %s\n%s", error.c_str(), tsdctl::usageText());
        // A monitoring system must not read a usage error as "critical".
        return 3;
    }
    if (options.help) {
        std::fputs(tsdctl::usageText(), stdout);
        return 0;
    }
    if (options.version) {
        std::puts("tsdctl " TSD_VERSION);
        return 0;
    }

    orv::sys::EventLoop loop;
    vela::StopOnSignals stopOnSignals(loop);
    tsdctl::Session session(loop, options);
    if (options.command == "status") {
        session.status();
    } else {
        session.watch();
    }
    const int rc = loop.execute();
    if (rc < 0) {
        std::fprintf(stderr, "tsdctl: event loop failed: %s\n", std::strerror(-rc));
        return 3;
    }
    return session.exitStatus();
}
