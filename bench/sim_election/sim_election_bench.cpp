// Figures of the simulated chain: how long chains of real daemons take to
// agree on a master after start and after the master is unplugged, and how
// fast the simulated bus relays frames. Prints a table; needs root and the
// daemon, broker and client built beside it.
//
//   sim_election_bench [--sizes 2,4,8,16] [--frames 20000]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tsdsim/World.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto kTimeout = 60s;

double since(Clock::time_point t0)
{
    return std::chrono::duration<double>(Clock::now() - t0).count();
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
    double startup = -1;   // world built and processes started (s)
    double agreed = -1;    // from the daemons' start to agreement (s)
    double failover = -1;  // from unplugging the master to agreement on the next (s)
};

ChainFigures measureChain(int n)
{
    ChainFigures f;
    f.size = n;
    auto t0 = Clock::now();
    tsdsim::World world;
    tsdsim::Bus& bus = world.addBus("chain");
    for (int i = 1; i <= n; ++i) {
        tsdsim::ModuleSetup s;
        s.name = "m" + std::to_string(i);
        s.uuid = static_cast<std::uint32_t>(0x000100 + i);
        world.addModule(s).addInterface(tsdsim::Side::Rear, bus);
    }
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
    f.agreed = since(t1);
    if (n >= 2) {
        tsdsim::Module& master = *world.modules().back();
        auto t2 = Clock::now();
        world.unplug(master);
        if (world.waitFor([&] { return agree(world, top - 1, &master); }, kTimeout)) {
            f.failover = since(t2);
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

}  // namespace

int main(int argc, char** argv)
{
    std::vector<int> sizes{2, 4, 8, 16};
    int frames = 20000;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string opt = argv[i];
        if (opt == "--sizes") {
            sizes.clear();
            std::stringstream s(argv[i + 1]);
            std::string n;
            while (std::getline(s, n, ',')) {
                sizes.push_back(std::atoi(n.c_str()));
            }
        } else if (opt == "--frames") {
            frames = std::atoi(argv[i + 1]);
        }
    }
    if (::geteuid() != 0) {
        std::cerr << "sim_election_bench: needs root\n";
        return 2;
    }
    tsdsim::World::installStopSignals();

    std::printf("Simulated chains (daemons wait 3 s after the last device change before electing)\n");
    std::printf("%8s %14s %22s %24s\n", "modules", "set-up [s]", "start->agreement [s]",
                "unplug->new master [s]");
    for (int n : sizes) {
        ChainFigures f = measureChain(n);
        std::printf("%8d %14.2f %22.2f %24.2f\n", f.size, f.startup, f.agreed, f.failover);
        std::fflush(stdout);
        if (tsdsim::World::stopRequested()) {
            return 130;
        }
    }
    RelayFigures r = measureRelay(frames);
    std::printf("\nRelay, one bus, two modules, a burst of %zu-byte telegrams as fast as the sender can\n",
                std::strlen("<sync>:item:abcdef:a:2:a:<sync>"));
    std::printf("  sent %d, received %d (%.1f %%) in %.2f s: %.0f frames/s\n", r.sent, r.received,
                r.sent ? 100.0 * r.received / r.sent : 0.0, r.seconds,
                r.seconds > 0 ? r.received / r.seconds : 0.0);
    std::printf("  one-way latency through the relay: p50 %.0f us, p99 %.0f us\n", r.p50us, r.p99us);
    return 0;
}
