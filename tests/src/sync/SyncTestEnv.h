#pragma once

// What the sync manager's tests put around the object under test, all real
// and all private to the test process:
//   - a network namespace of its own with two FireWire interfaces (TAP devices
//     of link type 24) whose node ids make firewire0 the rear and firewire1
//     the front port of the configured UUID;
//   - the configuration file under a shadowed /etc, the module type in the
//     device tree, recording stand-ins for the three time-service scripts
//     under a shadowed /usr/bin and a private /run;
//   - a velad on a free loopback port (ended by its pid), a second bus peer
//     that watches and publishes states, and multicast listeners that receive
//     what the manager sends.
// The network and mount namespaces vanish with the test process.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <orv/communication/MulticastServer.h>
#include <orv/communication/Netadapter.h>
#include <orv/communication/NetadapterList.h>
#include <orv/sys/EventLoop.h>
#include <orv/sys/Timer.h>
#include <vela/PeerAsync.h>

#include "sync/CommandRunner.h"
#include "testsupport/PrivateMounts.h"

namespace synctest {

using namespace std::chrono_literals;

constexpr const char* kGroup = "239.255.70.1";
constexpr unsigned kPort = 15010;
constexpr const char* kRearAddress = "169.254.1.1";
constexpr const char* kFrontAddress = "169.254.2.1";

// Levels: "Gps" is a time source that is neither NTP nor PTP.
inline std::string configXml()
{
    return "<?xml version=\"1.0\"?>\n"
           "<TimeSyncDaemon>\n"
           "  <MultiCastParam><Address>" +
           std::string(kGroup) + "</Address><Port>" + std::to_string(kPort) +
           "</Port></MultiCastParam>\n"
           "  <PrioLevel>\n"
           "    <ModuleType><KP>20</KP><RZ>10</RZ></ModuleType>\n"
           "    <TimeSource><Ptp>2</Ptp><Ntp>1</Ntp><Gps>3</Gps></TimeSource>\n"
           "  </PrioLevel>\n"
           "</TimeSyncDaemon>\n";
}

inline int sh(const std::string& command)
{
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline bool fileExists(const std::string& path)
{
    return ::access(path.c_str(), F_OK) == 0;
}

// The kernel's sysfs address text of a 64-bit node id.
inline std::string nodeIdAddress(std::uint64_t id)
{
    char text[32];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x",
                  static_cast<unsigned>((id >> 56) & 0xff), static_cast<unsigned>((id >> 48) & 0xff),
                  static_cast<unsigned>((id >> 40) & 0xff), static_cast<unsigned>((id >> 32) & 0xff),
                  static_cast<unsigned>((id >> 24) & 0xff), static_cast<unsigned>((id >> 16) & 0xff),
                  static_cast<unsigned>((id >> 8) & 0xff), static_cast<unsigned>(id & 0xff));
    return text;
}

// A TAP device of link type 24 held open for the life of the process; it
// disappears with its fd.
class FirewireTap
{
public:
    FirewireTap(const std::string& name, const std::string& address, std::uint64_t nodeId)
    {
        m_fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC | O_NONBLOCK);
        if (m_fd < 0) {
            ADD_FAILURE() << "/dev/net/tun: " << std::strerror(errno);
            return;
        }
        ifreq ifr{};
        ifr.ifr_flags = IFF_TAP | IFF_NO_PI;
        std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
        if (::ioctl(m_fd, TUNSETIFF, &ifr) != 0 ||
            ::ioctl(m_fd, TUNSETLINK, static_cast<unsigned long>(ARPHRD_IEEE1394)) != 0) {
            ADD_FAILURE() << "cannot make " << name << ": " << std::strerror(errno);
            return;
        }
        // A TAP shows a 6-byte address; the node id is the first 8 bytes of
        // the address the FireWire driver shows, so put that text in place.
        const std::string source = testsupport::PrivateMounts::scratchDir("node-" + name) + "/address";
        std::ofstream(source) << nodeIdAddress(nodeId) << "\n";
        const std::string target = "/sys/class/net/" + name + "/address";
        if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            ADD_FAILURE() << "bind over " << target << ": " << std::strerror(errno);
        }
        EXPECT_EQ(sh("ip addr add " + address + "/24 dev " + name), 0);
        EXPECT_EQ(sh("ip link set " + name + " up"), 0);
    }
    ~FirewireTap()
    {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }
    FirewireTap(const FirewireTap&) = delete;
    FirewireTap& operator=(const FirewireTap&) = delete;

private:
    int m_fd = -1;
};

