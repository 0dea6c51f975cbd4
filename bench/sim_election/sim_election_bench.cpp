// Figures of the simulated chain: how long chains of real daemons take to
// agree on a master after start and after the master is unplugged, how much
// of that the protocol itself prescribes, where the rest went, and how fast
// the simulated bus carries frames (bridge and relay, with and without a
// capture). Prints tables; needs root and the daemon, broker and client
// built beside it. --trace adds every step of each election's critical path;
// --sizes 0 measures only the medium.
//
//   sim_election_bench [--sizes 2,4,8,16,32,64] [--frames 20000] [--trace]
//
// ElectionPath.h says what the protocol prescribes and how the critical path
// is traced; ChainCapture.h what the bench captures for it. Besides the
// path, the bench reads each daemon's CPU time and the time it waited for a
// CPU (the kernel's schedstat) over the election, and the CPU time of the
// simulator's own threads (monitors, and the relay of an impaired bus), so that the time the daemons
// take on the path can be set against the work they did.
#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ChainCapture.h"
#include "ElectionPath.h"
#include "SchedTrace.h"
#include "tsdsim/World.h"

using namespace std::chrono_literals;
using simbench::Clock;
using simbench::msBetween;

namespace {

constexpr auto kTimeout = 120s;

double since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

// A task's CPU time and the time it waited for a CPU, from
// /proc/.../schedstat (nanoseconds).
struct CpuTime
{
    double runMs = 0;
    double waitMs = 0;

    CpuTime operator-(const CpuTime& o) const { return {runMs - o.runMs, waitMs - o.waitMs}; }
    CpuTime& operator+=(const CpuTime& o)
    {
        runMs += o.runMs;
        waitMs += o.waitMs;
        return *this;
    }
};

CpuTime readSchedstat(const std::string& path)
{
    std::ifstream in(path);
    double run = 0;
    double wait = 0;
    CpuTime t;
    if (in >> run >> wait) {
        t.runMs = run / 1e6;
        t.waitMs = wait / 1e6;
    }
    return t;
}

// Every thread of the simulator's own (the world's I/O and relay threads
// carry names beginning "tsdsim-").
CpuTime simulatorThreads()
{
    CpuTime sum;
    DIR* d = ::opendir("/proc/self/task");
    if (!d) {
        return sum;
    }
    while (dirent* e = ::readdir(d)) {
        const std::string task = std::string("/proc/self/task/") + e->d_name;
        std::ifstream comm(task + "/comm");
        std::string name;
        if (std::getline(comm, name) && name.rfind("tsdsim-", 0) == 0) {
            sum += readSchedstat(task + "/schedstat");
        }
    }
    ::closedir(d);
    return sum;
}

// What each daemon and the simulator's threads had used at one moment.
struct CpuSnapshot
{
    std::vector<CpuTime> daemons;  // per module; zero before its daemon ran
    CpuTime simulator;
};

CpuSnapshot snapshot(const tsdsim::World& world)
{
    CpuSnapshot s;
    for (const auto& m : world.modules()) {
        const pid_t pid = m->tsdPid();
        s.daemons.push_back(pid > 0 ? readSchedstat("/proc/" + std::to_string(pid) + "/schedstat") : CpuTime{});
    }
    s.simulator = simulatorThreads();
    return s;
}

struct Figures
{
    simbench::Attribution path;
    // Of the daemons' stretches on the path: how long their daemon ran, how
    // long it waited for a CPU, how long for a script it ran (all -1 when the
    // scheduler could not be traced).
    double runningMs = -1;
    double waitingMs = -1;
    double scriptsMs = -1;
    unsigned long schedLost = 0;
    // Per daemon over the election (the unplugged module left out).
    double cpuMeanMs = 0;
    double cpuMaxMs = 0;
    double waitMeanMs = 0;
    double waitMaxMs = 0;
    double simulatorCpuMs = 0;
};

void addCpu(Figures& f, const CpuSnapshot& from, const CpuSnapshot& to, int except)
{
    int n = 0;
    for (std::size_t i = 0; i < to.daemons.size(); ++i) {
        if (static_cast<int>(i) == except) {
            continue;
        }
        const CpuTime d = to.daemons[i] - from.daemons[i];
        f.cpuMeanMs += d.runMs;
        f.waitMeanMs += d.waitMs;
        f.cpuMaxMs = std::max(f.cpuMaxMs, d.runMs);
        f.waitMaxMs = std::max(f.waitMaxMs, d.waitMs);
        ++n;
    }
    if (n > 0) {
        f.cpuMeanMs /= n;
        f.waitMeanMs /= n;
    }
    f.simulatorCpuMs = (to.simulator - from.simulator).runMs;
}

// When the simulator saw each module's last result (sync/app or sync/master)
// up to the agreement; the start of the world for a module without one.
std::vector<Clock::time_point> results(const tsdsim::World& world, Clock::time_point agreed)
{
    std::vector<Clock::time_point> out;
    for (const auto& m : world.modules()) {
        Clock::time_point last = world.startTime();
        for (const auto& e : m->events()) {
            const auto t =
                world.startTime() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(e.time));
            if ((e.path == "sync/app" || e.path == "sync/master") && t <= agreed) {
                last = std::max(last, t);
            }
        }
        out.push_back(last);
    }
    return out;
}

