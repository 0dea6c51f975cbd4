// Figures of the simulated chain: how long chains of real daemons take to
// agree on a master after start and after the master is unplugged, how much
// of that the protocol itself prescribes, and how fast the simulated bus
// relays frames. Prints tables; needs root and the daemon, broker and client
// built beside it.
//
//   sim_election_bench [--sizes 2,4,8,16,32,64] [--frames 20000] [--trace]
//
// What the protocol prescribes. A daemon restarts its election 3000 ms after
// the last change of its reachable devices and then sends "start"; every
// daemon answers every "start" it receives (its own included) with an "item",
// after a back-off of rand() % 200 ms for which it seeds the generator with
// srand(time(nullptr)) on every answer. Answers are made one after the other
// (the back-off blocks the daemon), and a daemon's list is complete once it
// has an item of every module after the last "start" it answered. With no
// time lost anywhere else, every daemon learns of the change at once, all
// "start"s arrive together 3000 ms later, and each daemon answers them back
// to back; the election is over when the last daemon has answered its last
// one: 3000 ms plus the sum of that daemon's back-offs. The back-offs are
// known from the seeding rule: the bench watches the bus, takes the second in
// which each answer's back-off began from the answer's time, and draws the
// same number the daemon drew. Modules answering in the same second draw the
// same back-off. Everything the run took beyond that is the implementation's
// overhead: starting the daemons, the bus, the relay, the daemons' own work
// between back-offs, and seeing the result.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/World.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kTimeout = 120s;
constexpr double kDebounceMs = 3000;
constexpr int kBackoffRangeMs = 200;

double since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
}

double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// Wall-clock milliseconds of a steady time point, for the seconds the
// daemons seed their back-off with.
double wallMs(Clock::time_point t)
{
    static const auto steadyRef = Clock::now();
    static const double wallRef =
        std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    return wallRef + msBetween(steadyRef, t);
}

// The back-off a daemon draws in a given second.
int backoffInSecond(long long second)
{
    std::srand(static_cast<unsigned>(second));
    return std::rand() % kBackoffRangeMs;
}

// The UDP payload of a frame the relay carries (a link header of two
// addresses and a type, IPv4, UDP); empty for anything else.
std::string udpPayload(const std::vector<unsigned char>& f)
{
    constexpr std::size_t kLinkHeader = 14;
    if (f.size() < kLinkHeader + 20 + 8 || f[12] != 0x08 || f[13] != 0x00 || (f[kLinkHeader] >> 4) != 4 ||
        f[kLinkHeader + 9] != IPPROTO_UDP) {
        return {};
    }
    const std::size_t ipHeader = static_cast<std::size_t>(f[kLinkHeader] & 0x0f) * 4;
    const std::size_t start = kLinkHeader + ipHeader + 8;
    return start <= f.size() ? std::string(f.begin() + static_cast<long>(start), f.end()) : std::string();
}

// Every telegram the bus carried, with the module that sent it.
class TelegramLog
{
public:
    struct Telegram
    {
        Clock::time_point time;
        int module;        // index into the world's modules
        std::string kind;  // "start", "resync", "item"
    };

    void watch(tsdsim::Bus& bus, const std::map<int, int>& moduleOfPort)
    {
        bus.setFrameTap([this, moduleOfPort](const tsdsim::Bus::Frame& frame) {
            const std::string text = udpPayload(frame.bytes);
            if (text.rfind("<sync>:", 0) != 0) {
                return;
            }
            const std::size_t end = text.find(':', 7);
            const auto it = moduleOfPort.find(frame.portId);
            std::lock_guard<std::mutex> lock(m_mutex);
            m_telegrams.push_back(
                {frame.time, it == moduleOfPort.end() ? -1 : it->second, text.substr(7, end - 7)});
        });
    }

