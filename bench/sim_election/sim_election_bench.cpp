// Figures of the simulated chain: how long chains of real daemons take to
// agree on a master after start and after the master is unplugged, how much
// of that the protocol itself prescribes, and how fast the simulated bus
// relays frames. Prints tables; needs root and the daemon, broker and client
// built beside it. --trace adds every telegram and the critical path.
//
//   sim_election_bench [--sizes 2,4,8,16,32,64] [--frames 20000] [--trace]
//
// What the protocol prescribes. A daemon restarts its election 3000 ms after
// the last change of its reachable devices (and at once on its first
// parameters, as it starts) and sends "start"; every daemon answers every
// request it receives, its own included, with an "item" after a back-off of
// rand() % 200 ms, for which it seeds the generator with srand(time(nullptr))
// on every answer, so modules answering in the same second draw the same
// back-off. The back-off blocks the daemon: requests wait for it, and so do
// its timers and bus notifications. A daemon's list is complete once it has
// an item of every module after the last request it answered.
//
// The bench captures every telegram as it leaves a module (kernel time
// stamps), infers each answer's back-off from the second it began in (the
// bench draws the same number the daemon drew), and traces the election's
// critical path back from the module that showed its result last: through
// back-offs, requests that waited for them, and 3000 ms waits. The waits and
// back-offs on that path are what the protocol prescribes for this run;
// everything else is the implementation's overhead: starting the daemons,
// the bus, the relay, the daemons' own work between back-offs, their scripts,
// and seeing the result.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
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
#include <iterator>
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

// Wall-clock milliseconds and steady time points, one fixed offset apart.
const Clock::time_point kSteadyRef = Clock::now();
const double kWallRef =
    std::chrono::duration<double, std::milli>(std::chrono::system_clock::now().time_since_epoch()).count();

double wallMs(Clock::time_point t)
{
    return kWallRef + msBetween(kSteadyRef, t);
}

Clock::time_point steadyOf(double wallMs)
{
    return kSteadyRef + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double, std::milli>(wallMs - kWallRef));
}

// The back-off a daemon draws in a given second.
int backoffInSecond(long long second)
{
    std::srand(static_cast<unsigned>(second));
    return std::rand() % kBackoffRangeMs;
}

// The UDP payload of a frame as the FireWire interface sends it (a link
// header of two addresses and a type, IPv4, UDP); empty for anything else.
std::string udpPayload(const unsigned char* f, std::size_t size)
{
    constexpr std::size_t kLinkHeader = 14;
    if (size < kLinkHeader + 20 + 8 || f[12] != 0x08 || f[13] != 0x00 || (f[kLinkHeader] >> 4) != 4 ||
        f[kLinkHeader + 9] != IPPROTO_UDP) {
        return {};
    }
    const std::size_t ipHeader = static_cast<std::size_t>(f[kLinkHeader] & 0x0f) * 4;
    const std::size_t start = kLinkHeader + ipHeader + 8;
    return start <= size ? std::string(f + start, f + size) : std::string();
}

// Every telegram a daemon sent, stamped by the kernel as it left the module's
// FireWire interface (a packet socket inside each module that sees only what
// the interface sends). The relay's own time would be later whenever it has
// many copies to make, and the back-offs are read from these times.
class TelegramLog
{
public:
    struct Telegram
    {
        Clock::time_point time;
        double wallMs;     // the same on the wall clock
        int module;        // index into the world's modules
        std::string kind;  // "start", "resync", "item"
    };

    TelegramLog() : m_epoll(::epoll_create1(EPOLL_CLOEXEC)), m_stop(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
    {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u32 = kStopTag;
        ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_stop, &ev);
    }

    ~TelegramLog()
    {
        const std::uint64_t one = 1;
        if (m_reader.joinable() && ::write(m_stop, &one, sizeof one) == sizeof one) {
            m_reader.join();
        }
        for (int fd : m_fds) {
            ::close(fd);
        }
        ::close(m_stop);
        ::close(m_epoll);
    }

    TelegramLog(const TelegramLog&) = delete;
    TelegramLog& operator=(const TelegramLog&) = delete;

