// Figures of the real time services in simulated chains: how long it takes
// until every module's ptp4l follows one grandmaster after the start, and
// the new one after the master is unplugged, with ptp4l's own announce
// timing and with the documented fast timing; and, on the same simulated bus
// with the same number of nodes, how long ptp4l's own best-master choice
// takes for the same (plain ptp4l in every module, no tsd), for comparison.
// Needs root, linuxptp and the private chronyd; prints a table.
//
//   sim_services_bench [--sizes 4,16] [--runs N] [--timing defaults|fast|faster]...
//
// "Follows" is what pmc reads from each module's own ptp4l: a port in SLAVE
// or UNCALIBRATED state (a free-running follower never leaves the latter)
// whose grandmaster is the module, or the grandmaster itself in MASTER state.
// Each module is asked every poll, all side by side; a poll takes some
// 50-150 ms, which bounds the resolution of the figures.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/ChildProcess.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using tsdsim::Module;
using tsdsim::World;

namespace {

// A loaded machine runs the scripts of many modules slowly; give it time.
constexpr auto kLimit = 120s;

double since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// Seconds until every module of group follows master (any one master but
// gone when master is null; it is then set), -1 when not within kLimit.
double untilFollowed(World& world, const std::vector<Module*>& group, const Module*& master,
                     Clock::time_point t0, const Module* gone = nullptr)
{
    while (since(t0) < std::chrono::duration<double>(kLimit).count()) {
        world.pollFollowed();
        const Module* first = world.followed(*group.front());
        bool all = first && first != gone && (!master || first == master);
        for (const Module* m : group) {
            all = all && world.followed(*m) == first;
        }
        if (all) {
            master = first;
            return since(t0);
        }
        std::this_thread::sleep_for(20ms);
    }
    // Say who held the agreement up, and what its ptp4l said.
    for (const Module* m : group) {
        const Module* f = world.followed(*m);
        if (!f || f == gone || (master && f != master)) {
            std::cerr << "  " << m->name() << ": follows " << (f ? f->name() : "none") << ", port state "
                      << (m->ptp().answered ? m->ptp().portState : "(no answer from its ptp4l)") << "\n";
        }
    }
    return -1;
}

struct Figures
{
    double start = -1;
    double unplug = -1;
    // With tsd: from the unplug until the new master's daemon ran
    // "ptp4ladm.sh start" (its election), and the script's own run time.
    double elected = -1;
};

// When the module's daemon last made its ptp4l the server, since since (world time).
double serverStarted(const Module& m, double since)
{
    for (const auto& c : m.scriptCalls()) {
        if (c.time >= since && c.script == "ptp4ladm.sh" && (c.args == "start" || c.args == "restart")) {
            return c.time - since;
        }
    }
    return -1;
}

// n modules on one bus. withTsd: the chain as shipped (tsd decides, the
// scripts run ptp4l); otherwise a plain ptp4l in every module.
Figures measure(int n, const std::string& timing, bool withTsd)
{
    Figures f;
    World::Options options;
    options.services = tsdsim::Services::Real;
    options.ptp4lTiming = timing;
    World world(options);
    tsdsim::Bus& bus = world.addBus("chain");
    std::vector<Module*> all;
    for (int i = 1; i <= n; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = 0x00e000u + static_cast<std::uint32_t>(i);
        Module& m = world.addModule(s);
        world.plug(m, tsdsim::Side::Rear, bus);
        all.push_back(&m);
    }
    std::vector<std::unique_ptr<tsdsim::ChildProcess>> plain;
    Clock::time_point t0;
    if (withTsd) {
        if (!world.startPlatforms()) {
            return f;
        }
        world.prepareTimeServices();
        t0 = Clock::now();
        for (Module* m : all) {
            if (!m->startTsd({})) {
                return f;
            }
        }
    } else {
        t0 = Clock::now();
        std::istringstream words(world.real().serverOptions());
        std::vector<std::string> argv{"services/ptp4l"};
        for (std::string w; words >> w;) {
            argv.push_back(w);
        }
        for (Module* m : all) {
            argv[0] = m->files().path("services/ptp4l");
            plain.push_back(std::make_unique<tsdsim::ChildProcess>());
            if (!plain.back()->start(m->sandbox().childOptions(argv, "ptp4l"))) {
                return f;
            }
        }
    }
    // tsd elects the largest UUID; right after the start each daemon serves
    // for a moment on its own, and that short-lived agreement does not count.
    // ptp4l alone picks a grandmaster of its own accord.
    const Module* master = withTsd ? all.back() : nullptr;
    f.start = untilFollowed(world, all, master, t0);
    if (f.start < 0) {
        return f;
    }
    std::vector<Module*> rest;
    for (Module* m : all) {
        if (m != master) {
            rest.push_back(m);
        }
    }
    const Module* next = withTsd ? rest.back() : nullptr;
    t0 = Clock::now();
    const double unplugged = world.now();
    world.unplug(*const_cast<Module*>(master));
    f.unplug = untilFollowed(world, rest, next, t0, master);
    if (withTsd && next) {
        f.elected = serverStarted(*next, unplugged);
    }
    return f;
}

std::string figure(double s)
{
    if (s < 0) {
        return " (none in 120 s)";
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, "%8.2f s", s);
    return buf;
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes{4, 16};
    int runs = 1;
    std::vector<std::string> only;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--sizes" && i + 1 < argc) {
            sizes.clear();
            std::stringstream list(argv[++i]);
            for (std::string item; std::getline(list, item, ',');) {
                sizes.push_back(std::atoi(item.c_str()));
            }
        } else if (a == "--timing" && i + 1 < argc) {
            only.push_back(argv[++i]);
        } else if (a == "--runs" && i + 1 < argc) {
            runs = std::max(1, std::atoi(argv[++i]));
        } else {
            std::cerr << "usage: sim_services_bench [--sizes 4,16] [--runs N] [--timing defaults|fast|faster]...\n";
            return 2;
        }
    }
    if (::geteuid() != 0) {
        std::cerr << "sim_services_bench: needs root\n";
        return 2;
    }
    struct Timing
    {
        const char* name;
        std::string options;
    };
    const std::vector<Timing> all{{"defaults", ""},
                                  {"fast", tsdsim::RealServices::fastTiming()},
                                  {"faster", "--logAnnounceInterval -3 --announceReceiptTimeout 2"}};
    std::vector<Timing> timings;
    for (const Timing& t : all) {
        if (only.empty() || std::find(only.begin(), only.end(), t.name) != only.end()) {
            timings.push_back(t);
        }
    }
    std::cout << "Fast options: " << tsdsim::RealServices::fastTiming() << "\n"
              << "Every ptp4l: " << tsdsim::RealServices::basePtp4lOptions() << "\n\n"
              << "modules  timing          what                     start->all follow  unplug->all follow"
                 "  (of which tsd's election)\n";
    for (int n : sizes) {
        for (const Timing& t : timings) {
            for (bool withTsd : {true, false}) {
                for (int r = 0; r < runs; ++r) {
                    Figures f;
                    try {
                        f = measure(n, t.options, withTsd);
                    } catch (const std::exception& e) {
                        std::cerr << "sim_services_bench: " << e.what() << "\n";
                        return 1;
                    }
                    std::printf("%7d  %-14s  %-23s  %17s  %18s  %s\n", n, t.name,
                                withTsd ? "tsd + scripts + ptp4l" : "ptp4l alone (own BMCA)",
                                figure(f.start).c_str(), figure(f.unplug).c_str(),
                                withTsd ? figure(f.elected).c_str() : "");
                    std::fflush(stdout);
                }
            }
        }
    }
    return 0;
}