bool agree(tsdsim::World& world, std::uint32_t master, const tsdsim::Module* except)
{
    tsdsim::ModuleSetup ref;
    ref.uuid = master;
    for (auto& m : world.modules()) {
        if (m.get() == except) {
            continue;
        }
        if (m->state("sync/master").asString() != ref.label() ||
            m->state("sync/app")["master_uuid_back"].asUInt() != master) {
            return false;
        }
    }
    return true;
}

struct ChainFigures
{
    int size = 0;
    double setup = -1;  // world built and processes started (s)
    Figures start;      // from the daemons' start to agreement
    Figures failover;   // from unplugging the master to agreement on the next
};

Figures analyse(tsdsim::World& world, simbench::ChainCapture& capture, simbench::SchedTrace* sched,
                Clock::time_point trigger, Clock::time_point agreed, int except, bool atStart,
                const std::vector<Clock::time_point>& started, const CpuSnapshot& before, bool trace)
{
    // Answers still under way when the agreement was seen belong to the
    // election too, and the next one starts on a quiet bus.
    capture.waitQuiet(1500ms, 60s);
    if (sched) {
        sched->stop();
    }
    Figures f;
    addCpu(f, before, snapshot(world), except);
    simbench::ElectionInput in;
    in.telegrams = capture.telegrams();
    in.bus = capture.busMessages();
    in.trigger = trigger;
    in.agreed = agreed;
    in.except = except;
    in.atStart = atStart;
    in.started = started;
    in.results = results(world, agreed);
    in.trace = trace;
    if (trace) {
        static const char* const kinds[] = {"publication", "notification", "platform update"};
        for (const auto& b : in.bus) {
            if (b.time >= trigger) {
                std::printf("    %9.1f ms  module %2d bus %s\n", msBetween(trigger, b.time), b.module + 1,
                            kinds[b.kind]);
            }
        }
        for (const auto& t : in.telegrams) {
            if (t.outgoing && t.time >= trigger) {
                std::printf("    %9.1f ms  module %2d sends %s\n", msBetween(trigger, t.time), t.module + 1,
                            t.kind.c_str());
            }
        }
    }
    f.path = simbench::traceElection(in);
    if (sched) {
        f.runningMs = 0;
        f.waitingMs = 0;
        f.scriptsMs = 0;
        f.schedLost = sched->lost();
        for (const auto& stretch : f.path.daemonStretches) {
            const pid_t pid = world.modules()[static_cast<std::size_t>(stretch.module)]->tsdPid();
            const simbench::SchedTrace::Split split = sched->split(pid, stretch.from, stretch.to);
            f.runningMs += split.runningMs;
            f.waitingMs += split.waitingMs;
            f.scriptsMs += split.childrenMs;
            if (trace) {
                const double ms = msBetween(stretch.from, stretch.to) - stretch.sleepMs;
                std::printf("    module %2d (tsd %d, from %.6f s)  %9.1f -> %9.1f ms: %7.2f ms, ran %.2f, waited for "
                            "a CPU %.2f, a script ran %.2f, blocked otherwise %.2f\n",
                            stretch.module + 1, static_cast<int>(pid),
                            std::chrono::duration<double>(stretch.from.time_since_epoch()).count(),
                            msBetween(trigger, stretch.from), msBetween(trigger, stretch.to), ms,
                            split.runningMs, split.waitingMs, split.childrenMs,
                            ms - split.runningMs - split.waitingMs - split.childrenMs);
            }
        }
    }
    return f;
}