    // Waits until the bus has carried no telegram for a while (the last
    // answers of an election come after its result), at most timeout.
    void waitQuiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const
    {
        const auto deadline = Clock::now() + timeout;
        while (Clock::now() < deadline) {
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                if (m_telegrams.empty() || Clock::now() - m_telegrams.back().time >= quiet) {
                    return;
                }
            }
            std::this_thread::sleep_for(50ms);
        }
    }

    std::vector<Telegram> between(Clock::time_point from, Clock::time_point to) const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<Telegram> out;
        for (const auto& t : m_telegrams) {
            if (t.time >= from && t.time <= to) {
                out.push_back(t);
            }
        }
        return out;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Telegram> m_telegrams;
};

// One election, observed from its trigger to the moment the simulator saw
// every module agree, and what the protocol prescribes for it.
struct Election
{
    double observedMs = -1;
    double prescribedMs = -1;
    int backoffs = 0;     // back-offs on the critical path
    int debounces = 0;    // 3000 ms waits on it
    int resyncs = 0;      // supervision expired somewhere: the run was disturbed
    double startMs = 0;   // overhead before the path begins (start-up, bus)
    double gapsMs = 0;    // overhead between its back-offs and waits
    double resultMs = 0;  // overhead from its last answer until the simulator saw agreement

    double overheadMs() const { return observedMs - prescribedMs; }
};

// The critical path of an election, traced back through the telegrams on
// the bus from the module that agreed last:
//   - a daemon's list completes after an answer (the latest one before the
//     module published its result);
//   - an answer ends a back-off; the back-off began either right after the
//     daemon's previous answer (it was busy, the request waited in its
//     socket) or when the request that woke it arrived;
//   - a "start" sent after a restart of the election on reachable devices
//     ends a 3000 ms wait, which began when the sender had taken in the
//     change: right after an answer of its own when it was busy then, else
//     at the trigger (or at its start-up).
// The path ends at a "start" on the daemon's first parameters (sent as the
// daemon starts), at a resync, or at a wait that began idle.
class CriticalPath
{
public:
    CriticalPath(const std::vector<TelegramLog::Telegram>& log, bool firstStartIsOnParameters, bool trace)
        : m_trace(trace)
    {
        std::map<int, int> starts;
        for (const auto& t : log) {
            if (t.kind == "start" || t.kind == "resync") {
                Request r{t.time, t.module, t.kind == "resync", false};
                if (!r.resync) {
                    r.onParameters = firstStartIsOnParameters && starts[t.module]++ == 0;
                }
                m_requests.push_back(r);
            } else if (t.kind == "item") {
                m_answers[t.module].push_back(Answer{t.time, 0, t.time});
            }
        }
        for (auto& [module, answers] : m_answers) {
            for (std::size_t i = 0; i < answers.size(); ++i) {
                answers[i].backoffMs =
                    inferBackoff(answers[i].sent, i == 0 ? Clock::time_point() : answers[i - 1].sent);
                answers[i].began = answers[i].sent - std::chrono::milliseconds(answers[i].backoffMs);
            }
        }
    }

    int resyncs() const
    {
        return static_cast<int>(
            std::count_if(m_requests.begin(), m_requests.end(), [](const Request& r) { return r.resync; }));
    }

