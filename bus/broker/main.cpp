// velad: the broker of the vela bus. Runs in the foreground until SIGINT or
// SIGTERM, which end it with status 0.
//
// Under systemd the listening socket comes from velad.socket (socket
// activation), which holds the port from boot and across restarts of the
// broker, so no other process can take it meanwhile; velad then tells the
// service manager when it is ready (Type=notify).
#include "Acl.h"
#include "Broker.h"
#include "BrokerConfig.h"
#include "Protocol.h"
#include "StopOnSignals.h"

#include <orv/sys/EventLoop.h>

#include <getopt.h>
#include <signal.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void usage(FILE* out)
{
    std::fprintf(out,
                 "usage: velad [--address A] [--port P] [--unix PATH] [--config FILE] [--acl FILE]\n"
                 "             [--set-timeout MS] [--quiet] [--version]\n"
                 "  --address A       address to listen on (default %s)\n"
                 "  --port P          TCP port (default %u; 0 picks a free one and prints it)\n"
                 "  --unix PATH       also listen on a Unix socket at PATH\n"
                 "  --config FILE     quotas (default %s; that one may be missing)\n"
                 "  --acl FILE        access policy (default %s; missing: the shipped one,\n"
                 "                    root may do everything, every other user may fetch)\n"
                 "  --set-timeout MS  how long a set request waits for the owner (default 5000;\n"
                 "                    overrides set-timeout-ms of the configuration)\n"
                 "  -q, --quiet       no line per connection\n"
                 "  --version         print the version and exit\n"
                 "Sockets handed over by the service manager (LISTEN_FDS) replace --address,\n"
                 "--port and --unix.\n",
                 vela::protocol::kDefaultAddress, unsigned{vela::protocol::kDefaultPort},
                 vela::kDefaultBrokerConfigPath, vela::Acl::kDefaultPath);
}

bool parseNumber(const char* text, unsigned long max, unsigned long& out)
{
    char* end = nullptr;
    errno = 0;
    out = std::strtoul(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && out <= max && text[0] != '-';
}

// The listening sockets systemd passed (socket activation); false with a
// message when one of them is not a listening stream socket.
bool inheritedSockets(std::vector<int>& fds)
{
    const int n = sd_listen_fds(1);
    if (n < 0) {
        std::fprintf(stderr, "velad: sockets from the service manager: %s\n", std::strerror(-n));
        return false;
    }
    for (int fd = SD_LISTEN_FDS_START; fd < SD_LISTEN_FDS_START + n; ++fd) {
        if (sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) <= 0) {
            std::fprintf(stderr, "velad: inherited fd %d is not a listening stream socket\n", fd);
            return false;
        }
        fds.push_back(fd);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    vela::Broker::Options options;
    options.address = vela::protocol::kDefaultAddress;
    options.port = vela::protocol::kDefaultPort;
    std::string configPath = vela::kDefaultBrokerConfigPath;
    std::string aclPath = vela::Acl::kDefaultPath;
    bool configGiven = false;
    bool aclGiven = false;
    long setTimeoutMs = -1;

    static const option kLong[] = {{"address", required_argument, nullptr, 'a'},
                                   {"port", required_argument, nullptr, 'p'},
                                   {"unix", required_argument, nullptr, 'u'},
                                   {"config", required_argument, nullptr, 'c'},
                                   {"acl", required_argument, nullptr, 'A'},
                                   {"set-timeout", required_argument, nullptr, 't'},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};
    int c;
    unsigned long n = 0;
    while ((c = getopt_long(argc, argv, "a:p:qh", kLong, nullptr)) != -1) {
        switch (c) {
            case 'a':
                options.address = optarg;
                break;
            case 'p':
                if (!parseNumber(optarg, 65535, n)) {
                    std::fprintf(stderr, "velad: bad port '%s'\n", optarg);
                    return 2;
                }
                options.port = static_cast<std::uint16_t>(n);
                break;
            case 'u':
                options.unixPath = optarg;
                break;
            case 'c':
                configPath = optarg;
                configGiven = true;
                break;
            case 'A':
                aclPath = optarg;
                aclGiven = true;
                break;
            case 't':
                if (!parseNumber(optarg, 3600 * 1000, n) || n == 0) {
                    std::fprintf(stderr, "velad: bad set timeout '%s'\n", optarg);
                    return 2;
                }
                setTimeoutMs = static_cast<long>(n);
                break;
            case 'q':
                options.quiet = true;
                break;
            case 'h':
                usage(stdout);
                return 0;
            case 'V':
                std::printf("velad %s\n", TSD_VERSION);
                return 0;
            default:
                usage(stderr);
                return 2;
        }
    }
    if (optind < argc) {
        usage(stderr);
        return 2;
    }

    std::string error;
    // The files under /etc may be absent (built-in quotas, shipped policy);
    // a file named on the command line must be there.
    if (!vela::loadBrokerConfig(configPath, !configGiven, options.limits, error)) {
        std::fprintf(stderr, "velad: %s\n", error.c_str());
        return 1;
    }
    if (setTimeoutMs > 0) {
        options.limits.setTimeout = std::chrono::milliseconds(setTimeoutMs);
    }
    if (!vela::Acl::load(aclPath, !aclGiven, options.acl, error)) {
        std::fprintf(stderr, "velad: %s\n", error.c_str());
        return 1;
    }
    if (!inheritedSockets(options.inheritedFds)) {
        return 1;
    }

    orv::sys::EventLoop loop;
    vela::StopOnSignals stopOnSignals(loop);
    // A peer that vanishes mid-write must not kill the broker.
    signal(SIGPIPE, SIG_IGN);

    vela::Broker broker(loop, options);
    int rc = broker.start();
    if (rc < 0) {
        if (options.inheritedFds.empty()) {
            std::fprintf(stderr, "velad: cannot listen on %s:%u%s%s: %s\n", options.address.c_str(),
                         unsigned{options.port}, options.unixPath.empty() ? "" : " and ",
                         options.unixPath.c_str(), std::strerror(-rc));
        } else {
            std::fprintf(stderr, "velad: cannot use the inherited sockets: %s\n", std::strerror(-rc));
        }
        return 1;
    }
    // Announce where it listens on stdout: with --port 0 this is how a
    // starter learns where to connect.
    for (const std::string& where : broker.listening()) {
        std::printf("velad listening on %s\n", where.c_str());
    }
    std::fflush(stdout);
    sd_notify(0, "READY=1");
    rc = loop.execute();
    sd_notify(0, "STOPPING=1");
    return rc < 0 ? 1 : 0;
}