    // Captures what module (index) sends on its rear interface. Before start().
    bool watch(const tsdsim::Module& module, int index)
    {
        const int fd = module.sandbox().openSocket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_ALL));
        if (fd < 0) {
            return false;
        }
        m_fds.push_back(fd);
        // Outgoing frames only: every module receives each telegram of the others.
        sock_filter code[] = {
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, 65535),
            BPF_STMT(BPF_RET | BPF_K, 0),
        };
        sock_fprog filter{static_cast<unsigned short>(std::size(code)), code};
        ifreq ifr{};
        std::strncpy(ifr.ifr_name, tsdsim::interfaceName(tsdsim::Side::Rear), IFNAMSIZ - 1);
        int on = 1;
        if (::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) != 0 ||
            ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) != 0 ||
            ::ioctl(fd, SIOCGIFINDEX, &ifr) != 0) {
            return false;
        }
        sockaddr_ll at{};
        at.sll_family = AF_PACKET;
        at.sll_protocol = htons(ETH_P_ALL);
        at.sll_ifindex = ifr.ifr_ifindex;
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u32 = static_cast<std::uint32_t>(index);
        return ::bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at) == 0 &&
               ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev) == 0;
    }

    void start()
    {
        m_reader = std::thread([this] { read(); });
    }

    // Waits until no module has sent a telegram for a while (the last answers
    // of an election come after its result), at most timeout.
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
        std::sort(out.begin(), out.end(),
                  [](const Telegram& a, const Telegram& b) { return a.time < b.time; });
        return out;
    }

private:
    static constexpr std::uint32_t kStopTag = 0xffffffff;

    void read()
    {
        epoll_event events[64];
        unsigned char frame[2048];
        char control[CMSG_SPACE(sizeof(timespec))];
        for (;;) {
            const int n = ::epoll_wait(m_epoll, events, 64, -1);
            for (int i = 0; i < n; ++i) {
                if (events[i].data.u32 == kStopTag) {
                    return;
                }
                const int module = static_cast<int>(events[i].data.u32);
                const int fd = m_fds[static_cast<std::size_t>(module)];
                for (;;) {
                    iovec iov{frame, sizeof frame};
                    msghdr msg{};
                    msg.msg_iov = &iov;
                    msg.msg_iovlen = 1;
                    msg.msg_control = control;
                    msg.msg_controllen = sizeof control;
                    const ssize_t got = ::recvmsg(fd, &msg, 0);
                    if (got <= 0) {
                        break;
                    }
                    const std::string text = udpPayload(frame, static_cast<std::size_t>(got));
                    const cmsghdr* c = CMSG_FIRSTHDR(&msg);
                    if (text.rfind("<sync>:", 0) != 0 || !c || c->cmsg_type != SCM_TIMESTAMPNS) {
                        continue;
                    }
                    timespec sent{};
                    std::memcpy(&sent, CMSG_DATA(c), sizeof sent);
                    const double wall =
                        static_cast<double>(sent.tv_sec) * 1000.0 + static_cast<double>(sent.tv_nsec) / 1e6;
                    const std::size_t end = text.find(':', 7);
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_telegrams.push_back({steadyOf(wall), wall, module, text.substr(7, end - 7)});
                }
            }
        }
    }

    int m_epoll;
    int m_stop;
    std::vector<int> m_fds;  // by module index
    std::thread m_reader;
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