// Moves the test process into a network namespace of its own with loopback
// up and a sysfs of that namespace on /sys. Call from the main thread before
// any other thread exists.
inline bool enterPrivateNetwork()
{
    if (::unshare(CLONE_NEWNET) != 0) {
        std::fprintf(stderr, "unshare(CLONE_NEWNET): %s\n", std::strerror(errno));
        return false;
    }
    if (::mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        std::fprintf(stderr, "mount sysfs: %s\n", std::strerror(errno));
        return false;
    }
    return sh("ip link set lo up") == 0;
}

// Node ids: rear = the maker's OUI and the module's uuid, front = the same
// with bit 23 flipped, so that the daemon classifies it as the front port.
inline std::uint64_t rearNodeId(unsigned uuid)
{
    return (0x0A7C31ULL << 24) | (uuid & 0xFFFFFFu);
}
inline std::uint64_t frontNodeId(unsigned uuid)
{
    return (0x0A7C31ULL << 24) | ((uuid ^ 0x800000u) & 0xFFFFFFu);
}

// Drives loop until condition holds or timeout passes; the result tells which.
inline bool runUntil(orv::sys::EventLoop& loop, const std::function<bool()>& condition,
                     std::chrono::milliseconds timeout = 10s)
{
    if (condition()) {
        return true;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    bool met = false;
    orv::sys::Timer poll(loop);
    poll.set(5ms, true, [&](bool fired) {
        if (!fired) {
            return;
        }
        if (condition()) {
            met = true;
            loop.stop();
        } else if (std::chrono::steady_clock::now() >= deadline) {
            loop.stop();
        }
    });
    loop.execute();
    return met;
}

inline void runFor(orv::sys::EventLoop& loop, std::chrono::milliseconds period)
{
    orv::sys::Timer stop(loop);
    stop.set(period, false, [&](bool fired) {
        if (fired) {
            loop.stop();
        }
    });
    loop.execute();
}

// A broker on a free loopback port, ended by its pid.
class Velad
{
public:
    Velad()
    {
        char self[4096] = {};
        const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
        std::string dir = n > 0 ? std::string(self, static_cast<std::size_t>(n)) : std::string();
        dir = dir.substr(0, dir.rfind('/'));
        const std::string binary = dir + "/velad";
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) {
            ADD_FAILURE() << "pipe: " << std::strerror(errno);
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            // The broker must not outlive a test program that crashes.
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(out[1], STDOUT_FILENO);
            ::execl(binary.c_str(), "velad", "--address", "127.0.0.1", "--port", "0", "--quiet",
                    static_cast<char*>(nullptr));
            ::_exit(127);
        }
        ::close(out[1]);
        std::string line;
        char c = 0;
        while (::read(out[0], &c, 1) == 1 && c != '\n') {
            line += c;
        }
        ::close(out[0]);
        const auto colon = line.rfind(':');
        if (m_pid < 0 || colon == std::string::npos) {
            ADD_FAILURE() << "velad did not start (" << binary << "): '" << line << "'";
            return;
        }
        m_port = static_cast<unsigned>(std::strtoul(line.c_str() + colon + 1, nullptr, 10));
    }
    ~Velad()
    {
        if (m_pid > 0) {
            ::kill(m_pid, SIGTERM);
            int status = 0;
            ::waitpid(m_pid, &status, 0);
        }
    }
    Velad(const Velad&) = delete;
    Velad& operator=(const Velad&) = delete;

    unsigned port() const { return m_port; }

private:
    pid_t m_pid = -1;
    unsigned m_port = 0;
};

// A second participant of the bus: it follows every state under a prefix and
// publishes what the platform would (reachable devices, "sync/param").
class BusObserver
{
public:
    BusObserver(orv::sys::EventLoop& loop, unsigned port, const std::string& prefix)
        : m_peer(loop, "127.0.0.1", port, "observer")
    {
        vela::matcher_t matcher;
        matcher.startsWith = prefix;
        m_peer.addFetchAsync(matcher, [this](const Json::Value& notification, int) {
            const std::string path = notification["path"].asString();
            const std::string event = notification["event"].asString();
            ++m_notifications[path];
            if (event == "remove") {
                m_states.erase(path);
            } else {
                m_states[path] = notification["value"];
            }
        });
    }

    vela::PeerAsync& peer() { return m_peer; }
    bool has(const std::string& path) const { return m_states.count(path) != 0; }
    Json::Value state(const std::string& path) const
    {
        const auto it = m_states.find(path);
        return it == m_states.end() ? Json::Value() : it->second;
    }
    // Notifications seen for path ("add", "change" and "remove" alike).
    int notifications(const std::string& path) const
    {
        const auto it = m_notifications.find(path);
        return it == m_notifications.end() ? 0 : it->second;
    }

private:
    vela::PeerAsync m_peer;
    std::map<std::string, Json::Value> m_states;
    std::map<std::string, int> m_notifications;
};