ChainFigures measureChain(int n, bool trace)
{
    ChainFigures f;
    f.size = n;
    auto t0 = Clock::now();
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    simbench::ChainCapture capture;
    for (int i = 1; i <= n; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = static_cast<std::uint32_t>(0x000100 + i);
        tsdsim::Module& m = world.addModule(s);
        m.addInterface(tsdsim::Side::Rear, bus);
        if (!capture.watch(m, i - 1, m.address(tsdsim::Side::Rear))) {
            std::fprintf(stderr, "sim_election_bench: cannot capture what %s sends and receives\n",
                         s.name.c_str());
            return f;
        }
    }
    capture.start();
    world.updateReachable();
    if (!world.startPlatforms()) {
        return f;
    }
    f.setup = since(t0);

    simbench::SchedTrace sched;
    std::string schedError;
    const bool scheduling = sched.start(schedError);
    if (!scheduling && trace) {
        std::printf("  no scheduler events: %s\n", schedError.c_str());
    }
    const CpuSnapshot idle = snapshot(world);
    const auto t1 = Clock::now();
    std::vector<Clock::time_point> started;
    for (auto& m : world.modules()) {
        m->startTsd({});
        started.push_back(Clock::now());
    }
    if (trace) {
        std::printf("  starting %d daemons took %.1f ms\n", n, msBetween(t1, Clock::now()));
    }
    const auto top = static_cast<std::uint32_t>(0x000100 + n);
    if (!world.waitFor([&] { return agree(world, top, nullptr); }, kTimeout)) {
        return f;
    }
    const auto agreed = Clock::now();
    if (trace) {
        std::printf("  %d modules, start:\n", n);
    }
    f.start = analyse(world, capture, scheduling ? &sched : nullptr, t1, agreed, -1, true, started, idle, trace);
    if (n >= 2) {
        tsdsim::Module& master = *world.modules().back();
        const bool rescheduling = scheduling && sched.start(schedError);
        const CpuSnapshot before = snapshot(world);
        const auto t2 = Clock::now();
        world.unplug(master);
        if (trace) {
            std::printf("  unplug() took %.1f ms\n", msBetween(t2, Clock::now()));
        }
        if (world.waitFor([&] { return agree(world, top - 1, &master); }, kTimeout)) {
            const auto agreed2 = Clock::now();
            if (trace) {
                std::printf("  %d modules, unplug:\n", n);
            }
            f.failover = analyse(world, capture, rescheduling ? &sched : nullptr, t2, agreed2, n - 1, false, started,
                                 before, trace);
        }
    }
    return f;
}

struct RelayFigures
{
    int sent = 0;
    int received = 0;
    double seconds = 0;
    double p50us = 0;
    double p99us = 0;
    std::uint64_t captured = 0;
};

int mcastSocket(const tsdsim::Module& m, unsigned port)
{
    int fd = m.openSocket(SOCK_DGRAM);
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    int size = 8 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<std::uint16_t>(port));
    ::inet_pton(AF_INET, "239.255.88.1", &a.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    ip_mreqn mr{};
    ::inet_pton(AF_INET, "239.255.88.1", &mr.imr_multiaddr);
    ::inet_pton(AF_INET, m.address(tsdsim::Side::Rear).c_str(), &mr.imr_address);
    ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mr, sizeof mr);
    in_addr ifaddr{};
    ::inet_pton(AF_INET, m.address(tsdsim::Side::Rear).c_str(), &ifaddr);
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifaddr, sizeof ifaddr);
    int loop = 0;
    ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop);
    return fd;
}

