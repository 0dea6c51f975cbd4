#include "tsdsim/Faults.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>

#include "NsOps.h"
#include "tsdsim/McastSocket.h"
#include "tsdsim/Module.h"
#include "tsdsim/ScriptRecorder.h"
#include "tsdsim/World.h"

namespace tsdsim {

namespace {

// Limits of the lasting faults: long enough for a soak, short enough that a
// typing error in a chain file cannot keep a machine busy for days.
constexpr double kMaxFaultSeconds = 3600;
constexpr double kMaxFlapHz = 50;
constexpr double kMaxFloodRate = 10000;
constexpr unsigned long kMaxClients = 100000;

// Connections a crowd holds open at once. The broker allows one user 64
// connections; the module's daemon, fwdevd, tsdparamd and the watcher run as
// root like the crowd, and the broker may still count a batch that has just
// left while the next one arrives (it sees the closes only when it gets to
// them, late in a slow build), so 25 at a time keep two batches and the
// module's own clients within the quota. What lies beyond the quota is
// refused by design and tested with the broker.
constexpr std::size_t kCrowdBatch = 25;
constexpr unsigned kBusPort = 11122;

// Malformed telegrams, one of each kind the decoder rejects: too few fields,
// a wrong or unmatched frame word, an unknown command, a field count that
// fits no command, a long telegram and bytes that are not text.
const std::vector<std::string>& junkTelegrams()
{
    static const std::vector<std::string> junk{
        "<sync>",
        "<sync>:start",
        "<SYNC>:start:<SYNC>",
        "<sync>:start:<SYNC>",
        "<sync>:hello:<sync>",
        "<sync>:item:1:2:<sync>",
        "<sync>:start:<sync>:<sync>:<sync>:<sync>:<sync>",
        "<sync>:" + std::string(1200, 'x') + ":<sync>",
        std::string("\0\xff\xfe<sync>\n\r%s%n", 16),
    };
    return junk;
}

bool parseNumber(const std::string& text, double& value)
{
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return !text.empty() && *end == '\0' && std::isfinite(value);
}

// "M.rear" -> module name and side; the word was checked before.
std::pair<std::string, Side> splitPort(const std::string& port)
{
    std::size_t dot = port.rfind('.');
    return {port.substr(0, dot), port.substr(dot + 1) == "rear" ? Side::Rear : Side::Front};
}

bool hasModule(const Chain& chain, const std::string& name)
{
    return std::any_of(chain.modules.begin(), chain.modules.end(),
                       [&](const Chain::ModuleEntry& m) { return m.setup.name == name; });
}

// The bus frame of a hello: 4 bytes of length, big end first, then the JSON.
std::string helloFrame()
{
    const std::string json = R"({"jsonrpc":"2.0","id":1,"method":"hello","params":{"protocol":1,"name":"crowd"}})";
    std::string frame(4, '\0');
    const auto n = static_cast<std::uint32_t>(json.size());
    frame[0] = static_cast<char>((n >> 24) & 0xFF);
    frame[1] = static_cast<char>((n >> 16) & 0xFF);
    frame[2] = static_cast<char>((n >> 8) & 0xFF);
    frame[3] = static_cast<char>(n & 0xFF);
    return frame + json;
}

bool readAll(int fd, char* buf, std::size_t size)
{
    std::size_t got = 0;
    while (got < size) {
        ssize_t n = ::read(fd, buf + got, size - got);
        if (n <= 0) {
            return false;
        }
        got += static_cast<std::size_t>(n);
    }
    return true;
}

// Whether the broker answered the hello on fd with a result (not an error).
bool helloAnswered(int fd)
{
    unsigned char head[4];
    if (!readAll(fd, reinterpret_cast<char*>(head), sizeof head)) {
        return false;
    }
    const std::size_t n = (std::size_t{head[0]} << 24) | (std::size_t{head[1]} << 16) |
                          (std::size_t{head[2]} << 8) | std::size_t{head[3]};
    if (n == 0 || n > 4096) {
        return false;
    }
    std::string body(n, '\0');
    return readAll(fd, body.data(), n) && body.find("\"result\"") != std::string::npos;
}

}  // namespace

struct Faults::Flap
{
    Module* module;
    Side side;
    double half;  // seconds between two changes: a flap is one cut and one plug
    double end;
    double next;
    bool cut = false;
};

struct Faults::Flood
{
    std::unique_ptr<McastSocket> socket;
    bool junk;
    std::string startTelegram;
    double rate;
    double start;
    double end;
    std::uint64_t sent = 0;
};

struct Faults::Crowd
{
    std::atomic<bool> stop{false};
    std::atomic<bool> done{false};
    std::thread thread;
};

Faults::Faults(World& world) : m_world(world) {}

Faults::~Faults()
{
    endAll();
}

bool Faults::handles(const std::string& action)
{
    static const std::vector<std::string> actions{"slow-script", "flap",  "move",   "fill-run",
                                                  "free-run",    "flood", "clients"};
    return std::find(actions.begin(), actions.end(), action) != actions.end();
}

std::string checkFaultEvent(const Chain& chain, const Chain::Event& event)
{
    const auto& w = event.words;
    const std::string& a = w.empty() ? std::string() : w[0];
    auto module = [&](std::size_t i) -> std::string {
        return hasModule(chain, w[i]) ? "" : a + ": unknown module '" + w[i] + "'";
    };
    auto seconds = [&](const std::string& text, bool zeroAllowed) -> std::string {
        double v = 0;
        if (!parseNumber(text, v) || v < 0 || (!zeroAllowed && v == 0) || v > kMaxFaultSeconds) {
            return a + ": bad seconds '" + text + "' (" + (zeroAllowed ? "0" : "more than 0") + " to 3600)";
        }
        return "";
    };
    if (a == "slow-script") {
        if (w.size() != 4) {
            return "slow-script takes a module, a script name and seconds";
        }
        if (std::string err = module(1); !err.empty()) {
            return err;
        }
        const auto& scripts = ScriptRecorder::scriptNames();
        if (std::find(scripts.begin(), scripts.end(), w[2]) == scripts.end()) {
            return "slow-script: unknown script '" + w[2] + "'";
        }
        return seconds(w[3], true);
    }
    if (a == "flap") {
        if (w.size() != 4) {
            return "flap takes a port (MODULE.rear or MODULE.front), flaps per second and seconds";
        }
        if (std::string err = checkPort(chain, a, w[1]); !err.empty()) {
            return err;
        }
        double hz = 0;
        if (!parseNumber(w[2], hz) || hz <= 0 || hz > kMaxFlapHz) {
            return "flap: bad rate '" + w[2] + "' (more than 0 to 50 per second)";
        }
        return seconds(w[3], false);
    }
    if (a == "move") {
        if (w.size() != 3) {
            return "move takes a port (MODULE.rear or MODULE.front) and a bus";
        }
        if (std::string err = checkPort(chain, a, w[1]); !err.empty()) {
            return err;
        }
        return std::find(chain.buses.begin(), chain.buses.end(), w[2]) != chain.buses.end()
                   ? ""
                   : "move: unknown bus '" + w[2] + "'";
    }
    if (a == "fill-run" || a == "free-run") {
        if (w.size() != 2) {
            return a + " takes one module name";
        }
        return module(1);
    }
    if (a == "flood") {
        if (w.size() != 5) {
            return "flood takes a port (MODULE.rear or MODULE.front), start or junk, telegrams per second "
                   "and seconds";
        }
        if (std::string err = checkPort(chain, a, w[1]); !err.empty()) {
            return err;
        }
        if (w[2] != "start" && w[2] != "junk") {
            return "flood: kind must be start or junk, not '" + w[2] + "'";
        }
        double rate = 0;
        if (!parseNumber(w[3], rate) || rate <= 0 || rate > kMaxFloodRate) {
            return "flood: bad rate '" + w[3] + "' (more than 0 to 10000 per second)";
        }
        return seconds(w[4], false);
    }
    if (a == "clients") {
        if (w.size() != 4) {
            return "clients takes a module, a number of clients and seconds";
        }
        if (std::string err = module(1); !err.empty()) {
            return err;
        }
        char* end = nullptr;
        unsigned long n = std::strtoul(w[2].c_str(), &end, 10);
        if (w[2].empty() || *end != '\0' || w[2][0] == '-' || n == 0 || n > kMaxClients) {
            return "clients: bad number '" + w[2] + "' (1 to 100000)";
        }
        return seconds(w[3], false);
    }
    return "unknown event '" + a + "'";
}

std::string Faults::apply(const std::vector<std::string>& w)
{
    const std::string& a = w.at(0);
    const double now = m_world.now();
    if (a == "slow-script") {
        Module* m = m_world.findModule(w[1]);
        if (!m) {
            return "no module " + w[1];
        }
        m->setScriptDelay(w[2], std::stod(w[3]));
        return "";
    }
    if (a == "flap" || a == "move" || a == "flood") {
        auto [name, side] = splitPort(w[1]);
        Module* m = m_world.findModule(name);
        if (!m || !m->hasInterface(side)) {
            return "no port " + w[1];
        }
        if (a == "move") {
            Bus* to = m_world.findBus(w[2]);
            if (!to) {
                return "no bus " + w[2];
            }
            m_world.move(*m, side, *to);
            return "";
        }
        if (a == "flap") {
            const double hz = std::stod(w[2]);
            auto f = std::make_unique<Flap>(Flap{m, side, 0.5 / hz, now + std::stod(w[3]), now});
            f->cut = m_world.isCut(*m, side);
            m_flaps.push_back(std::move(f));
            tick();
            return "";
        }
        const unsigned port = m->setup().port + (side == Side::Front ? 1 : 0);
        auto f = std::make_unique<Flood>();
        f->socket = std::make_unique<McastSocket>(*m, m->setup().group, port, side);
        if (!f->socket->ok()) {
            return "cannot open a telegram socket on " + w[1];
        }
        f->junk = w[2] == "junk";
        // The start request of the flooded side; the front one names its side.
        f->startTelegram = side == Side::Front ? "<sync>:start:1:<sync>" : "<sync>:start:<sync>";
        f->rate = std::stod(w[3]);
        f->start = now;
        f->end = now + std::stod(w[4]);
        m_floods.push_back(std::move(f));
        tick();
        return "";
    }
    if (a == "fill-run" || a == "free-run") {
        Module* m = m_world.findModule(w[1]);
        if (!m) {
            return "no module " + w[1];
        }
        return a == "fill-run" ? fillRun(*m) : freeRun(*m);
    }
    if (a == "clients") {
        Module* m = m_world.findModule(w[1]);
        if (!m) {
            return "no module " + w[1];
        }
        const std::size_t count = std::stoul(w[2]);
        const auto until = std::chrono::steady_clock::now() +
                           std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                               std::chrono::duration<double>(std::stod(w[3])));
        const int netns = m->netnsFd();
        auto crowd = std::make_unique<Crowd>();
        Crowd* c = crowd.get();
        c->thread = std::thread([this, c, count, until, netns] {
            const std::string hello = helloFrame();
            // Rounds of count clients, each round in batches that connect, say
            // hello, wait for the answer and leave together.
            while (!c->stop && std::chrono::steady_clock::now() < until) {
                for (std::size_t done = 0;
                     done < count && !c->stop && std::chrono::steady_clock::now() < until;) {
                    std::vector<int> fds;
                    const std::size_t batch = std::min(kCrowdBatch, count - done);
                    for (std::size_t i = 0; i < batch; ++i) {
                        int fd = nsops::socketIn(netns, AF_INET, SOCK_STREAM, 0);
                        if (fd < 0) {
                            ++m_refused;
                            continue;
                        }
                        timeval tv{2, 0};
                        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
                        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
                        sockaddr_in addr{};
                        addr.sin_family = AF_INET;
                        addr.sin_port = htons(static_cast<std::uint16_t>(kBusPort));
                        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
                        if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
                            ::send(fd, hello.data(), hello.size(), MSG_NOSIGNAL) !=
                                static_cast<ssize_t>(hello.size())) {
                            ++m_refused;
                            ::close(fd);
                            continue;
                        }
                        fds.push_back(fd);
                    }
                    for (int fd : fds) {
                        (helloAnswered(fd) ? m_answered : m_refused)++;
                        ::close(fd);
                    }
                    done += batch;
                }
            }
            c->done = true;
        });
        m_crowds.push_back(std::move(crowd));
        return "";
    }
    return "unknown fault '" + a + "'";
}

