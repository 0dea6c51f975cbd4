// The soak: a chain of 16 modules for an hour (by default) with an event
// every 10 s, in a fixed round: a parameter change on the master, a module
// unplugged and replugged, a broker killed and started again, a daemon
// stopped and started again, the master unplugged and replugged. After each
// event the bench waits, until the next one, for the election it opens to
// complete: every module shows the master it must show (the unplugged one
// is on its own), with the master's threshold, and no error. Every minute it
// samples resident memory and open descriptors of every tsd and velad and
// prints them with the elections completed and any that did not. Needs root
// and the daemon, broker and client built beside it.
//
//   soak_bench [--minutes N] [--modules N] [--warmup N]
//
// Flatness. The first --warmup minutes (default 3, 1 for runs of 5 minutes
// or less) let every process reach its working set: allocator arenas,
// the broker's buffers, the daemon's lists of all 16 modules. After them,
// against the first sample after the warm-up:
//   - descriptors: each process exactly as many, give or take 2 (a client
//     of the broker reconnecting at the moment of the sample; a descriptor
//     leak grows without end and exceeds it within a few rounds);
//   - resident memory: each process within 5 % plus 256 KiB of its own
//     size then, or, when it was restarted since, of the largest process of
//     its kind then. Freed memory goes back to the allocator, not the
//     kernel, so resident sizes move by tens of KiB as elections come and
//     go, and a restarted process starts small and grows back to the size
//     of the others (so sums over all processes climb for a while after
//     each restart without any leak). A leak is a steady climb of a process
//     that ran throughout: the largest such growth is printed, and memcheck
//     is the tool that sees a small one.
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/World.h"

using namespace std::chrono_literals;

namespace {

struct Usage
{
    pid_t pid = 0;
    long rssKiB = -1;
    long fds = -1;
};

Usage usageOf(pid_t pid)
{
    Usage u;
    u.pid = pid;
    if (pid <= 0) {
        return u;
    }
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            u.rssKiB = std::atol(line.c_str() + 6);
        }
    }
    if (DIR* d = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str())) {
        long n = 0;
        while (dirent* e = ::readdir(d)) {
            n += e->d_name[0] != '.' ? 1 : 0;
        }
        ::closedir(d);
        u.fds = n;
    }
    return u;
}

struct Sample
{
    double minute;
    std::vector<Usage> tsd;    // per module
    std::vector<Usage> velad;  // per module
};

long sumRss(const std::vector<Usage>& v)
{
    long s = 0;
    for (const auto& u : v) {
        s += std::max(0L, u.rssKiB);
    }
    return s;
}

std::pair<long, long> fdRange(const std::vector<Usage>& v)
{
    long lo = 1L << 30, hi = -1;
    for (const auto& u : v) {
        lo = std::min(lo, u.fds);
        hi = std::max(hi, u.fds);
    }
    return {lo, hi};
}

std::string label(std::uint32_t uuid)
{
    tsdsim::ModuleSetup s;
    s.uuid = uuid;
    return s.label();
}

}  // namespace