// relayed: the bus copies through the relay (a loss rate far too small to
// lose anything in the burst switches it over) instead of the bridge;
// capture: into a pcap file as --pcap does.
RelayFigures measureRelay(int frames, bool relayed, bool capture)
{
    RelayFigures r;
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("b");
    tsdsim::ModuleSetup sa;
    sa.name = "a";
    sa.uuid = 1;
    tsdsim::ModuleSetup sb;
    sb.name = "b";
    sb.uuid = 2;
    tsdsim::Module& a = world.addModule(sa);
    tsdsim::Module& b = world.addModule(sb);
    a.addInterface(tsdsim::Side::Rear, bus);
    b.addInterface(tsdsim::Side::Rear, bus);
    if (relayed) {
        bus.setLoss(1e-12);
    }
    if (capture) {
        std::string error;
        if (!bus.startCapture(world.dir() + "/bus.pcap", error)) {
            std::cerr << "sim_election_bench: " << error << "\n";
        }
    }
    int fa = mcastSocket(a, 15000);
    int fb = mcastSocket(b, 15000);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(15000);
    ::inet_pton(AF_INET, "239.255.88.1", &to.sin_addr);
    const std::string telegram = "<sync>:item:abcdef:a:2:a:<sync>";
    char buf[256];

    // Throughput: a stream of telegram-sized datagrams from a to b, in
    // batches small enough for the interfaces' queues.
    auto t0 = Clock::now();
    for (int i = 0; i < frames; ++i) {
        if (::sendto(fa, telegram.data(), telegram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) >
            0) {
            ++r.sent;
        }
        if (i % 200 == 199) {
            pollfd p{fb, POLLIN, 0};
            while (::poll(&p, 1, 0) > 0 && ::recv(fb, buf, sizeof buf, MSG_DONTWAIT) > 0) {
                ++r.received;
            }
            std::this_thread::sleep_for(200us);
        }
    }
    pollfd p{fb, POLLIN, 0};
    while (::poll(&p, 1, 200) > 0 && ::recv(fb, buf, sizeof buf, MSG_DONTWAIT) > 0) {
        ++r.received;
    }
    r.seconds = since(t0);

    // Latency: one datagram at a time, a to b, sender waits for the arrival.
    std::vector<double> us;
    for (int i = 0; i < 2000; ++i) {
        auto s = Clock::now();
        ::sendto(fa, telegram.data(), telegram.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
        pollfd q{fb, POLLIN, 0};
        if (::poll(&q, 1, 1000) > 0 && ::recv(fb, buf, sizeof buf, 0) > 0) {
            us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - s).count());
        }
    }
    std::sort(us.begin(), us.end());
    if (!us.empty()) {
        r.p50us = us[us.size() / 2];
        r.p99us = us[us.size() * 99 / 100];
    }
    ::close(fa);
    ::close(fb);
    if (capture) {
        r.captured = bus.stopCapture();
    }
    return r;
}

void printElection(const char* what, int n, const Figures& f)
{
    const simbench::Attribution& e = f.path;
    if (e.observedMs < 0) {
        std::printf("%8d  %-7s %s\n", n, what, "no agreement");
        return;
    }
    const std::string resyncs = e.resyncs > 0 ? "  (" + std::to_string(e.resyncs) + " resyncs)" : "";
    const std::string path = std::to_string(e.debounces + e.supervisions) + "+" + std::to_string(e.backoffs);
    std::printf("%8d  %-7s %9.3f %10.3f %7s %9.1f %9.1f %8.1f %8.1f %8.1f %7.1f%s\n", n, what, e.observedMs / 1000,
                e.prescribedMs / 1000, path.c_str(), e.overheadMs(), e.simulatorMs, e.mediumMs, e.daemonsMs,
                e.measurementMs, e.otherMs(), resyncs.c_str());
}