std::string Faults::fillRun(Module& module)
{
    // A tiny file system over the module's /var/run/timesync, filled to the
    // last block, as when another program filled /run before the daemon
    // wrote its files: the daemon's next file write meets ENOSPC. A second
    // fill-run only fills it again.
    static const char* const fill =
        "set -e\n"
        "if ! grep -q ' /run/timesync ' /proc/self/mountinfo; then\n"
        "  mount -t tmpfs -o size=64k,nr_inodes=64,mode=0755 tsdsim-full /run/timesync\n"
        "fi\n"
        "dd if=/dev/zero of=/run/timesync/.fill bs=1024 2>/dev/null || true\n"
        "test -s /run/timesync/.fill\n";
    std::string out;
    int st = module.run({"/bin/sh", "-c", fill}, &out, std::chrono::seconds(10));
    return st == 0 ? "" : "could not fill /run/timesync (status " + std::to_string(st) + ")";
}

std::string Faults::freeRun(Module& module)
{
    std::string out;
    int st = module.run({"/bin/rm", "-f", "/run/timesync/.fill"}, &out, std::chrono::seconds(10));
    return st == 0 ? "" : "could not free /run/timesync (status " + std::to_string(st) + ")";
}

void Faults::endFlap(Flap& flap)
{
    if (flap.cut) {
        m_world.setCut(*flap.module, flap.side, false);
        flap.cut = false;
        ++m_flapCount;
    }
}