int main(int argc, char** argv)
{
    double minutes = 60;
    int modules = 16;
    double warmup = -1;
    for (int i = 1; i < argc; ++i) {
        std::string opt = argv[i];
        if (opt == "--minutes" && i + 1 < argc) {
            minutes = std::atof(argv[++i]);
        } else if (opt == "--modules" && i + 1 < argc) {
            modules = std::atoi(argv[++i]);
        } else if (opt == "--warmup" && i + 1 < argc) {
            warmup = std::atof(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: soak_bench [--minutes N] [--modules N] [--warmup N]\n");
            return 2;
        }
    }
    if (minutes <= 0 || minutes > 24 * 60 || modules < 3 || modules > 64) {
        std::fprintf(stderr, "soak_bench: --minutes 0..1440, --modules 3..64\n");
        return 2;
    }
    if (warmup < 0) {
        warmup = minutes <= 5 ? 1 : 3;
    }
    if (::geteuid() != 0) {
        std::fprintf(stderr, "soak_bench: needs root\n");
        return 2;
    }
    tsdsim::World::installStopSignals();

    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    for (int i = 1; i <= modules; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = 0x05A000u + static_cast<std::uint32_t>(i);
        world.addModule(s).addInterface(tsdsim::Side::Rear, bus);
    }
    world.updateReachable();
    const auto& mods = world.modules();
    if (!world.startAll()) {
        std::fprintf(stderr, "soak_bench: the chain did not start\n");
        return 1;
    }
    tsdsim::Module& top = *mods.back();
    const std::uint32_t topUuid = top.setup().uuid;
    const std::uint32_t nextUuid = mods[mods.size() - 2]->setup().uuid;

    // The election an event opened is complete when every module follows
    // master (the one in alone shows that it is on its own), the master's
    // threshold is threshold, and nothing is raised.
    auto complete = [&](std::uint32_t master, double threshold, const tsdsim::Module* alone) {
        for (auto& m : mods) {
            if (!m->tsdRunning() || !m->states("sync/errors/").empty()) {
                return false;
            }
            Json::Value app = m->state("sync/app");
            if (app.isNull()) {
                return false;
            }
            if (m.get() == alone) {
                if (app["mode_back"].asInt() != 1) {
                    return false;
                }
                continue;
            }
            const int mode = (m->setup().uuid & 0xFFFFFFu) == master ? 3 : 2;
            if (app["mode_back"].asInt() != mode || app["master_uuid_back"].asUInt() != master ||
                m->state("sync/master").asString() != label(master) ||
                std::abs(app["master_threshold_back"].asDouble() - threshold) > 1e-6) {
                return false;
            }
        }
        return true;
    };

    const auto start = std::chrono::steady_clock::now();
    auto elapsedMin = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / 60; };
    std::printf("soak: %d modules on one bus for %.1f min, an event every 10 s, warm-up %.1f min\n", modules,
                minutes, warmup);
    std::printf("%6s %6s %6s | %10s %10s %8s | %10s %10s %8s\n", "min", "elect", "failed", "tsd RSS", "max/proc",
                "fds", "velad RSS", "max/proc", "fds");
    std::printf("%6s %6s %6s | %10s %10s %8s | %10s %10s %8s\n", "", "ok", "", "[KiB sum]", "[KiB]", "min-max",
                "[KiB sum]", "[KiB]", "min-max");
    std::fflush(stdout);

    // The first election after the start.
    double threshold = 1.0;
    int completed = 0;
    std::vector<std::string> failed;
    if (world.waitFor([&] { return complete(topUuid, threshold, nullptr); }, 40s)) {
        ++completed;
    } else {
        failed.push_back("start");
    }

    std::vector<Sample> samples;
    double nextSample = 1.0;
    auto sample = [&] {
        Sample s;
        s.minute = elapsedMin();
        for (auto& m : mods) {
            s.tsd.push_back(usageOf(m->tsdPid()));
            s.velad.push_back(usageOf(m->veladPid()));
        }
        auto tf = fdRange(s.tsd);
        auto vf = fdRange(s.velad);
        long tmax = 0, vmax = 0;
        for (std::size_t i = 0; i < s.tsd.size(); ++i) {
            tmax = std::max(tmax, s.tsd[i].rssKiB);
            vmax = std::max(vmax, s.velad[i].rssKiB);
        }
        std::printf("%6.1f %6d %6zu | %10ld %10ld %3ld-%-4ld | %10ld %10ld %3ld-%-4ld\n", s.minute, completed,
                    failed.size(), sumRss(s.tsd), tmax, tf.first, tf.second, sumRss(s.velad), vmax, vf.first,
                    vf.second);
        std::fflush(stdout);
        samples.push_back(std::move(s));
    };

    std::size_t round = 0;
    std::size_t victim = 0;  // the module the round unplugs and restarts: m1 .. m(n-1) in turn
    while (elapsedMin() < minutes && !tsdsim::World::stopRequested()) {
        const auto slotEnd = std::chrono::steady_clock::now() + 10s;
        tsdsim::Module& v = *mods[victim];
        std::uint32_t master = topUuid;
        const tsdsim::Module* alone = nullptr;
        std::string what;
        switch (round % 7) {
            case 0: {
                threshold = threshold == 1.0 ? 2.0 : 1.0;
                tsdsim::SyncParam p = top.param();
                p.threshold = threshold;
                top.setParam(p);
                what = "param " + top.name();
                break;
            }
            case 1:
                world.unplug(v);
                alone = &v;
                what = "unplug " + v.name();
                break;
            case 2:
                world.replug(v);
                what = "replug " + v.name();
                break;
            case 3:
                v.stopVelad(SIGKILL);
                if (!v.startVelad()) {
                    what = "(velad did not start) ";
                }
                what += "velad restart " + v.name();
                break;
            case 4:
                v.stopTsd(SIGTERM);
                if (!v.startTsd()) {
                    what = "(tsd did not start) ";
                }
                what += "tsd restart " + v.name();
                victim = (victim + 1) % (mods.size() - 1);
                break;
            case 5:
                world.unplug(top);
                master = nextUuid;
                alone = &top;
                what = "unplug " + top.name();
                break;
            case 6:
                world.replug(top);
                what = "replug " + top.name();
                break;
        }
        // The master's threshold while the top module is off the chain is
        // the next one's, which never changes.
        const double expect = master == topUuid ? threshold : 1.0;
        const bool ok = world.waitFor([&] { return complete(master, expect, alone); },
                                      std::chrono::duration_cast<std::chrono::milliseconds>(
                                          slotEnd - std::chrono::steady_clock::now()));
        if (ok) {
            ++completed;
        } else {
            char when[32];
            std::snprintf(when, sizeof when, "%.1f min: ", elapsedMin());
            failed.push_back(when + what);
            std::printf("  not completed: %s%s\n", when, what.c_str());
        }
        ++round;
        while (std::chrono::steady_clock::now() < slotEnd && !tsdsim::World::stopRequested()) {
            world.maintain();
            std::this_thread::sleep_for(50ms);
        }
        if (elapsedMin() >= nextSample) {
            sample();
            nextSample += 1.0;
        }
    }
    if (samples.empty() || elapsedMin() - samples.back().minute > 0.1) {
        sample();
    }

    // Flatness after the warm-up.
    const Sample* base = nullptr;
    for (const auto& s : samples) {
        if (s.minute >= warmup) {
            base = &s;
            break;
        }
    }
    bool pass = failed.empty();
    std::printf("\nelections completed: %d, not completed: %zu\n", completed, failed.size());
    for (const auto& f : failed) {
        std::printf("  %s\n", f.c_str());
    }
    if (!base || &samples.back() == base) {
        std::printf("too short for a flatness check after %.1f min of warm-up: FAIL\n", warmup);
        return 1;
    }
    const double perProcess = 256;
    std::map<std::string, long> steadyGrowth;  // by kind: the most a process that was never restarted grew
    for (const auto& s : samples) {
        if (s.minute < base->minute) {
            continue;
        }
        for (std::size_t i = 0; i < mods.size(); ++i) {
            if (std::labs(s.tsd[i].fds - base->tsd[i].fds) > 2 || std::labs(s.velad[i].fds - base->velad[i].fds) > 2) {
                std::printf("%.1f min: %s descriptors tsd %ld (was %ld), velad %ld (was %ld)\n", s.minute,
                            mods[i]->name().c_str(), s.tsd[i].fds, base->tsd[i].fds, s.velad[i].fds,
                            base->velad[i].fds);
                pass = false;
            }
        }
        // A process that ran since the first sample after the warm-up is held
        // to its own size then; one started since (a restart) to the largest
        // process of its kind then.
        for (const auto& kind : {std::make_pair("tsd", &Sample::tsd), std::make_pair("velad", &Sample::velad)}) {
            const auto& was = base->*kind.second;
            const auto& is = s.*kind.second;
            long largest = 0;
            for (const auto& u : was) {
                largest = std::max(largest, u.rssKiB);
            }
            for (std::size_t i = 0; i < is.size(); ++i) {
                const bool same = is[i].pid == was[i].pid;
                const double ref = static_cast<double>(same ? was[i].rssKiB : largest);
                const double limit = ref * 1.05 + perProcess;
                if (same) {
                    steadyGrowth[kind.first] = std::max(steadyGrowth[kind.first], is[i].rssKiB - was[i].rssKiB);
                }
                if (static_cast<double>(is[i].rssKiB) > limit) {
                    std::printf("%.1f min: %s of %s resident %ld KiB, above %.0f KiB\n", s.minute, kind.first,
                                mods[i]->name().c_str(), is[i].rssKiB, limit);
                    pass = false;
                }
            }
        }
    }
    const Sample& last = samples.back();
    const double hours = (last.minute - base->minute) / 60;
    std::printf("after the warm-up (%.1f to %.1f min): tsd RSS %ld -> %ld KiB (%+.0f KiB/h), velad RSS %ld -> %ld KiB "
                "(%+.0f KiB/h)\n",
                base->minute, last.minute, sumRss(base->tsd), sumRss(last.tsd),
                static_cast<double>(sumRss(last.tsd) - sumRss(base->tsd)) / hours, sumRss(base->velad),
                sumRss(last.velad), static_cast<double>(sumRss(last.velad) - sumRss(base->velad)) / hours);
    std::printf("largest growth of a process that ran throughout: tsd %ld KiB, velad %ld KiB\n",
                steadyGrowth["tsd"], steadyGrowth["velad"]);
    std::printf("tolerance: descriptors +-2 per process, resident memory +5 %% + %.0f KiB per process: %s\n",
                perProcess, pass ? "PASS" : "FAIL");
    return pass ? 0 : 1;
}