// A multicast receiver joined on one local interface; with the sender's
// multicast loop on, it hears what the manager sends out of that interface.
class TelegramListener
{
public:
    TelegramListener(orv::communication::NetadapterList& adapters, orv::sys::EventLoop& loop, unsigned port,
                     const std::string& address)
        : m_server(adapters, loop)
    {
        EXPECT_EQ(m_server.start(kGroup, port,
                                 [this](orv::communication::MulticastServer& server) {
                                     char buffer[512];
                                     orv::communication::Netadapter from;
                                     int index = 0;
                                     const int n = server.receiveTelegram(buffer, sizeof buffer, from, index);
                                     if (n >= 0) {
                                         m_got.emplace_back(buffer, static_cast<std::size_t>(n));
                                     }
                                     return n;
                                 }),
                  0);
        EXPECT_EQ(m_server.addInterface(address), 0);
    }

    const std::vector<std::string>& got() const { return m_got; }
    void clear() { m_got.clear(); }

private:
    orv::communication::MulticastServer m_server;
    std::vector<std::string> m_got;
};

// Recording stand-ins for /bin/ptp4ladm.sh, /bin/start_ntpd.sh and
// /bin/stop_ntpd.sh: each appends "name args" to a log and exits with the
// status found in its status file (0 when there is none). The scripts are
// written once per process (a backgrounded start may still be running one
// when the next test begins); each clear() starts a new log, named in the
// environment, which a script inherits when it is started, so that a late
// backgrounded script still writes to the log of the test that started it.
class ScriptStandIns
{
public:
    ScriptStandIns()
    {
        static const std::string dir = install();
        m_dir = dir;
        clear();
    }

    void setStatus(const std::string& script, int status)
    {
        std::ofstream(m_dir + "/" + script + ".status") << status << "\n";
    }
    void clear()
    {
        static int generation = 0;
        m_log = m_dir + "/calls-" + std::to_string(++generation) + ".log";
        ::setenv("TSD_TEST_SCRIPT_LOG", m_log.c_str(), 1);
        for (const char* name : {"ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"}) {
            std::remove((m_dir + "/" + name + ".status").c_str());
        }
    }
    std::vector<std::string> calls() const
    {
        std::vector<std::string> lines;
        std::istringstream text(readFile(m_log));
        std::string line;
        while (std::getline(text, line)) {
            lines.push_back(line);
        }
        return lines;
    }
    // "/bin/start_ntpd.sh &" returns before the script has run: wait for its line.
    bool waitCalls(std::size_t count, std::chrono::milliseconds timeout = 5s) const
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (calls().size() < count) {
            if (std::chrono::steady_clock::now() >= deadline) {
                return false;
            }
            ::usleep(5000);
        }
        return true;
    }

private:
    static std::string install()
    {
        const std::string dir = testsupport::PrivateMounts::scratchDir("scripts");
        EXPECT_TRUE(testsupport::PrivateMounts::shadow("/usr/bin"));
        for (const char* name : {"ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"}) {
            const std::string script =
                "#!/bin/sh\n"
                "echo \"" +
                std::string(name) +
                " $*\" >> \"$TSD_TEST_SCRIPT_LOG\"\n"
                "status=$(cat " +
                dir + "/" + name +
                ".status 2>/dev/null)\n"
                "exit ${status:-0}\n";
            EXPECT_TRUE(testsupport::PrivateMounts::writeFile(std::string("/usr/bin/") + name, script, 0755));
        }
        return dir;
    }

    std::string m_dir;
    std::string m_log;
};

// A private /run whose timesync directory starts absent. Only ever removes
// inside the shadowed /run (a symlink there is removed, not followed).
inline bool privateRun()
{
    if (!testsupport::PrivateMounts::active() || !testsupport::PrivateMounts::shadow("/run")) {
        return false;
    }
    return sh("rm -rf /run/timesync") == 0;
}

// Hands every command to system() and records it; a command given a forced
// status is recorded but not run (a backgrounded script cannot fail through
// the shell, so its failure is made here).
class RecordingRunner : public orv::tsd::CommandRunner
{
public:
    int run(const std::string& command) override
    {
        m_commands.push_back(command);
        const auto forced = m_forced.find(command);
        if (forced != m_forced.end()) {
            return forced->second;
        }
        return std::system(command.c_str());
    }

    void force(const std::string& command, int status) { m_forced[command] = status; }
    void unforce(const std::string& command) { m_forced.erase(command); }
    const std::vector<std::string>& commands() const { return m_commands; }
    void clear() { m_commands.clear(); }

private:
    std::vector<std::string> m_commands;
    std::map<std::string, int> m_forced;
};

}  // namespace synctest