    // Traces back from the completion that module showed at `result`.
    void trace(Clock::time_point trigger, Clock::time_point result, Election& e) const
    {
        // The answer that completed the list: the latest one before the result.
        const Answer* at = nullptr;
        int module = -1;
        for (const auto& [m, answers] : m_answers) {
            for (const auto& a : answers) {
                if (a.sent <= result && (!at || a.sent > at->sent)) {
                    at = &a;
                    module = m;
                }
            }
        }
        if (!at) {
            e.startMs = msBetween(trigger, result);
            return;
        }
        e.resultMs = msBetween(at->sent, result);
        double prescribed = 0;
        for (;;) {
            if (at->began < trigger) {
                // Still answering the previous election: the part after the trigger.
                prescribed += msBetween(trigger, at->sent);
                ++e.backoffs;
                break;
            }
            prescribed += at->backoffMs;
            ++e.backoffs;
            step("back-off", module, at->began, at->sent);
            const auto& answers = m_answers.at(module);
            const Answer* previous = at == &answers.front() ? nullptr : at - 1;
            const Request* woke = latestRequestBefore(at->began + kSlack);
            if (previous && (!woke || woke->time <= previous->sent)) {
                // Busy: the request waited for the previous answer.
                e.gapsMs += msBetween(previous->sent, at->began);
                at = previous;
                continue;
            }
            if (!woke) {
                e.startMs += msBetween(trigger, at->began);
                break;
            }
            e.gapsMs += msBetween(woke->time, at->began);
            if (woke->resync || woke->onParameters) {
                step(woke->resync ? "resync" : "start on parameters", woke->module, woke->time, woke->time);
                e.startMs += msBetween(trigger, woke->time);
                break;
            }
            // A start after the 3000 ms wait of its sender. When the wait ran
            // out while the sender was in a back-off, the start follows that
            // back-off's answer at once: the back-offs held it up.
            const Answer* before = latestAnswerBefore(woke->module, woke->time);
            if (before && msBetween(before->sent, woke->time) < kHeldMs) {
                step("start held by back-offs", woke->module, before->sent, woke->time);
                e.gapsMs += msBetween(before->sent, woke->time);
                module = woke->module;
                at = before;
                continue;
            }
            prescribed += kDebounceMs;
            ++e.debounces;
            const Clock::time_point waitBegan =
                woke->time - std::chrono::milliseconds(static_cast<int>(kDebounceMs));
            step("3000 ms wait, then start", woke->module, waitBegan, woke->time);
            // A daemon in a back-off takes in the change only after it.
            const Answer* busy = latestAnswerBefore(woke->module, waitBegan);
            if (busy && msBetween(busy->sent, waitBegan) < kHeldMs) {
                e.gapsMs += msBetween(busy->sent, waitBegan);
                module = woke->module;
                at = busy;
                continue;
            }
            e.startMs += msBetween(trigger, waitBegan);
            break;
        }
        e.prescribedMs = prescribed;
    }

private:
    struct Answer
    {
        Clock::time_point sent;
        int backoffMs;
        Clock::time_point began;
    };
    struct Request
    {
        Clock::time_point time;
        int module;
        bool resync;
        bool onParameters;
    };
    // How much later than a request a back-off may begin and still be the
    // one the request started (the relay's and the daemon's reaction).
    static constexpr std::chrono::milliseconds kSlack{3};
    // How soon after its answer a daemon whose timer or bus notification was
    // held up by the back-off acts on it.
    static constexpr double kHeldMs = 3;

    // The back-off began in the second the daemon seeded with. time() reads
    // the coarse clock, which shows a new second only at the next tick after
    // it began, so near a boundary both seconds can fit an answer's time; of
    // those that fit, the back-off began at the earliest moment the daemon
    // could: not before its previous answer and not before a request had
    // arrived (a daemon with a request waiting does not sit idle).
    int inferBackoff(Clock::time_point sentAt, Clock::time_point previous) const
    {
        const double sent = wallMs(sentAt);
        const double notBefore = previous == Clock::time_point() ? -1e18 : wallMs(previous) - 1;
        const auto second = static_cast<long long>(sent / 1000);
        int best = -1;
        double bestBegan = 1e18;
        int fallback = backoffInSecond(second);
        double fallbackMiss = 1e18;
        for (long long s : {second, second - 1}) {
            const int b = backoffInSecond(s);
            const double began = sent - b;
            const double secondMs = static_cast<double>(s) * 1000.0;
            const double miss =
                std::max({0.0, secondMs - began, began - (secondMs + 1000.0 + coarseLagMs())});
            if (miss < fallbackMiss) {
                fallback = b;
                fallbackMiss = miss;
            }
            const Request* r = latestRequestBefore(sentAt - std::chrono::milliseconds(b) + kSlack);
            if (miss == 0 && began >= notBefore && r && began < bestBegan) {
                best = b;
                bestBegan = began;
            }
        }
        return best >= 0 ? best : fallback;
    }

    // How long after a new second time() may still show the old one.
    static double coarseLagMs()
    {
        static const double lag = [] {
            timespec res{};
            ::clock_getres(CLOCK_REALTIME_COARSE, &res);
            return static_cast<double>(res.tv_nsec) / 1e6 + 1;
        }();
        return lag;
    }

