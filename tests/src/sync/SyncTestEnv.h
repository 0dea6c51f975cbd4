#pragma once

// What the sync manager's tests put around the object under test, all real
// and all private to the test process:
//   - a network namespace of its own with two FireWire interfaces (TAP devices
//     of link type 24) whose node ids make firewire0 the rear and firewire1
//     the front port of the configured UUID;
//   - the configuration file under a shadowed /etc, the module type in the
//     device tree, recording stand-ins for the three time-service scripts
//     under a shadowed /usr/bin and a private /run;
//   - a velad of the test's own (testsupport::LocalVelad), a second bus peer
//     that watches and publishes states (testsupport::BusWatcher), and
//     multicast listeners that receive what the manager sends.
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

#include "../../platform/Sandbox.h"
#include "sync/CommandRunner.h"
#include "testsupport/BusWatcher.h"
#include "testsupport/LocalVelad.h"
#include "testsupport/LoopRun.h"
#include "testsupport/PrivateMounts.h"

namespace synctest {

using namespace std::chrono_literals;
using testsupport::runFor;
using testsupport::runUntil;

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

using orvtest::sh;

// A "sync/param" value as the platform publishes it.
inline Json::Value paramValue(const std::string& source, double threshold, const std::string& ptp,
                              const std::string& ntp)
{
    Json::Value value(Json::objectValue);
    value["timesource"] = source;
    value["threshold"] = threshold;
    value["ptp4l"] = ptp;
    value["ntpserver"] = ntp;
    return value;
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
        : m_tap(name, ARPHRD_IEEE1394)
    {
        if (m_tap.fd() < 0) {
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

private:
    orvtest::Tap m_tap;
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
