// tsdparamd: the keeper of "sync/param", the time-source parameters tsd
// follows on the vela bus. Checks every set request, stores what it accepts
// crash-safe under /var/lib/tsd and gives the module a valid value at every
// start.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include <pugixml.hpp>

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include "AtomicFile.h"
#include "CommandLine.h"
#include "ParamKeeper.h"
#include "ParamRules.h"
#include "Printable.h"
#include "Ptp4lAllowList.h"
#include "Readiness.h"
#include "ServiceLog.h"
#include "SignalWatch.h"
#include "config/ConfigDocument.h"

using namespace orv::services;

namespace {

const char kProgram[] = "tsdparamd";
// How long a stop waits for the broker to confirm that the state is gone;
// the connection's end removes it anyway.
constexpr std::chrono::milliseconds kStopWait{1000};

struct Options
{
    std::string stateFile = "/var/lib/tsd/param.json";
    std::string defaultsFile = "/etc/tsd/param.json";
    std::string configFile = "/etc/TimeSourceDaemonConfig.xml";
    std::string ptp4lOptions = TSD_PTP4L_OPTIONS;
    unsigned port = kDefaultBusPort;
    bool debug = false;
};

void usage(std::FILE* out)
{
    const Options defaults;
    std::fprintf(out,
                 "usage: tsdparamd [--state-file FILE] [--defaults FILE] [--config FILE]\n"
                 "                 [--ptp4l-options FILE] [--port N] [-d]\n"
                 "Owns \"sync/param\" on the vela bus: checks and stores every value set on it.\n"
                 "  --state-file FILE     values set at run time (default %s)\n"
                 "  --defaults FILE       shipped values (default %s)\n"
                 "  --config FILE         time sources from this XML file (default %s)\n"
                 "  --ptp4l-options FILE  allow-list of ptp4l options (default %s)\n"
                 "  --port N              bus port on 127.0.0.1 (default %u)\n"
                 "  -d                    debug logging to syslog\n"
                 "  --help                this text;  --version  the version\n"
                 "SIGTERM and SIGINT take the state off the bus and end it.\n",
                 defaults.stateFile.c_str(), defaults.defaultsFile.c_str(), defaults.configFile.c_str(),
                 defaults.ptp4lOptions.c_str(), kDefaultBusPort);
}

// 0 to go on, otherwise the exit status.
int parseOptions(int argc, char** argv, Options& options, bool& done)
{
    enum
    {
        kState = 256,
        kDefaults,
        kConfig,
        kPtp4l,
        kPort,
        kVersion
    };
    static const option kOptions[] = {{"state-file", required_argument, nullptr, kState},
                                      {"defaults", required_argument, nullptr, kDefaults},
                                      {"config", required_argument, nullptr, kConfig},
                                      {"ptp4l-options", required_argument, nullptr, kPtp4l},
                                      {"port", required_argument, nullptr, kPort},
                                      {"help", no_argument, nullptr, 'h'},
                                      {"version", no_argument, nullptr, kVersion},
                                      {nullptr, 0, nullptr, 0}};
    done = false;
    int c = 0;
    while ((c = getopt_long(argc, argv, "dh", kOptions, nullptr)) != -1) {
        switch (c) {
            case kState:
                options.stateFile = optarg;
                break;
            case kDefaults:
                options.defaultsFile = optarg;
                break;
            case kConfig:
                options.configFile = optarg;
                break;
            case kPtp4l:
                options.ptp4lOptions = optarg;
                break;
            case kPort:
                if (!parsePort(optarg, options.port)) {
                    std::fprintf(stderr, "tsdparamd: bad port '%s'\n", optarg);
                    return 2;
                }
                break;
            case 'd':
                options.debug = true;
                break;
            case 'h':
                usage(stdout);
                done = true;
                return 0;
            case kVersion:
                printVersion(stdout, kProgram);
                done = true;
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind < argc || options.stateFile.empty()) {
        usage(stderr);
        return 2;
    }
    return 0;
}

// The time sources tsd will accept, read with tsd's own reader.
std::vector<std::string> loadTimeSources(const std::string& path)
{
    pugi::xml_document document;
    const pugi::xml_parse_result loaded = document.load_file(path.c_str());
    if (!loaded) {
        syslog(LOG_ERR, "cannot load %s (%s); every time source is refused", printable(path).c_str(),
               loaded.description());
        return {};
    }
    std::vector<std::string> names = ParamRules::timeSourcesOf(orv::tsd::ConfigDocument::read(document));
    if (names.empty()) {
        syslog(LOG_ERR, "%s names no time source with a level; every time source is refused",
               printable(path).c_str());
    }
    std::string list;
    for (const std::string& name : names) {
        list += (list.empty() ? "" : ", ") + printable(name, 64);
    }
    syslog(LOG_INFO, "time sources: %s", list.c_str());
    return names;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    bool done = false;
    if (const int rc = parseOptions(argc, argv, options, done); rc != 0 || done) {
        return rc;
    }
    SignalWatch::blockEarly({SIGTERM, SIGINT, SIGHUP});
    openServiceLog(kProgram, options.debug);
    signal(SIGPIPE, SIG_IGN);

    Ptp4lAllowList allowList;
    std::string error;
    if (!allowList.load(options.ptp4lOptions, error)) {
        syslog(LOG_ERR, "ptp4l option allow-list unusable (%s); every non-empty ptp4l value is refused",
               error.c_str());
    }
    const ParamRules rules(loadTimeSources(options.configFile), allowList);

    orv::sys::EventLoop loop;
    vela::PeerAsync peer(loop, "127.0.0.1", options.port, kProgram);
    peer.configAsync(kProgram, options.debug);
    ParamKeeper keeper(peer, rules, {options.stateFile, options.defaultsFile}, systemFileSystem());

    int status = 0;
    orv::sys::Timer stopTimer(loop);
    bool stopping = false;
    SignalWatch signals(loop, {SIGTERM, SIGINT, SIGHUP}, [&](int signo) {
        if (signo == SIGHUP) {
            syslog(LOG_INFO, "SIGHUP ignored: files are read at start only");
            return;
        }
        if (stopping) {
            return;
        }
        stopping = true;
        notifyStopping();
        keeper.stop([&] { loop.stop(); });
        stopTimer.set(kStopWait, false, [&](bool) { loop.stop(); });
    });
    if (!signals.ok()) {
        syslog(LOG_ERR, "cannot watch signals: %s", std::strerror(errno));
        return 1;
    }

    keeper.start([&](const std::string& refused) {
        if (refused.empty()) {
            notifyReady();
            return;
        }
        // Someone else owns the path: two keepers would contradict each other.
        syslog(LOG_ERR, "cannot own sync/param: %s", printable(refused, 200).c_str());
        status = 1;
        loop.stop();
    });

    const int rc = loop.execute();
    return rc < 0 ? 1 : status;
}
