// tsdsim: runs a simulated chain of modules (real velad and tsd processes in
// namespaces of their own, over relayed FireWire buses), shows what the chain
// does and prints a summary at the end.
#include <getopt.h>
#include <json/writer.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "tsdsim/Chain.h"
#include "tsdsim/ReportWriter.h"
#include "tsdsim/Scenario.h"

namespace {

constexpr int kExitSetupFailed = 2;
constexpr int kExitInterrupted = 130;
constexpr int kMaxModules = 64;

void usage(std::ostream& out)
{
    out << "usage: tsdsim [--modules N] [--for SECONDS] [--services MODE] [--json] [--report FILE.html]\n"
           "              [--pcap DIR] [--bin DIR] [CHAIN-FILE]\n"
           "       tsdsim --version\n"
           "  --modules N    N modules on one bus (default 4) when no chain file is given\n"
           "  --for SECONDS  run time (default 15, or the chain file's duration)\n"
           "  --services real  every module runs the real time-service scripts with ptp4l\n"
           "                 and chronyd (default: recording stand-ins)\n"
           "  --json         print the end summary as JSON on stdout (live view goes to stderr)\n"
           "  --report FILE  write a picture of the run (a self-contained HTML page) to FILE\n"
           "  --pcap DIR     write every bus's frames to DIR/BUS.pcap (DIR is made if missing)\n"
           "  --bin DIR      where velad, vela, fwdevd, tsdparamd and tsd are (default: beside tsdsim)\n"
           "  --check        only read and check the chain file\n"
           "The chain-file format is described in docs/chain-files.md.\n"
           "Needs root: every module gets network and mount namespaces of its own.\n";
}

bool executable(const std::string& path)
{
    return ::access(path.c_str(), X_OK) == 0;
}

// The directory a file would be written into, checked before the run so that
// a mistyped path does not cost a whole run.
bool writableDirectoryOf(const std::string& file)
{
    const std::string::size_type slash = file.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    struct stat st{};
    return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && ::access(dir.c_str(), W_OK) == 0;
}

bool makeDirectory(const std::string& dir)
{
    struct stat st{};
    if (::stat(dir.c_str(), &st) == 0) {
        return S_ISDIR(st.st_mode) && ::access(dir.c_str(), W_OK) == 0;
    }
    return ::mkdir(dir.c_str(), 0755) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    int modules = 4;
    double duration = -1;
    bool json = false;
    bool checkOnly = false;
    std::string binDir;
    std::string services;
    std::string reportFile;
    std::string pcapDir;
    static const option longOptions[] = {{"services", required_argument, nullptr, 's'},
                                         {"modules", required_argument, nullptr, 'n'},
                                         {"for", required_argument, nullptr, 'f'},
                                         {"json", no_argument, nullptr, 'j'},
                                         {"bin", required_argument, nullptr, 'b'},
                                         {"check", no_argument, nullptr, 'c'},
                                         {"report", required_argument, nullptr, 'R'},
                                         {"pcap", required_argument, nullptr, 'P'},
                                         {"help", no_argument, nullptr, 'h'},
                                         {"version", no_argument, nullptr, 'V'},
                                         {nullptr, 0, nullptr, 0}};
    int opt;
    while ((opt = ::getopt_long(argc, argv, "n:f:jb:chs:", longOptions, nullptr)) != -1) {
        char* end = nullptr;
        switch (opt) {
            case 'n':
                modules = static_cast<int>(std::strtol(optarg, &end, 10));
                if (*end != '\0' || modules < 1 || modules > kMaxModules) {
                    std::cerr << "tsdsim: --modules takes a number from 1 to " << kMaxModules << "\n";
                    return kExitSetupFailed;
                }
                break;
            case 'f':
                duration = std::strtod(optarg, &end);
                if (*end != '\0' || !(duration > 0) || duration > 86400) {
                    std::cerr << "tsdsim: --for takes a number of seconds (0 < s <= 86400)\n";
                    return kExitSetupFailed;
                }
                break;
            case 'j':
                json = true;
                break;
            case 'b':
                binDir = optarg;
                break;
            case 's':
                services = optarg;
                if (services != "real" && services != "recording") {
                    std::cerr << "tsdsim: --services takes real or recording\n";
                    return kExitSetupFailed;
                }
                break;
            case 'c':
                checkOnly = true;
                break;
            case 'R':
                reportFile = optarg;
                if (reportFile.empty() || !writableDirectoryOf(reportFile)) {
                    std::cerr << "tsdsim: --report: cannot write into the directory of '" << reportFile << "'\n";
                    return kExitSetupFailed;
                }
                break;
            case 'P':
                pcapDir = optarg;
                if (pcapDir.empty()) {
                    std::cerr << "tsdsim: --pcap takes a directory\n";
                    return kExitSetupFailed;
                }
                break;
            case 'h':
                usage(std::cout);
                return 0;
            case 'V':
                std::cout << "tsdsim " TSD_VERSION "\n";
                return 0;
            default:
                usage(std::cerr);
                return kExitSetupFailed;
        }
    }
    if (argc - optind > 1) {
        usage(std::cerr);
        return kExitSetupFailed;
    }

    tsdsim::Chain chain;
    try {
        if (optind < argc) {
            chain = tsdsim::loadChain(argv[optind]);
            if (duration > 0) {
                chain.duration = duration;
            }
        } else {
            chain = tsdsim::defaultChain(modules, duration > 0 ? duration : 15);
        }
    } catch (const tsdsim::ChainError& e) {
        std::cerr << "tsdsim: " << (optind < argc ? std::string(argv[optind]) + ": " : "") << e.what()
                  << "\n";
        return kExitSetupFailed;
    }
    if (!services.empty()) {
        chain.services = services == "real" ? tsdsim::Services::Real : tsdsim::Services::Recording;
    }
    if (checkOnly) {
        std::cout << "chain ok: " << chain.modules.size() << " module(s), " << chain.buses.size()
                  << " bus(es), " << chain.events.size() << " event(s), " << chain.duration << " s\n";
        return 0;
    }
    if (::geteuid() != 0) {
        std::cerr << "tsdsim: needs root (it builds network and mount namespaces and virtual interfaces)\n";
        return kExitSetupFailed;
    }

    tsdsim::World::Options options;
    options.binDir = binDir;
    tsdsim::World::installStopSignals();
    std::ostream& live = json ? std::cerr : std::cout;
    bool tty = ::isatty(json ? 2 : 1) != 0;

    int rc = 0;
    if (tty) {
        live << "\033[2J" << std::flush;
    }
    {
        tsdsim::Scenario scenario(chain, options);
        try {
            scenario.build();
            for (const char* prog : {"velad", "vela", "tsd", "fwdevd", "tsdparamd"}) {
                std::string path = scenario.world().binDir() + "/" + prog;
                if (!executable(path)) {
                    throw std::runtime_error("missing program " + path + " (build it, or give --bin DIR)");
                }
            }
            const std::string allowList = scenario.world().dataDir() + "/ptp4l-options";
            if (::access(allowList.c_str(), R_OK) != 0) {
                throw std::runtime_error("missing " + allowList +
                                         ", the ptp4l options tsdparamd lets through");
            }
        } catch (const std::exception& e) {
            std::cerr << "tsdsim: " << e.what() << "\n";
            return kExitSetupFailed;
        }
        if (!pcapDir.empty()) {
            if (!makeDirectory(pcapDir)) {
                std::cerr << "tsdsim: --pcap: cannot write into '" << pcapDir << "'\n";
                return kExitSetupFailed;
            }
            for (const auto& bus : scenario.world().buses()) {
                std::string error;
                if (!bus->startCapture(pcapDir + "/" + bus->name() + ".pcap", error)) {
                    std::cerr << "tsdsim: --pcap: " << error << "\n";
                    return kExitSetupFailed;
                }
            }
        }
        std::vector<std::string> recent;
        double lastPlain = -10;
        auto onEvent = [&](const std::string& what) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%6.1f s  ", scenario.now());
            recent.push_back(buf + what);
            if (recent.size() > 6) {
                recent.erase(recent.begin());
            }
            if (!tty) {
                live << buf << what << "\n" << std::flush;
            }
        };
        auto onTick = [&] {
            if (tty) {
                char head[160];
                std::snprintf(head, sizeof head, "tsdsim  %zu modules  %.1f / %.0f s   (Ctrl-C stops)\n\n",
                              chain.modules.size(), scenario.now(), chain.duration);
                std::string text = head + scenario.table() + "\nRecent events:\n";
                for (const auto& r : recent) {
                    text += "  " + r + "\n";
                }
                // Overwrite in place, line by line, instead of clearing the
                // screen first: no flicker.
                std::string screen = "\033[H";
                for (char c : text) {
                    screen += c == '\n' ? std::string("\033[K\n") : std::string(1, c);
                }
                live << screen << "\033[J" << std::flush;
            } else if (scenario.now() - lastPlain >= 5.0) {
                lastPlain = scenario.now();
                char head[64];
                std::snprintf(head, sizeof head, "--- %.1f s\n", scenario.now());
                live << head << scenario.table() << std::flush;
            }
        };
        bool ok = scenario.run(onTick, std::chrono::milliseconds(tty ? 500 : 1000), onEvent);
        if (!ok) {
            std::cerr << "tsdsim: a module did not start: " << scenario.startError() << "\n";
            rc = kExitSetupFailed;
        }
        scenario.finish();
        for (const auto& bus : scenario.world().buses()) {
            if (!pcapDir.empty()) {
                const std::uint64_t frames = bus->stopCapture();
                std::cerr << "tsdsim: " << frames << " frames of bus " << bus->name() << " in " << pcapDir << "/"
                          << bus->name() << ".pcap\n";
            }
        }
        if (!reportFile.empty()) {
            std::string error;
            if (tsdsim::ReportWriter(scenario.timeline()).writeFile(reportFile, error)) {
                std::cerr << "tsdsim: report of the run in " << reportFile << "\n";
            } else {
                std::cerr << "tsdsim: --report: " << error << "\n";
                rc = kExitSetupFailed;
            }
        }
        if (tty) {
            live << "\033[H\033[J" << scenario.table() << "\n" << std::flush;
        }
        if (json) {
            Json::StreamWriterBuilder b;
            b["indentation"] = "  ";
            // Milliseconds are all the timeline can tell apart.
            b["precision"] = 3;
            b["precisionType"] = "decimal";
            std::cout << Json::writeString(b, scenario.summary()) << "\n";
        } else {
            std::cout << scenario.summaryText() << std::flush;
        }
        if (rc == 0 && scenario.interrupted()) {
            rc = kExitInterrupted;
        }
    }
    return rc;
}
