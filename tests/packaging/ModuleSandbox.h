#pragma once

// A module's view of the world for the time-service script tests, built
// inside orvtest::runIsolated (own network and mount namespaces, empty /run):
// the rear FireWire port firewire0 (10.1.0.2/24) is one end of a veth pair
// whose other end, p0 (10.1.0.1/24), sits in the namespace "peer", where the
// chain's other modules would be. The scripts run as tsd runs them, through
// /bin/sh, from the build tree, with their settings in a defaults file of the
// test's own (TSD_DEFAULTS).
//
// No test touches the host clock: the sandbox drops CAP_SYS_TIME from the
// bounding set before anything runs, so no ptp4l, chronyd or ntpd started
// here may adjust a clock even if asked to; the tests also ask them not to
// (ptp4l --free_running 1, chronyd -x) or give them nothing to follow.
//
// The sandbox is the reaper of every process the scripts leave behind, and
// its destructor ends (SIGKILL, by pid) whatever still runs in either
// namespace.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "../platform/Sandbox.h"

namespace scripttest {

const std::string kSource = TSD_SOURCE_DIR;
const std::string kScripts = std::string(TSD_BINARY_DIR) + "/packaging/scripts";
const std::string kChronyd = std::string(TSD_PRIVATE_ROOT) + "/usr/sbin/chronyd";
const std::string kNtpd = std::string(TSD_PRIVATE_ROOT) + "/usr/sbin/ntpd";
const std::string kRun = "/var/run/timesync";

std::string readFile(const std::string& path);
// The lines of a file written with printf '%s\n' per item.
std::vector<std::string> readLines(const std::string& path);
pid_t pidFrom(const std::string& path);
// Running, not merely waiting to be collected.
bool alive(pid_t pid);
// argv of a process, one entry per argument.
std::vector<std::string> commandLine(pid_t pid);
// The value's tokens as a shell with IFS blank/tab splits them.
std::vector<std::string> splitBlanks(const std::string& value);
// "\n", "\t", "\\" and "\xHH" of the shared case tables, decoded.
std::string unescape(const std::string& text);
bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

struct Outcome
{
    int status = -1;  // exit status, -1 for a signal death
    double seconds = 0;
};

class ModuleSandbox
{
public:
    ModuleSandbox();
    ~ModuleSandbox();
    ModuleSandbox(const ModuleSandbox&) = delete;
    ModuleSandbox& operator=(const ModuleSandbox&) = delete;

    // The defaults file's content (TSD_DEFAULTS of every script run).
    void setDefaults(const std::string& content);
    // An executable only root may change, in the test's scratch folder.
    std::string program(const std::string& name, const std::string& content);
    // A ptp4l or NTP daemon stand-in that writes its arguments, one per line,
    // to <name>.args and then sleeps; its path.
    std::string recorder(const std::string& name);
    // A stand-in that ignores SIGTERM, as a hung daemon would; its path.
    std::string stubborn(const std::string& name);
    // Runs the stop call while a stubborn stand-in runs as daemon: the call
    // must end it with SIGKILL, within the 5 s every call has, and leave
    // nothing of this module running.
    void expectStopKillsWithinTheBound(const std::string& stopCall, pid_t daemon);
    const std::string& dir() const { return m_dir; }

    // Runs "script args" as tsd does (system(), so through /bin/sh) from
    // the scratch folder, with PATH prefixed by extraPath when given.
    Outcome run(const std::string& scriptAndArgs, const std::string& extraPath = "");
    // "/bin/start_ntpd.sh &" as tsd runs it: returns at once.
    void runDetached(const std::string& scriptAndArgs);

    // Live processes in this module's or the peer's network namespace, other
    // than the test itself (zombies are collected first).
    std::vector<pid_t> processes();
    // Those whose command line mentions text.
    std::vector<pid_t> processesRunning(const std::string& text);
    // Collects every child that has ended.
    void reap();

    orvtest::Netns& peer() { return m_peer; }

private:
    std::string envPrefix(const std::string& extraPath) const;

    std::string m_dir;
    orvtest::Netns m_peer{"peer"};
    std::string m_ownNet;
    std::string m_peerNet;
};

}  // namespace scripttest
