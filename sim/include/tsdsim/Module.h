#pragma once

#include <json/value.h>

#include <chrono>
#include <csignal>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tsdsim/BusObserver.h"
#include "tsdsim/ModuleDevices.h"
#include "tsdsim/ModuleFiles.h"
#include "tsdsim/ModuleProcesses.h"
#include "tsdsim/ModuleSandbox.h"
#include "tsdsim/ModuleSetup.h"
#include "tsdsim/ModuleSyslog.h"
#include "tsdsim/ModuleTimeServices.h"
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
//   - ModuleDevices   the FireWire devices its kernel would show, as the
//                     sysfs tree fwdevd reads;
//   - ModuleProcesses the table of its programs: velad (the module's bus at
//                     127.0.0.1:11122), the watcher (`vela watch`), fwdevd
//                     (the reachable devices), tsdparamd (the keeper of
//                     "sync/param") and tsd;
//   - BusObserver     what the module's bus shows, as the watcher reports it.
// The module wires them together and offers the operations the world, the
// Scenario and the tests use; the parts are reachable for anything more.
//
// What a module runs beside tsd is what a module ships: fwdevd publishes the
// devices of the tree, tsdparamd keeps "sync/param", starting from the
// module's own /etc/tsd/param.json (the setup's parameters) and taking
// changes as an operator gives them, through set requests it may refuse.
//
// Times are seconds since the world began. Threads: the controlling thread
// (the one that made the World) calls every function; the world's
// LoopThread feeds the observer and the syslog, whose getters return copies.
class Module
{
public:
    using BusEvent = BusObserver::Event;
    using LogLine = ModuleSyslog::Line;
    using ScriptCall = ScriptRecorder::Call;

    // The answer to a set request on "sync/param".
    struct ParamAnswer
    {
        bool accepted = false;
        // Refused: tsdparamd's reason (it names each wrong key), or why the
        // request did not reach it.
        std::string message;
    };

    // Builds the files and the sandbox. Throws std::runtime_error on failure.
    Module(World& world, const ModuleSetup& setup, int index);
    ~Module();
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    const ModuleSetup& setup() const { return m_setup; }
    const std::string& name() const { return m_setup.name; }
    int index() const { return m_index; }
    const std::string& dir() const { return m_files.dir(); }

    // Cabling: bus makes the port's interface inside the module (named
    // firewire0 / firewire1), which gets address 169.254.<bus>.<module
    // index>/24, is set up and shows link type 24 and the node id in sysfs.
    // Call before the daemon starts:
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

    // Processes. start() runs velad, the watcher, fwdevd, tsdparamd and tsd,
    // in that order; stop() ends them in reverse (tsd with SIGTERM).
    bool start(const std::vector<std::string>& tsdArgs = {});
    void stop();
    bool startVelad();
    // What runs beside tsd: the watcher (afresh), fwdevd and, unless the
    // setup says the module keeps no parameters, tsdparamd. Returns once the
    // bus shows the reachable devices and "sync/param"; false when one of
    // them did not start or get there in time, or when tsdparamd did not take
    // the module's parameters. startError() says why the last start of
    // velad, the platform or tsd failed.
    bool startPlatform();
    // startPlatform() in two halves, so that many modules start side by side
    // (World::startPlatforms): launch, then wait.
    bool launchPlatform();
    bool awaitPlatform();
    // Starts velad without waiting for it; startVelad() then waits.
    bool launchVelad();
    const std::string& startError() const { return m_startError; }
    // Ends velad with sig (SIGKILL simulates a crash) and waits for it.
    void stopVelad(int sig = SIGTERM);
    bool veladRunning();
    bool startTsd(const std::vector<std::string>& args = {});
    // Sends sig and waits up to timeout; returns the wait status, -1 on time-out.
    int stopTsd(int sig = SIGTERM, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000));
    bool tsdRunning();
    pid_t tsdPid() const { return m_processes.pid("tsd"); }
    pid_t veladPid() const { return m_processes.pid("velad"); }
    // Restarts the watcher, fwdevd or tsdparamd when it ended while velad
    // runs (after a velad restart, for instance). World::maintain() calls it.
    void maintain();

    // Asks tsdparamd, as an operator would (`vela set sync/param KEYS`
    // inside the module), to take the keys given (an object of some of
    // "timesource", "threshold", "ptp4l", "ntpserver"); the overload sends all
    // four. Waits for the answer (5 s at most).
    ParamAnswer setParam(const Json::Value& keys);
    ParamAnswer setParam(const SyncParam& param) { return setParam(param.toJson()); }
    // The module's parameters: the setup's, then the last value tsdparamd
    // accepted through setParam.
    const SyncParam& param() const { return m_param; }
    // Puts these remote nodes on the module's ports (the world's cabling) and
    // has fwdevd look again.
    void setReachable(const ModuleDevices::Remote& remote);
    // The reachable-device paths the module's bus should show.
    const std::set<std::string>& reachable() const { return m_devices.paths(); }
    // Waits until the bus shows exactly those devices and, when the module
    // keeps parameters, "sync/param"; false on time-out.
    bool waitPublished(std::chrono::milliseconds timeout);
    // What keeps waitPublished() waiting, for messages; empty when nothing.
    std::string unpublished() const;

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
    // ("tsd", "velad", "watcher", "fwdevd", "tsdparamd"), e.g. tsd's
    // "SIGNAL NR. : 15".
    std::string output(const std::string& program) const { return m_files.output(program); }
    // A file under the module's /run, e.g. "timesync/ptp4l.cfg"; empty when absent.
    std::string runFile(const std::string& relative) const { return m_files.runFile(relative); }
    // Real services (World::realServices()): the module's ptp4l, pmc and
    // the scripts' settings; nullptr with the recording stand-ins.
    const ModuleTimeServices* timeServices() const { return m_timeServices.get(); }
    // What its ptp4l did at the last World::pollFollowed().
    const PtpView& ptp() const { return m_ptp; }
    void setPtp(const PtpView& view) { m_ptp = view; }
    // Real services: "ptp4ladm.sh stop" and "stop_ntpd.sh" inside the module,
    // as tsd.service runs them before tsd. startTsd() does it itself unless
    // done since tsd last ran; the world does it for all modules at once.
    std::unique_ptr<ChildProcess> launchServicePreparation();
    void finishServicePreparation(ChildProcess* preparation);
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
    ModuleDevices& devices() { return m_devices; }
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
    bool devicesShown() const;

    World& m_world;
    ModuleSetup m_setup;
    int m_index;
    // Built in this order and taken down in reverse: the processes end
    // before the observer they report to, and everything inside goes before
    // the sandbox's holder.
    ModuleFiles m_files;
    ScriptRecorder m_scripts;
    ModuleSyslog m_syslog;
    ModuleSandbox m_sandbox;
    ModuleDevices m_devices;
    BusObserver m_observer;
    SyncParam m_param;
    std::string m_startError;
    std::unique_ptr<ModuleTimeServices> m_timeServices;
    PtpView m_ptp;
    bool m_servicesPrepared = false;
    ModuleProcesses m_processes;
    Port m_ports[2];
};

}  // namespace tsdsim
