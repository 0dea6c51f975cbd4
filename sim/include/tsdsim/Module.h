#pragma once

#include <json/value.h>

#include <chrono>
#include <csignal>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tsdsim/BusObserver.h"
#include "tsdsim/ModuleFiles.h"
#include "tsdsim/ModuleProcesses.h"
#include "tsdsim/ModuleSandbox.h"
#include "tsdsim/ModuleSetup.h"
#include "tsdsim/ModuleSyslog.h"
#include "tsdsim/Publisher.h"
#include "tsdsim/ScriptRecorder.h"

namespace tsdsim {

class Bus;
class World;

// One simulated module, put together from its parts:
//   - ModuleFiles     its directory on the host: configuration, device tree,
//                     /run, program output, and where everything lies;
//   - ScriptRecorder  the time-service scripts, as stand-ins that record
//                     their calls;
//   - ModuleSandbox   the holder process with its network and mount
//                     namespaces, where those files appear as the daemon
//                     expects, and its FireWire interfaces;
//   - ModuleSyslog    its /dev/log, read line by line;
//   - ModuleProcesses the table of its programs: velad (the module's bus at
//                     127.0.0.1:11122), the publisher (`vela own`), the
//                     watcher (`vela watch sync/`) and tsd;
//   - Publisher       what the platform would publish ("reachableDevices/...",
//                     "sync/param"), through the publisher;
//   - BusObserver     what the daemon publishes, as the watcher reports it.
// The module wires them together and offers the operations the world, the
// Scenario and the tests use; the parts are reachable for anything more.
//
// Times are seconds since the world began. Threads: the controlling thread
// (the one that made the World) calls every function; the world's
// LoopThread feeds the observer, the syslog and the publisher's
// acknowledgements, whose getters return copies.
class Module
{
public:
    using BusEvent = BusObserver::Event;
    using LogLine = ModuleSyslog::Line;
    using ScriptCall = ScriptRecorder::Call;

    // Builds the files and the sandbox. Throws std::runtime_error on failure.
    Module(World& world, const ModuleSetup& setup, int index);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const ModuleSetup& setup() const { return m_setup; }
    const std::string& name() const { return m_setup.name; }
    int index() const { return m_index; }
    const std::string& dir() const { return m_files.dir(); }

    // Cabling: creates the port's TAP device inside the module (named
    // firewire0 / firewire1, address 169.254.<bus>.<module index>/24, up, node
    // id in sysfs) and attaches it to bus. Call before the daemon starts:
    // it reads its adapters at start-up. Throws std::runtime_error on failure.
    void addInterface(Side side, Bus& bus);
    bool hasInterface(Side side) const;
    // Moves the port's cable to another bus: the interface, its address and
    // its node id stay, as when a cable is pulled and put into another
    // module's socket. World::move() also republishes the reachable devices.
    void movePort(Side side, Bus& to);
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
    pid_t tsdPid() const { return m_processes.pid("tsd"); }
    pid_t veladPid() const { return m_processes.pid("velad"); }
    // Restarts the publisher or the watcher when it ended while velad runs
    // (after a velad restart, for instance). World::maintain() calls it.
    void maintain();

    // What the simulator publishes on the module's bus.
    void setParam(const SyncParam& param) { m_publisher.setParam(param); }
    void removeParam() { m_publisher.removeParam(); }
    const SyncParam& param() const { return m_publisher.param(); }
    // Replaces the set of reachable-device paths (full paths).
    void setReachable(const std::set<std::string>& paths) { m_publisher.setReachable(paths); }
    const std::set<std::string>& reachable() const { return m_publisher.reachable(); }
    // Waits until the publisher has acknowledged every line; false on time-out.
    bool waitPublished(std::chrono::milliseconds timeout) { return m_publisher.waitPublished(timeout); }
    std::string lastPublishError() const { return m_publisher.lastError(); }

    // What the daemon published, as the watcher saw it.
    Json::Value state(const std::string& path) const { return m_observer.state(path); }  // null when absent
    std::map<std::string, Json::Value> states(const std::string& prefix) const
    {
        return m_observer.states(prefix);
    }
    std::vector<BusEvent> events() const { return m_observer.events(); }
    std::vector<LogLine> syslog() const { return m_syslog.lines(); }
    std::vector<ScriptCall> scriptCalls() const { return m_scripts.calls(); }
    // What a program of the module wrote to stdout and stderr so far
    // ("tsd", "velad", "publisher", "watcher"), e.g. tsd's "SIGNAL NR. : 15".
    std::string output(const std::string& program) const { return m_files.output(program); }
    // A file under the module's /run, e.g. "timesync/ptp4l.cfg"; empty when absent.
    std::string runFile(const std::string& relative) const { return m_files.runFile(relative); }
    // Exit status the recorder script gives from now on (0 by default).
    void setScriptStatus(const std::string& script, int status) { m_scripts.setStatus(script, status); }
    // Seconds the recorder script sleeps before it answers from now on (0: none).
    void setScriptDelay(const std::string& script, double seconds) { m_scripts.setDelay(script, seconds); }

    // Reaching into the module.
    // A socket (AF_INET, type) created in the module's network namespace.
    int openSocket(int type) const { return m_sandbox.openSocket(type); }
    // Runs argv inside the module's namespaces; returns the wait status (-1 on
    // time-out or failure to start) and collects stdout in output.
    int run(const std::vector<std::string>& argv, std::string* output,
            std::chrono::milliseconds timeout = std::chrono::milliseconds(5000)) const
    {
        return m_sandbox.run(argv, output, timeout);
    }
    int netnsFd() const { return m_sandbox.netnsFd(); }
    int mntnsFd() const { return m_sandbox.mntnsFd(); }
    pid_t holderPid() const { return m_sandbox.holderPid(); }

    // The parts.
    ModuleFiles& files() { return m_files; }
    ScriptRecorder& scripts() { return m_scripts; }
    const ModuleSandbox& sandbox() const { return m_sandbox; }
    ModuleProcesses& processes() { return m_processes; }
    Publisher& publisher() { return m_publisher; }
    const BusObserver& observer() const { return m_observer; }

private:
    struct Port
    {
        Bus* bus = nullptr;
        int portId = -1;
        std::string address;
    };

    void declarePrograms();
    void detachPorts();

    World& m_world;
    ModuleSetup m_setup;
    int m_index;
    // Built in this order and taken down in reverse: the processes end
    // before the observer and the publisher they report to, and everything
    // inside goes before the sandbox's holder.
    ModuleFiles m_files;
    ScriptRecorder m_scripts;
    ModuleSyslog m_syslog;
    ModuleSandbox m_sandbox;
    BusObserver m_observer;
    Publisher m_publisher;
    ModuleProcesses m_processes;
    Port m_ports[2];
};

}  // namespace tsdsim
