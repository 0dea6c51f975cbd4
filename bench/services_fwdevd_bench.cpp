// How fast a FireWire device that appears or vanishes reaches the bus
// through fwdevd (the goal: within 100 ms), and what one rescan costs.
//
// Starts velad and fwdevd from its own directory on a sysfs tree of its own.
// As root it first moves into a network namespace of its own, so that the
// tap devices it creates to cause real kernel events touch nothing else;
// without root only the SIGHUP path and the scan are measured.
//   services_fwdevd_bench [--rounds N]
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include "SysfsScan.h"
#include "SysfsTree.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using orv::services::SysfsTree;

namespace {

const std::string kCard = "pci0000:00/0000:00:1c.0/0000:05:00.0";
constexpr std::uint64_t kOwnNode = 0x00000a7c31000001;

std::string exeDir()
{
    char buf[4096];
    const ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
    const std::string path(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    return path.substr(0, path.rfind('/'));
}

// A free loopback port: the kernel's choice for a socket closed at once.
unsigned freePort()
{
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// A program of the build tree, stopped by pid when the object goes.
class Child
{
public:
    explicit Child(const std::vector<std::string>& argv)
    {
        m_pid = ::fork();
        if (m_pid == 0) {
            const int devnull = ::open("/dev/null", O_WRONLY);
            ::dup2(devnull, 1);
            ::dup2(devnull, 2);
            std::vector<char*> args;
            for (const auto& a : argv) {
                args.push_back(const_cast<char*>(a.c_str()));
            }
            args.push_back(nullptr);
            ::execv(args[0], args.data());
            ::_exit(127);
        }
    }
    ~Child()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            ::waitpid(m_pid, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

// Runs the loop until pred holds or timeout passes.
bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& pred, std::chrono::milliseconds timeout)
{
    orv::sys::Timer poll(loop);
    const auto deadline = Clock::now() + timeout;
    poll.set(1ms, true, [&](bool) {
        if (pred() || Clock::now() >= deadline) {
            loop.stop();
        }
    });
    if (!pred()) {
        loop.execute();
    }
    return pred();
}

// The bus as a fetcher sees it: when each path was last added or removed.
struct Seen
{
    std::map<std::string, Clock::time_point> added;
    std::map<std::string, Clock::time_point> removed;
};

std::string pathOf(std::uint64_t guid)
{
    char text[64];
    std::snprintf(text, sizeof text, "reachableDevices/firewire0/%016llX",
                  static_cast<unsigned long long>(guid));
    return text;
}

struct Figures
{
    std::vector<double> ms;

    void print(const char* what) const
    {
        if (ms.empty()) {
            std::printf("%-44s no samples\n", what);
            return;
        }
        std::vector<double> sorted = ms;
        std::sort(sorted.begin(), sorted.end());
        const auto at = [&](double q) {
            return sorted[static_cast<std::size_t>(q * double(sorted.size() - 1))];
        };
        std::printf("%-44s n=%-4zu median %6.2f ms  p90 %6.2f ms  max %6.2f ms  over 100 ms: %zu\n", what,
                    sorted.size(), at(0.5), at(0.9), sorted.back(),
                    static_cast<std::size_t>(
                        std::count_if(sorted.begin(), sorted.end(), [](double v) { return v > 100; })));
    }
};

double since(Clock::time_point start, Clock::time_point end)
{
    return std::chrono::duration<double, std::milli>(end - start).count();
}

// A tap device: creating it and closing its fd are kernel events of the
// "net" subsystem, in this process's network namespace only.
int openTap(const char* name)
{
    const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ifreq ifr{};
    ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
    std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
    if (::ioctl(fd, TUNSETIFF, &ifr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = 50;
    if (argc == 3 && std::strcmp(argv[1], "--rounds") == 0) {
        rounds = std::max(1, std::atoi(argv[2]));
    }
    const bool root = ::geteuid() == 0;
    if (root && (::unshare(CLONE_NEWNET) != 0 || std::system("ip link set lo up") != 0)) {
        std::fprintf(stderr, "services_fwdevd_bench: cannot make a network namespace: %s\n",
                     std::strerror(errno));
        return 1;
    }

    char dirTemplate[] = "/tmp/fwdevd-bench-XXXXXX";
    if (::mkdtemp(dirTemplate) == nullptr) {
        return 1;
    }
    const std::string dir = dirTemplate;
    int status = 0;
    {
        SysfsTree tree(dir + "/sys");
        tree.addNode(kCard, "fw0", kOwnNode, true);
        tree.addInterface(kCard, "firewire0", kOwnNode);

        const unsigned port = freePort();
        Child velad({exeDir() + "/velad", "--port", std::to_string(port), "--quiet"});
        Child fwdevd({exeDir() + "/fwdevd", "--sysfs", tree.root(), "--port", std::to_string(port)});

        orv::sys::EventLoop loop;
        vela::PeerAsync peer(loop, "127.0.0.1", port, "bench");
        Seen seen;
        bool fetched = false;
        vela::matcher_t matcher;
        matcher.startsWith = "reachableDevices/";
        peer.addFetchAsync(
            matcher,
            [&](const Json::Value& n, int) {
                (n["event"].asString() == "remove" ? seen.removed : seen.added)[n["path"].asString()] =
                    Clock::now();
            },
            [&](const Json::Value&) { fetched = true; });
        if (!runUntil(
                loop, [&] { return fetched; }, 5s)) {
            std::fprintf(stderr, "services_fwdevd_bench: the broker did not answer on port %u\n", port);
            return 1;
        }
        // Until fwdevd has connected and published its first (empty) picture.
        runUntil(
            loop, [] { return false; }, 500ms);

        Figures hupAdd, hupRemove, eventAdd, eventRemove;
        for (int i = 0; i < rounds; ++i) {
            const std::uint64_t guid = 0x00000a7c31100000 + static_cast<std::uint64_t>(i);
            const std::string path = pathOf(guid);
            tree.addNode(kCard, "fw1", guid, false);
            auto start = Clock::now();
            ::kill(fwdevd.pid(), SIGHUP);
            if (runUntil(
                    loop, [&] { return seen.added.count(path) != 0; }, 2s)) {
                hupAdd.ms.push_back(since(start, seen.added[path]));
            }
            tree.removeNode("fw1");
            start = Clock::now();
            ::kill(fwdevd.pid(), SIGHUP);
            if (runUntil(
                    loop, [&] { return seen.removed.count(path) != 0; }, 2s)) {
                hupRemove.ms.push_back(since(start, seen.removed[path]));
            }
        }
        for (int i = 0; root && i < rounds; ++i) {
            const std::uint64_t guid = 0x00000a7c31200000 + static_cast<std::uint64_t>(i);
            const std::string path = pathOf(guid);
            tree.addNode(kCard, "fw1", guid, false);
            auto start = Clock::now();
            const int tap = openTap("fwbench0");
            if (tap < 0) {
                std::fprintf(stderr, "services_fwdevd_bench: no tap device: %s\n", std::strerror(errno));
                break;
            }
            if (runUntil(
                    loop, [&] { return seen.added.count(path) != 0; }, 2s)) {
                eventAdd.ms.push_back(since(start, seen.added[path]));
            }
            tree.removeNode("fw1");
            start = Clock::now();
            ::close(tap);
            if (runUntil(
                    loop, [&] { return seen.removed.count(path) != 0; }, 2s)) {
                eventRemove.ms.push_back(since(start, seen.removed[path]));
            }
        }

        std::printf("fwdevd: from the change to the fetcher's notification (goal: below 100 ms)\n");
        hupAdd.print("SIGHUP, device appears");
        hupRemove.print("SIGHUP, device vanishes");
        if (root) {
            eventAdd.print("kernel event (tap created), device appears");
            eventRemove.print("kernel event (tap removed), device vanishes");
        } else {
            std::printf("kernel events: not measured (needs root for a network namespace)\n");
        }
        if (hupAdd.ms.size() != static_cast<std::size_t>(rounds)) {
            status = 1;
        }
    }

    // One rescan of a full bus on each of two cards (63 nodes each, the most
    // a FireWire bus holds), in this process.
    {
        SysfsTree big(dir + "/big");
        for (int card = 0; card < 2; ++card) {
            const std::string device = kCard + std::to_string(card);
            const std::uint64_t own = kOwnNode + static_cast<std::uint64_t>(card) * 0x100;
            big.addNode(device, "fw" + std::to_string(card * 100), own, true);
            big.addInterface(device, "firewire" + std::to_string(card), own);
            for (int n = 1; n < 63; ++n) {
                big.addNode(device, "fw" + std::to_string(card * 100 + n),
                            own + static_cast<std::uint64_t>(n), false);
            }
        }
        const int scans = 200;
        std::size_t devices = 0;
        const auto start = Clock::now();
        for (int i = 0; i < scans; ++i) {
            devices = orv::services::scanReachableDevices(big.root()).devices.size();
        }
        std::printf("one rescan of 2 cards x 63 nodes (%zu devices): %.3f ms\n", devices,
                    since(start, Clock::now()) / scans);
    }
    std::filesystem::remove_all(dir);
    return status;
}