void printDaemons(const char* what, int n, const Figures& f)
{
    const simbench::Attribution& e = f.path;
    if (e.observedMs < 0) {
        return;
    }
    char split[96] = "        n/a      n/a      n/a      n/a";
    if (f.runningMs >= 0) {
        std::snprintf(split, sizeof split, "%9.1f %8.1f %8.1f %8.1f", f.runningMs, f.waitingMs, f.scriptsMs,
                      e.daemonsMs - f.runningMs - f.waitingMs - f.scriptsMs);
    }
    std::printf("%8d  %-7s %5zu %8.1f %s %9.1f %7.1f %9.1f %7.1f %10.1f%s\n", n, what, e.daemonHops.size(),
                e.daemonsMs, split, f.cpuMeanMs, f.cpuMaxMs, f.waitMeanMs, f.waitMaxMs, f.simulatorCpuMs,
                f.schedLost > 0 ? "  (scheduler events lost)" : "");
}

}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes{2, 4, 8, 16};
    int frames = 20000;
    bool trace = false;
    for (int i = 1; i < argc; ++i) {
        std::string opt = argv[i];
        if (opt == "--trace") {
            trace = true;
        } else if (opt == "--sizes" && i + 1 < argc) {
            sizes.clear();
            std::stringstream s(argv[++i]);
            std::string n;
            while (std::getline(s, n, ',')) {
                // "--sizes 0" measures only the medium.
                if (std::atoi(n.c_str()) > 0) {
                    sizes.push_back(std::atoi(n.c_str()));
                }
            }
        } else if (opt == "--frames" && i + 1 < argc) {
            frames = std::atoi(argv[++i]);
        }
    }
    if (::geteuid() != 0) {
        std::cerr << "sim_election_bench: needs root\n";
        return 2;
    }
    // The scheduler's events come from tracefs; where the host has not
    // mounted it, the bench does so in a mount namespace of its own (before
    // any thread exists), which the simulated modules leave for theirs.
    if (::access("/sys/kernel/tracing/instances", F_OK) != 0) {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tracefs", "/sys/kernel/tracing", "tracefs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0) {
            std::cerr << "sim_election_bench: no tracefs; the daemons' waiting for a CPU is not measured\n";
        }
    }
    tsdsim::World::installStopSignals();

    std::vector<ChainFigures> all;
    for (int n : sizes) {
        all.push_back(measureChain(n, trace));
        if (tsdsim::World::stopRequested()) {
            return 130;
        }
    }
    std::printf(
        "Simulated chains: set-up, then the elections after the daemons' start and after the master\n"
        "was unplugged. observed: from the trigger until the simulator saw every module agree on the\n"
        "new master; prescribed: the 3000 ms waits and the reply back-offs on the election's critical\n"
        "path (path: waits+back-offs); overhead = observed - prescribed, attributed along the path to\n"
        "the simulator (starting daemons, publishing the cabling change), the medium (telegrams from\n"
        "sender to receiver), the daemons (tsd, liborv, the bus; split up below) and the measurement\n"
        "(from the last publication until the simulator saw it); other: not placed.\n\n");
    std::printf("%8s %14s\n", "modules", "set-up [s]");
    for (const auto& f : all) {
        std::printf("%8d %14.2f\n", f.size, f.setup);
    }
    std::printf("\n%8s  %-7s %9s %10s %7s %9s %9s %8s %8s %8s %7s\n", "modules", "after", "observed",
                "prescribed", "path", "overhead", "simulator", "medium", "daemons", "measure", "other");
    std::printf("%8s  %-7s %9s %10s %7s %9s %9s %8s %8s %8s %7s\n", "", "", "[s]", "[s]", "", "[ms]", "[ms]",
                "[ms]", "[ms]", "[ms]", "[ms]");
    for (const auto& f : all) {
        printElection("start", f.size, f.start);
        if (f.size >= 2) {
            printElection("unplug", f.size, f.failover);
        }
    }
    std::printf(
        "\nThe daemons' time on the path, from the kernel's scheduler events: how long the daemon the path\n"
        "waited for ran (the implementation's own overhead), waited for a CPU (every daemon shares this\n"
        "machine's CPUs with all else that runs on it; on a module each has its own), waited for a\n"
        "time-service script it ran (the simulator's stand-ins), and slept beyond (a timer or a\n"
        "back-off that woke it late, the bus). Then each daemon's CPU time over the whole election and\n"
        "its time waiting for a CPU (mean and max over the modules), and the CPU time of the\n"
        "simulator's own threads (monitors; the relay when a bus is impaired). All in ms.\n\n");
    std::printf("%8s  %-7s %5s %8s %9s %8s %8s %8s %9s %7s %9s %7s %10s\n", "modules", "after", "hops", "daemons",
                "ran: own", "CPU wait", "scripts", "asleep", "tsd CPU", "max", "CPU wait", "max", "simulator");
    for (const auto& f : all) {
        printDaemons("start", f.size, f.start);
        if (f.size >= 2) {
            printDaemons("unplug", f.size, f.failover);
        }
    }
    std::fflush(stdout);
    std::printf("\nThe medium, one bus, two modules: a burst of %d %zu-byte telegrams as fast as the sender can\n"
                "(frames/s delivered), then one at a time (one-way latency), through the kernel's bridge (every\n"
                "bus without impairments) and through the relay (a bus with loss, duplication or delay), each\n"
                "without and with --pcap's capture.\n\n",
                frames, std::strlen("<sync>:item:abcdef:a:2:a:<sync>"));
    std::printf("%-8s %-8s %8s %9s %9s %10s %8s %8s %9s\n", "medium", "capture", "sent", "received", "seconds",
                "frames/s", "p50 [us]", "p99 [us]", "captured");
    for (bool relayed : {false, true}) {
        for (bool capture : {false, true}) {
            const RelayFigures r = measureRelay(frames, relayed, capture);
            std::printf("%-8s %-8s %8d %9d %9.2f %10.0f %8.0f %8.0f %9s\n", relayed ? "relay" : "bridge",
                        capture ? "pcap" : "-", r.sent, r.received, r.seconds,
                        r.seconds > 0 ? r.received / r.seconds : 0.0, r.p50us, r.p99us,
                        capture ? std::to_string(r.captured).c_str() : "-");
            std::fflush(stdout);
            if (tsdsim::World::stopRequested()) {
                return 130;
            }
        }
    }
    return 0;
}