    const Request* latestRequestBefore(Clock::time_point t) const
    {
        const Request* found = nullptr;
        for (const auto& r : m_requests) {
            if (r.time <= t) {
                found = &r;
            }
        }
        return found;
    }

    const Answer* latestAnswerBefore(int module, Clock::time_point t) const
    {
        const auto it = m_answers.find(module);
        const Answer* found = nullptr;
        if (it != m_answers.end()) {
            for (const auto& a : it->second) {
                if (a.sent <= t) {
                    found = &a;
                }
            }
        }
        return found;
    }

    void step(const char* what, int module, Clock::time_point from, Clock::time_point to) const
    {
        if (m_trace) {
            std::printf("      module %2d  %-26s %9.1f -> %9.1f ms (wall %.1f)\n", module + 1, what,
                        msBetween(m_origin, from), msBetween(m_origin, to), std::fmod(wallMs(from), 1000.0));
        }
    }

public:
    Clock::time_point m_origin;

private:
    bool m_trace;
    std::vector<Request> m_requests;
    std::map<int, std::vector<Answer>> m_answers;
};

// When the module showed its final result: its last sync/app or sync/master
// event up to the agreement.
Clock::time_point resultTime(const tsdsim::World& world, const tsdsim::Module& m, Clock::time_point agreed)
{
    Clock::time_point last = world.startTime();
    for (const auto& e : m.events()) {
        const auto t = world.startTime() +
                       std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(e.time));
        if ((e.path == "sync/app" || e.path == "sync/master") && t <= agreed) {
            last = std::max(last, t);
        }
    }
    return last;
}

Election analyse(const tsdsim::World& world, const std::vector<TelegramLog::Telegram>& log,
                 Clock::time_point trigger, Clock::time_point agreed, const tsdsim::Module* except,
                 bool atStart, bool trace)
{
    Election e;
    e.observedMs = msBetween(trigger, agreed);
    if (trace) {
        for (const auto& t : log) {
            std::printf("    %9.1f ms  module %2d  %s\n", msBetween(trigger, t.time), t.module + 1,
                        t.kind.c_str());
        }
    }
    // The module that showed its result last.
    Clock::time_point result = trigger;
    for (const auto& m : world.modules()) {
        if (m.get() != except) {
            result = std::max(result, resultTime(world, *m, agreed));
        }
    }
    CriticalPath path(log, atStart, trace);
    path.m_origin = trigger;
    e.resyncs = path.resyncs();
    path.trace(trigger, result, e);
    e.resultMs += msBetween(result, agreed);
    return e;
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
    double startup = -1;  // world built and processes started (s)
    Election start;       // from the daemons' start to agreement
    Election failover;    // from unplugging the master to agreement on the next
};

ChainFigures measureChain(int n, bool trace)
{
    ChainFigures f;
    f.size = n;
    auto t0 = Clock::now();
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    std::map<int, int> moduleOfPort;
    for (int i = 1; i <= n; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = static_cast<std::uint32_t>(0x000100 + i);
        tsdsim::Module& m = world.addModule(s);
        m.addInterface(tsdsim::Side::Rear, bus);
        moduleOfPort[m.portId(tsdsim::Side::Rear)] = i - 1;
    }
    TelegramLog log;
    log.watch(bus, moduleOfPort);
    world.updateReachable();
    for (auto& m : world.modules()) {
        if (!m->startVelad() || !m->startBusClients()) {
            return f;
        }
        m->setParam(m->param());
        m->waitPublished(5s);
    }
    f.startup = since(t0);

    auto t1 = Clock::now();
    for (auto& m : world.modules()) {
        m->startTsd({});
    }
    auto top = static_cast<std::uint32_t>(0x000100 + n);
    if (!world.waitFor([&] { return agree(world, top, nullptr); }, kTimeout)) {
        return f;
    }
    auto agreed = Clock::now();
    if (trace) {
        std::printf("  %d modules, start:\n", n);
    }
    // Answers still under way when the agreement was seen belong to the log
    // too, and the next election starts on a quiet bus.
    log.waitQuiet(1500ms, 60s);
    f.start = analyse(world, log.between(t1, Clock::now()), t1, agreed, nullptr, true, trace);
    if (n >= 2) {
        tsdsim::Module& master = *world.modules().back();
        auto t2 = Clock::now();
        world.unplug(master);
        if (world.waitFor([&] { return agree(world, top - 1, &master); }, kTimeout)) {
            auto agreed2 = Clock::now();
            log.waitQuiet(1500ms, 60s);
            if (trace) {
                std::printf("  %d modules, unplug:\n", n);
            }
            f.failover = analyse(world, log.between(t2, Clock::now()), t2, agreed2, &master, false, trace);
        }
    }
    bus.setFrameTap({});
    return f;
}

