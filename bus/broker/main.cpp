// velad: the broker of the vela bus. Runs in the foreground until SIGINT or
// SIGTERM, which end it with status 0.
#include "Broker.h"
#include "Protocol.h"
#include "StopOnSignals.h"

#include <orv/sys/EventLoop.h>

#include <getopt.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void usage(FILE* out)
{
    std::fprintf(out,
                 "usage: velad [--address A] [--port P] [--set-timeout MS] [--quiet]\n"
                 "  --address A       address to listen on (default %s)\n"
                 "  --port P          TCP port (default %u; 0 picks a free one and prints it)\n"
                 "  --set-timeout MS  how long a set request waits for the owner (default 5000)\n"
                 "  -q, --quiet       no line per connection\n",
                 vela::protocol::kDefaultAddress, unsigned{vela::protocol::kDefaultPort});
}

bool parseNumber(const char* text, unsigned long max, unsigned long& out)
{
    char* end = nullptr;
    errno = 0;
    out = std::strtoul(text, &end, 10);
    return errno == 0 && end != text && *end == '\0' && out <= max && text[0] != '-';
}

}  // namespace

int main(int argc, char** argv)
{
    vela::Broker::Options options;
    options.address = vela::protocol::kDefaultAddress;
    options.port = vela::protocol::kDefaultPort;

    static const option kLong[] = {{"address", required_argument, nullptr, 'a'},
                                   {"port", required_argument, nullptr, 'p'},
                                   {"set-timeout", required_argument, nullptr, 't'},
                                   {"quiet", no_argument, nullptr, 'q'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    int c;
    unsigned long n = 0;
    while ((c = getopt_long(argc, argv, "a:p:t:qh", kLong, nullptr)) != -1) {
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
            case 't':
                if (!parseNumber(optarg, 3600 * 1000, n) || n == 0) {
                    std::fprintf(stderr, "velad: bad set timeout '%s'\n", optarg);
                    return 2;
                }
                options.setTimeout = std::chrono::milliseconds(n);
                break;
            case 'q':
                options.quiet = true;
                break;
            case 'h':
                usage(stdout);
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

    orv::sys::EventLoop loop;
    vela::StopOnSignals stopOnSignals(loop);
    // A peer that vanishes mid-write must not kill the broker.
    signal(SIGPIPE, SIG_IGN);

    vela::Broker broker(loop, options);
    int rc = broker.start();
    if (rc < 0) {
        std::fprintf(stderr, "velad: cannot listen on %s:%u: %s\n", options.address.c_str(),
                     unsigned{options.port}, std::strerror(-rc));
        return 1;
    }
    // Announce the port on stdout: with --port 0 this is how a starter
    // learns where to connect.
    std::printf("velad listening on %s:%u\n", options.address.c_str(), unsigned{broker.port()});
    std::fflush(stdout);
    rc = loop.execute();
    return rc < 0 ? 1 : 0;
}