void Faults::tick()
{
    const double now = m_world.now();
    for (auto it = m_flaps.begin(); it != m_flaps.end();) {
        Flap& f = **it;
        if (now >= f.end) {
            endFlap(f);
            m_lastEnd = now;
            it = m_flaps.erase(it);
            continue;
        }
        if (now >= f.next) {
            f.cut = !f.cut;
            m_world.setCut(*f.module, f.side, f.cut);
            ++m_flapCount;
            // A late tick does not make up for missed changes with a burst.
            f.next = std::max(f.next + f.half, now);
        }
        ++it;
    }
    for (auto it = m_floods.begin(); it != m_floods.end();) {
        Flood& f = **it;
        const double until = std::min(now, f.end);
        const auto due = static_cast<std::uint64_t>((until - f.start) * f.rate) + 1;
        const auto& junk = junkTelegrams();
        while (f.sent < due) {
            f.socket->send(f.junk ? junk[f.sent % junk.size()] : f.startTelegram);
            ++f.sent;
            ++m_telegrams;
        }
        if (now >= f.end) {
            m_lastEnd = now;
            it = m_floods.erase(it);
            continue;
        }
        ++it;
    }
    for (auto it = m_crowds.begin(); it != m_crowds.end();) {
        // A crowd ends on its own when its time is up.
        if ((*it)->done) {
            (*it)->thread.join();
            m_lastEnd = now;
            it = m_crowds.erase(it);
            continue;
        }
        ++it;
    }
}

bool Faults::active() const
{
    return !m_flaps.empty() || !m_floods.empty() || !m_crowds.empty();
}

void Faults::endAll()
{
    for (auto& f : m_flaps) {
        endFlap(*f);
    }
    if (active()) {
        m_lastEnd = m_world.now();
    }
    m_flaps.clear();
    m_floods.clear();
    for (auto& c : m_crowds) {
        c->stop = true;
    }
    for (auto& c : m_crowds) {
        if (c->thread.joinable()) {
            c->thread.join();
        }
    }
    m_crowds.clear();
}

Faults::Stats Faults::stats() const
{
    return Stats{m_flapCount, m_telegrams, m_answered.load(), m_refused.load()};
}

}  // namespace tsdsim