struct RelayFigures
{
    int sent = 0;
    int received = 0;
    double seconds = 0;
    double p50us = 0;
    double p99us = 0;
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

RelayFigures measureRelay(int frames)
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
    int fa = mcastSocket(a, 15000);
    int fb = mcastSocket(b, 15000);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(15000);
    ::inet_pton(AF_INET, "239.255.88.1", &to.sin_addr);
    const std::string telegram = "<sync>:item:abcdef:a:2:a:<sync>";
    char buf[256];

    // Throughput: a stream of telegram-sized datagrams from a to b, in
    // batches small enough for the TAP queues.
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
    return r;
}

void printElection(const char* what, int n, const Election& e)
{
    if (e.observedMs < 0) {
        std::printf("%8d  %-7s %s\n", n, what, "no agreement");
        return;
    }
    const std::string resyncs = e.resyncs > 0 ? "  (" + std::to_string(e.resyncs) + " resyncs)" : "";
    std::printf("%8d  %-7s %10.3f %12.3f %4d+%-3d %11.1f %9.1f %9.1f %9.1f%s\n", n, what, e.observedMs / 1000,
                e.prescribedMs / 1000, e.debounces, e.backoffs, e.overheadMs(), e.startMs, e.gapsMs,
                e.resultMs, resyncs.c_str());
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
                sizes.push_back(std::atoi(n.c_str()));
            }
        } else if (opt == "--frames" && i + 1 < argc) {
            frames = std::atoi(argv[++i]);
        }
    }
    if (::geteuid() != 0) {
        std::cerr << "sim_election_bench: needs root\n";
        return 2;
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
        "was unplugged. observed: from the trigger until every module showed the new master;\n"
        "prescribed: the 3000 ms waits and the reply back-offs on the election's critical path (path:\n"
        "waits+back-offs); overhead = observed - prescribed: before the path began (start-up, bus),\n"
        "gaps along it, and from its last answer until the simulator saw the result.\n\n");
    std::printf("%8s %14s\n", "modules", "set-up [s]");
    for (const auto& f : all) {
        std::printf("%8d %14.2f\n", f.size, f.startup);
    }
    std::printf("\n%8s  %-7s %10s %12s %8s %11s %9s %9s %9s\n", "modules", "after", "observed", "prescribed",
                "path", "overhead", "before", "gaps", "result");
    std::printf("%8s  %-7s %10s %12s %8s %11s %9s %9s %9s\n", "", "", "[s]", "[s]", "", "[ms]", "[ms]",
                "[ms]", "[ms]");
    for (const auto& f : all) {
        printElection("start", f.size, f.start);
        if (f.size >= 2) {
            printElection("unplug", f.size, f.failover);
        }
    }
    std::fflush(stdout);
    RelayFigures r = measureRelay(frames);
    std::printf("\nRelay, one bus, two modules, a burst of %zu-byte telegrams as fast as the sender can\n",
                std::strlen("<sync>:item:abcdef:a:2:a:<sync>"));
    std::printf("  sent %d, received %d (%.1f %%) in %.2f s: %.0f frames/s\n", r.sent, r.received,
                r.sent ? 100.0 * r.received / r.sent : 0.0, r.seconds,
                r.seconds > 0 ? r.received / r.seconds : 0.0);
    std::printf("  one-way latency through the relay: p50 %.0f us, p99 %.0f us\n", r.p50us, r.p99us);
    return 0;
}