// The critical path of an election, traced back through the telegrams from
// the moment the module that agreed last showed its result:
//   - a daemon's list completes after an answer (the latest one sent before
//     that result);
//   - a daemon answers every request it receives, in the order they came
//     (so its last answers belong to the last requests); an answer ends a
//     back-off, which began when the daemon took up that request: right
//     after its previous answer if the request was already waiting (busy),
//     else when the request arrived;
//   - a "start" sent after a restart of the election on reachable devices
//     ends a 3000 ms wait. When the wait ran out during a back-off of its
//     sender, the start follows that back-off's answer at once and the path
//     goes on through the sender's back-offs; else the wait began when the
//     sender took in the change, which again is right after an answer when
//     it was in a back-off then, or at the trigger.
// The path ends at the trigger, at a "start" on the daemon's first
// parameters (sent as it starts), or at a resync. Whatever lies on the path
// besides the back-offs and waits is overhead.
class CriticalPath
{
public:
    CriticalPath(const std::vector<TelegramLog::Telegram>& log, bool firstStartIsOnParameters, bool trace,
                 Clock::time_point origin)
        : m_trace(trace), m_origin(origin)
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
                m_answers[t.module].push_back(Answer{t.time, 0, t.time, -1});
            }
        }
        for (auto& [module, answers] : m_answers) {
            // Aligned from the end: a daemon that started late missed the first requests.
            const long offset = static_cast<long>(m_requests.size()) - static_cast<long>(answers.size());
            for (std::size_t i = 0; i < answers.size(); ++i) {
                Answer& a = answers[i];
                const long request = static_cast<long>(i) + offset;
                a.request = request >= 0 ? static_cast<int>(request) : -1;
                Clock::time_point notBefore = i == 0 ? Clock::time_point() : answers[i - 1].sent;
                if (a.request >= 0) {
                    notBefore = std::max(notBefore, m_requests[static_cast<std::size_t>(a.request)].time);
                }
                a.backoffMs = inferBackoff(a.sent, notBefore);
                a.began = a.sent - std::chrono::milliseconds(a.backoffMs);
            }
        }
    }

    int resyncs() const
    {
        return static_cast<int>(
            std::count_if(m_requests.begin(), m_requests.end(), [](const Request& r) { return r.resync; }));
    }

    // Traces back from the result a module showed at `result`.
    void trace(Clock::time_point trigger, Clock::time_point result, Election& e) const
    {
        int module = -1;
        const Answer* at = nullptr;
        for (const auto& [m, answers] : m_answers) {
            for (const auto& a : answers) {
                if (a.sent <= result && (!at || a.sent > at->sent)) {
                    at = &a;
                    module = m;
                }
            }
        }
        double prescribed = 0;
        if (!at) {
            e.startMs = msBetween(trigger, result);
            e.prescribedMs = 0;
            return;
        }
        e.resultMs = msBetween(at->sent, result);
        // Every step goes back in time; a misread telegram must not send the
        // trace round in a circle.
        Clock::time_point later = Clock::time_point::max();
        for (;;) {
            if (at->sent >= later) {
                e.startMs += msBetween(trigger, at->sent);
                break;
            }
            later = at->sent;
            if (at->began < trigger) {
                // Still answering before the trigger: only the part after it.
                prescribed += msBetween(trigger, at->sent);
                ++e.backoffs;
                break;
            }
            prescribed += at->backoffMs;
            ++e.backoffs;
            step("back-off", module, at->began, at->sent);
            const auto& answers = m_answers.at(module);
            const Answer* previous = at == &answers.front() ? nullptr : at - 1;
            const Request* request =
                at->request >= 0 ? &m_requests[static_cast<std::size_t>(at->request)] : nullptr;
            if (request && request->time > at->sent) {
                request = nullptr;  // the answer was matched to a later request: unknown
            }
            if (previous && (!request || request->time <= previous->sent)) {
                // Busy: the request waited for the previous answer.
                e.gapsMs += msBetween(previous->sent, at->began);
                at = previous;
                continue;
            }
            if (!request || request->time < trigger) {
                e.startMs += msBetween(trigger, at->began);
                break;
            }
            e.gapsMs += msBetween(request->time, at->began);
            if (request->resync || request->onParameters) {
                step(request->resync ? "resync" : "start on parameters", request->module, request->time,
                     request->time);
                e.startMs += msBetween(trigger, request->time);
                break;
            }
            const Answer* before = latestAnswerBefore(request->module, request->time);
            if (before && msBetween(before->sent, request->time) < kHeldMs) {
                step("start held by back-offs", request->module, before->sent, request->time);
                e.gapsMs += msBetween(before->sent, request->time);
                module = request->module;
                at = before;
                continue;
            }
            prescribed += kDebounceMs;
            ++e.debounces;
            const Clock::time_point waitBegan =
                request->time - std::chrono::milliseconds(static_cast<int>(kDebounceMs));
            step("3000 ms wait, then start", request->module, waitBegan, request->time);
            const Answer* busy = latestAnswerBefore(request->module, waitBegan);
            if (busy && busy->sent >= trigger && msBetween(busy->sent, waitBegan) < kHeldMs) {
                // The change waited for the back-off.
                e.gapsMs += msBetween(busy->sent, waitBegan);
                module = request->module;
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
        int request;  // index into m_requests, -1 when unknown
    };
    struct Request
    {
        Clock::time_point time;
        int module;
        bool resync;
        bool onParameters;
    };
    // How soon after its answer a daemon acts on a timer or a notification
    // that its back-off held up.
    static constexpr double kHeldMs = 5;

    // The back-off began in the second the daemon seeded with. time() reads
    // the coarse clock, which shows a new second only at the next tick, so
    // near a boundary both seconds may fit; of those that fit, the back-off
    // began at the earliest moment the daemon could take up the request: not
    // before the request arrived nor before its previous answer.
    static int inferBackoff(Clock::time_point sentAt, Clock::time_point notBefore)
    {
        const double sent = wallMs(sentAt);
        const double earliest = notBefore == Clock::time_point() ? -1e18 : wallMs(notBefore) - 0.05;
        const auto second = static_cast<long long>(sent / 1000);
        int best = -1;
        int fallback = backoffInSecond(second);
        double fallbackMiss = 1e18;
        for (long long s : {second, second - 1}) {
            const int b = backoffInSecond(s);
            const double began = sent - b;
            const double secondMs = static_cast<double>(s) * 1000.0;
            const double miss = std::max(
                {0.0, secondMs - began, began - (secondMs + 1000.0 + coarseLagMs()), earliest - began});
            if (miss < fallbackMiss) {
                fallback = b;
                fallbackMiss = miss;
            }
            if (miss == 0 && b > best) {
                best = b;
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
            std::printf("      module %2d  %-26s %9.1f -> %9.1f ms\n", module + 1, what,
                        msBetween(m_origin, from), msBetween(m_origin, to));
        }
    }

    bool m_trace;
    Clock::time_point m_origin;
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
    if (trace) {
        // What the module that showed its result last published, and when.
        for (const auto& m : world.modules()) {
            if (m.get() == except || resultTime(world, *m, agreed) != result) {
                continue;
            }
            for (const auto& ev : m->events()) {
                const auto t = world.startTime() + std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<double>(ev.time));
                if (t >= trigger && t <= agreed) {
                    std::printf("    %9.1f ms  %s publishes %s\n", msBetween(trigger, t), m->name().c_str(),
                                ev.path.c_str());
                }
            }
            for (const auto& c : m->scriptCalls()) {
                const auto t = world.startTime() + std::chrono::duration_cast<Clock::duration>(
                                                       std::chrono::duration<double>(c.time));
                if (t >= trigger && t <= agreed) {
                    std::printf("    %9.1f ms  %s runs %s %s\n", msBetween(trigger, t), m->name().c_str(),
                                c.script.c_str(), c.args.c_str());
                }
            }
        }
    }
    // What an unplugged module sends never reaches the bus.
    std::vector<TelegramLog::Telegram> onBus;
    for (const auto& t : log) {
        if (!except || world.modules()[static_cast<std::size_t>(t.module)].get() != except) {
            onBus.push_back(t);
        }
    }
    const CriticalPath path(onBus, atStart, trace, trigger);
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
    TelegramLog log;
    for (int i = 1; i <= n; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = static_cast<std::uint32_t>(0x000100 + i);
        tsdsim::Module& m = world.addModule(s);
        m.addInterface(tsdsim::Side::Rear, bus);
        if (!log.watch(m, i - 1)) {
            std::fprintf(stderr, "sim_election_bench: cannot capture what %s sends\n", s.name.c_str());
            return f;
        }
    }
    log.start();
    world.updateReachable();
    if (!world.startPlatforms()) {
        return f;
    }
    f.startup = since(t0);

    auto t1 = Clock::now();
    for (auto& m : world.modules()) {
        m->startTsd({});
    }
    if (trace) {
        std::printf("  starting %d daemons took %.1f ms\n", n, msBetween(t1, Clock::now()));
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
        if (trace) {
            std::printf("  unplug() took %.1f ms\n", msBetween(t2, Clock::now()));
        }
        if (world.waitFor([&] { return agree(world, top - 1, &master); }, kTimeout)) {
            auto agreed2 = Clock::now();
            log.waitQuiet(1500ms, 60s);
            if (trace) {
                std::printf("  %d modules, unplug:\n", n);
            }
            f.failover = analyse(world, log.between(t2, Clock::now()), t2, agreed2, &master, false, trace);
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
