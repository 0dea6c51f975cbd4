// fwdevd: publishes every FireWire device reachable from this module on the
// vela bus, one state "reachableDevices/<interface>/<guid>" per remote node,
// and keeps that set in step with the kernel's device events.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <orv/sys/EventLoop.h>
#include <vela/PeerAsync.h>

#include "CommandLine.h"
#include "DevicePublisher.h"
#include "Readiness.h"
#include "ServiceLog.h"
#include "SignalWatch.h"
#include "SysfsScan.h"
#include "UeventMonitor.h"

using namespace orv::services;

namespace {

const char kProgram[] = "fwdevd";

void usage(std::FILE* out)
{
    std::fprintf(out,
                 "usage: fwdevd [--sysfs DIR] [--port N] [--once] [-d]\n"
                 "Publishes each FireWire device reachable from this module on the vela bus as\n"
                 "\"reachableDevices/<interface>/<guid>\" and follows the kernel's device events.\n"
                 "  --sysfs DIR  read the kernel's devices from DIR instead of /sys\n"
                 "  --port N     bus port on 127.0.0.1 (default %u)\n"
                 "  --once       print the paths it would publish, sorted, and exit\n"
                 "  -d           debug logging to syslog\n"
                 "  --help       this text;  --version  the version\n"
                 "SIGHUP rescans at once; SIGTERM and SIGINT end it.\n",
                 kDefaultBusPort);
}

int printOnce(const std::string& root)
{
    const ScanResult scan = scanReachableDevices(root);
    for (const std::string& problem : scan.problems) {
        std::fprintf(stderr, "fwdevd: %s\n", problem.c_str());
    }
    if (!scan.complete) {
        std::fprintf(stderr, "fwdevd: %s\n", scan.failure.c_str());
        return 1;
    }
    for (const auto& device : scan.devices) {
        std::printf("%s\n", device.first.c_str());
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string root = "/sys";
    unsigned port = kDefaultBusPort;
    bool once = false;
    bool debug = false;

    enum
    {
        kSysfs = 256,
        kPort,
        kOnce,
        kVersion
    };
    static const option kOptions[] = {
        {"sysfs", required_argument, nullptr, kSysfs}, {"port", required_argument, nullptr, kPort},
        {"once", no_argument, nullptr, kOnce},         {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, kVersion},   {nullptr, 0, nullptr, 0}};
    int c = 0;
    while ((c = getopt_long(argc, argv, "dh", kOptions, nullptr)) != -1) {
        switch (c) {
            case kSysfs:
                root = optarg;
                break;
            case kPort:
                if (!parsePort(optarg, port)) {
                    std::fprintf(stderr, "fwdevd: bad port '%s'\n", optarg);
                    return 2;
                }
                break;
            case kOnce:
                once = true;
                break;
            case 'd':
                debug = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            case kVersion:
                printVersion(stdout, kProgram);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind < argc || root.empty()) {
        usage(stderr);
        return 2;
    }
    if (once) {
        return printOnce(root);
    }

    SignalWatch::blockEarly({SIGHUP, SIGTERM, SIGINT});
    openServiceLog(kProgram, debug);
    // A broker that vanishes mid-write must not end the daemon.
    signal(SIGPIPE, SIG_IGN);

    orv::sys::EventLoop loop;
    vela::PeerAsync peer(loop, "127.0.0.1", port, kProgram);
    DevicePublisher publisher(peer, root);

    SignalWatch signals(loop, {SIGHUP, SIGTERM, SIGINT}, [&](int signo) {
        if (signo == SIGHUP) {
            if (isDebug()) {
                syslog(LOG_DEBUG, "SIGHUP: rescan");
            }
            publisher.rescan();
        } else {
            loop.stop();
        }
    });
    if (!signals.ok()) {
        syslog(LOG_ERR, "cannot watch signals: %s", std::strerror(errno));
        return 1;
    }
    UeventMonitor monitor(loop, [&] { publisher.rescan(); });
    if (!monitor.ok()) {
        // Still useful: SIGHUP rescans, and a supervisor can send it.
        syslog(LOG_ERR, "%s; devices follow only SIGHUP", monitor.error());
    }

    // Ready once the broker has the first complete picture: the name first,
    // then every add of the first scan (answers come in order).
    bool configured = false;
    bool ready = false;
    auto readyOnce = [&] {
        if (!ready && configured && publisher.pending() == 0) {
            ready = true;
            syslog(LOG_INFO, "publishing %zu reachable devices", publisher.published().size());
            notifyReady();
        }
    };
    peer.configAsync(kProgram, debug, [&](const Json::Value&) {
        configured = true;
        readyOnce();
    });
    publisher.onSettled(readyOnce);
    publisher.rescan();

    const int rc = loop.execute();
    notifyStopping();
    return rc < 0 ? 1 : 0;
}
