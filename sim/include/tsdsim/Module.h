#pragma once

#include <json/value.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tsdsim/ChildProcess.h"
#include "tsdsim/ModuleSetup.h"

namespace tsdsim {

class Bus;
class World;

// One simulated module: its own network and mount namespace, held open by a
// small holder process, with everything the daemon reads at start-up put
// where it looks for it:
//   - environment "UUID" (given to tsd),
//   - /proc/device-tree/stratova/moduletype (a tmpfs over /proc that links
//     every entry of a private procfs and adds the device tree),
//   - firewire0 / firewire1: TAP devices of link type 24 with their node ids
//     in /sys/class/net/NAME/address (a private sysfs of the module's network
//     namespace, the address file bind-mounted from the module directory),
//   - /etc/TimeSourceDaemonConfig.xml and the three time-service scripts in
//     /bin as recorders (overlays on /etc and /usr/bin),
//   - a private /run (pid files, /var/run/timesync) and /dev/log (captured).
// Its velad listens on 127.0.0.1:11122 in the module's namespace; a `vela own`
// publishes what the platform would ("reachableDevices/...", "sync/param"),
// and a `vela watch sync/` records what the daemon publishes.
//
// The files of the module live on the host in dir() (run/ is its /run,
// scripts.log the recorder's log). Times are seconds since the world began.
//
// Threads: the controlling thread (the one that made the World) calls every
// function; the world's LoopThread feeds the recorded states, events and
// syslog lines, which the getters return as copies.
class Module
{
public:
    struct BusEvent
    {
        double time = 0;
        std::string event;  // "add", "change", "remove"
        std::string path;
        Json::Value value;
    };
    struct LogLine
    {
        double time = 0;
        int priority = 0;   // LOG_ERR ... LOG_DEBUG
        std::string ident;  // program name
        std::string text;
    };
    struct ScriptCall
    {
        double time = 0;        // seconds since the world began
        long long epochMs = 0;  // wall clock as the script saw it
        std::string script;     // "ptp4ladm.sh", "start_ntpd.sh", "stop_ntpd.sh"
        std::string args;
    };

    // Builds the namespaces and files. Throws std::runtime_error on failure.
    Module(World& world, const ModuleSetup& setup, int index);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const ModuleSetup& setup() const { return m_setup; }
    const std::string& name() const { return m_setup.name; }
    int index() const { return m_index; }
    const std::string& dir() const { return m_dir; }

    // Cabling: creates the port's TAP device inside the module (named
    // firewire0 / firewire1, address 169.254.<bus>.<module index>/24, up, node
    // id in sysfs) and attaches it to bus. Call before the daemon starts:
    // it reads its adapters at start-up. Throws std::runtime_error on failure.
    void addInterface(Side side, Bus& bus);
    bool hasInterface(Side side) const;
    Bus* bus(Side side) const;
    int portId(Side side) const;
    std::string address(Side side) const;

    // Processes. start() runs velad, the publisher, the watcher and tsd, in
    // that order; stop() ends them in reverse (tsd with SIGTERM).
    bool start(const std::vector<std::string>& tsdArgs = {});
    void stop();
    bool startVelad();
    // The publisher (`vela own`, which then publishes the module's
    // reachable devices and "sync/param") and the watcher (`vela watch sync/`).
    bool startBusClients();
    // Ends velad with sig (SIGKILL simulates a crash) and waits for it.
    void stopVelad(int sig = SIGTERM);
    bool veladRunning();
    bool startTsd(const std::vector<std::string>& args = {});
    // Sends sig and waits up to timeout; returns the wait status, -1 on time-out.
    int stopTsd(int sig = SIGTERM, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
    bool tsdRunning();
    pid_t tsdPid() const { return m_tsd ? m_tsd->pid() : -1; }
    pid_t veladPid() const { return m_velad ? m_velad->pid() : -1; }
    // Restarts the publisher or the watcher when it ended while velad runs
    // (after a velad restart, for instance). World::maintain() calls it.
    void maintain();

    // What the simulator publishes on the module's bus.
    void setParam(const SyncParam& param);
    void removeParam();
    const SyncParam& param() const { return m_param; }
    // Replaces the set of reachable-device paths (full paths).
    void setReachable(const std::set<std::string>& paths);
    const std::set<std::string>& reachable() const { return m_reachable; }
    // Waits until the publisher has acknowledged every line; false on time-out.
    bool waitPublished(std::chrono::milliseconds timeout);
    std::string lastPublishError() const;

    // What the daemon published, as the watcher saw it.
    Json::Value state(const std::string& path) const;  // null when absent
    std::map<std::string, Json::Value> states(const std::string& prefix) const;
    std::vector<BusEvent> events() const;
    std::vector<LogLine> syslog() const;
    std::vector<ScriptCall> scriptCalls() const;
    // What a program of the module wrote to stdout and stderr so far
    // ("tsd", "velad", "publisher", "watcher"), e.g. tsd's "SIGNAL NR. : 15".
    std::string output(const std::string& program) const;
    // A file under the module's /run, e.g. "timesync/ptp4l.cfg"; empty when absent.
    std::string runFile(const std::string& relative) const;
    // Exit status the recorder script gives from now on (0 by default).
    void setScriptStatus(const std::string& script, int status);

    // Reaching into the module.
    // A socket (AF_INET, type) created in the module's network namespace.
    int openSocket(int type) const;
    // Runs argv inside the module's namespaces; returns the wait status (-1 on
    // time-out or failure to start) and collects stdout in output.
    int run(const std::vector<std::string>& argv, std::string* output,
            std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const;
    int netnsFd() const { return m_netns; }
    int mntnsFd() const { return m_mntns; }
    pid_t holderPid() const { return m_holder; }

private:
    struct Port
    {
        Bus* bus = nullptr;
        int portId = -1;
        std::string address;
    };

    void buildFiles();
    // Gives back the holder, namespaces, ports and syslog socket.
    void release();
    void startHolder();
    void openSyslog();
    void onSyslog();
    bool startPublisher();
    void stopPublisher();
    void onPublisherOutput();
    bool startWatcher();
    void stopWatcher();
    void onWatcherOutput();
    void publishLine(const std::string& line);
    ChildProcess::Options options(const std::vector<std::string>& argv, const std::string& log) const;
    double now() const;

    World& m_world;
    ModuleSetup m_setup;
    int m_index;
    std::string m_dir;
    pid_t m_holder = -1;
    int m_netns = -1;
    int m_mntns = -1;
    int m_syslogFd = -1;
    Port m_ports[2];

    std::unique_ptr<ChildProcess> m_velad;
    std::unique_ptr<ChildProcess> m_tsd;
    std::unique_ptr<ChildProcess> m_publisher;
    std::unique_ptr<ChildProcess> m_watcher;

    SyncParam m_param;
    bool m_paramPublished = false;
    std::set<std::string> m_reachable;

    // Filled on the LoopThread, read by the controlling thread.
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_publisherBuffer;
    std::string m_watcherBuffer;
    unsigned long m_linesSent = 0;
    unsigned long m_linesAcked = 0;
    std::string m_lastPublishError;
    std::map<std::string, Json::Value> m_states;
    std::vector<BusEvent> m_events;
    std::vector<LogLine> m_syslog;
};

}  // namespace tsdsim
